// The calling thread's last socket error, shared by the socket and name
// operations. It holds an errno value (positive) or a resolver result code
// (an EAI_ value, negative on this C library, or 0), so the two never clash.
#ifndef TN_SRC_PLATFORM_POSIX_SOCKET_INTERNAL_H
#define TN_SRC_PLATFORM_POSIX_SOCKET_INTERNAL_H

#include <tarnel_util/tn_ip.h>

namespace tn::socket {

void set_last_error(int code);

// The size that goes with the record's family when it meets the platform:
// 16 for IPv4, 28 for IPv6, 0 for anything else.
unsigned ip_size(const tn_ip *ip);

} // namespace tn::socket

#endif
