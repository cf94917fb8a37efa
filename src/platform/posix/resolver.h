// The built-in IPv4-only resolver: drop-in replacements for getaddrinfo,
// getnameinfo and freeaddrinfo with the same signatures and EAI_ result
// codes. A list from builtin_getaddrinfo must go back to builtin_freeaddrinfo
// and no other, since its memory comes from tn_alloc.
#ifndef TN_SRC_PLATFORM_POSIX_RESOLVER_H
#define TN_SRC_PLATFORM_POSIX_RESOLVER_H

#include <netdb.h>
#include <sys/socket.h>

namespace tn::resolver {

int builtin_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **result);
int builtin_getnameinfo(const sockaddr *address, socklen_t length, char *host, socklen_t host_size,
                        char *service, socklen_t service_size, int flags);
void builtin_freeaddrinfo(addrinfo *list);

} // namespace tn::resolver

#endif
