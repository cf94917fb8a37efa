/* A host that uses the installed library from C. */
#include <stdio.h>

#include <tarnel_util/tarnel_util.h>

int main(void)
{
    tn_array a;
    tn_uint32 i, sum = 0;
    tn_time now;

    tn_array_init(&a, sizeof(tn_uint32));
    for (i = 1; i <= 100; ++i) tn_array_catn(&a, &i, 1);
    for (i = 0; i < tn_array_length(&a); ++i) sum += tn_uint32_array_get_pos(&a, i);
    tn_array_free(&a);
    tn_time_msec(&now);
    if (sum != 5050 || now <= 0) return 1;
    printf("tarnel_util works\n");
    return 0;
}
