/*
 * mhd_file_server - the libmicrohttpd contender in the HTTP server
 * benchmarks: GET of the files under a root, served by its internal epoll
 * thread (one thread), with keep-alive and the file handed to the kernel.
 *
 *   mhd_file_server ROOT PORT SECONDS
 */
#include <fcntl.h>
#include <microhttpd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char *root;

static enum MHD_Result answer(void *cls, struct MHD_Connection *connection, const char *url, const char *method,
                              const char *version, const char *data, size_t *size, void **state)
{
    char path[4096];
    struct MHD_Response *response;
    struct stat st;
    enum MHD_Result result;
    int fd;

    (void)cls, (void)version, (void)data, (void)size, (void)state;
    if (strcmp(method, "GET") || strstr(url, "..")) return MHD_NO;
    snprintf(path, sizeof path, "%s%s", root, url);
    fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || fstat(fd, &st) || !S_ISREG(st.st_mode)) {
        static const char missing[] = "not found";
        if (fd >= 0) close(fd);
        response = MHD_create_response_from_buffer(sizeof missing - 1, (void *)missing, MHD_RESPMEM_PERSISTENT);
        result = MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, response);
    } else {
        response = MHD_create_response_from_fd64((uint64_t)st.st_size, fd);
        result = MHD_queue_response(connection, MHD_HTTP_OK, response);
    }
    MHD_destroy_response(response);
    return result;
}

int main(int argc, char **argv)
{
    struct MHD_Daemon *daemon;

    if (argc != 4) {
        fprintf(stderr, "usage: mhd_file_server ROOT PORT SECONDS\n");
        return 2;
    }
    root = argv[1];
    daemon = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL, (uint16_t)atoi(argv[2]), NULL, NULL,
                              answer, NULL, MHD_OPTION_CONNECTION_LIMIT, 1000u, MHD_OPTION_END);
    if (!daemon) {
        fprintf(stderr, "mhd_file_server: cannot start\n");
        return 1;
    }
    printf("listening on port %s\n", argv[2]);
    fflush(stdout);
    sleep((unsigned)atoi(argv[3]));
    MHD_stop_daemon(daemon);
    return 0;
}
