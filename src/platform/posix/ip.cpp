#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_ip.h>
#include <tarnel_util/tn_pack.h>
#include <tarnel_util/tn_socket.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "platform/posix/resolver.h"
#include "platform/posix/socket_internal.h"

// The record is handed to the system as it stands, so its layout must be
// the system's own.
static_assert(sizeof(tn_ip) == sizeof(sockaddr_in6));
static_assert(alignof(tn_ip) >= alignof(sockaddr_in6) && alignof(tn_ip) >= alignof(sockaddr_in));
static_assert(sizeof(sa_family_t) == 2 && offsetof(sockaddr_in, sin_family) == 0 &&
              offsetof(sockaddr_in6, sin6_family) == 0);
static_assert(offsetof(sockaddr_in, sin_port) == 2 && offsetof(sockaddr_in6, sin6_port) == 2);
static_assert(offsetof(sockaddr_in, sin_addr) == 4 && offsetof(sockaddr_in6, sin6_addr) == 8);
static_assert(sizeof(sockaddr_in) == 16);

namespace {

struct resolver {
    int (*getaddrinfo)(const char *, const char *, const addrinfo *, addrinfo **);
    int (*getnameinfo)(const sockaddr *, socklen_t, char *, socklen_t, char *, socklen_t, int);
    void (*freeaddrinfo)(addrinfo *);
};

constexpr resolver system_resolver{::getaddrinfo, ::getnameinfo, ::freeaddrinfo};
constexpr resolver builtin_resolver{tn::resolver::builtin_getaddrinfo, tn::resolver::builtin_getnameinfo,
                                    tn::resolver::builtin_freeaddrinfo};

// One pointer chooses all three functions, and each operation loads it once,
// so a list is always given back to the resolver that made it.
constinit std::atomic<const resolver *> chosen{&system_resolver};

const resolver *current() { return chosen.load(std::memory_order_acquire); }

constexpr tn_uchar any4[4] = {0, 0, 0, 0};
constexpr tn_uchar loopback4[4] = {127, 0, 0, 1};
constexpr tn_uchar any6[16] = {};
constexpr tn_uchar loopback6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

sa_family_t raw_family(const tn_ip *ip)
{
    sa_family_t family;
    std::memcpy(&family, ip->bytes, sizeof family);
    return family;
}

void set_raw_family(tn_ip *ip, sa_family_t family) { std::memcpy(ip->bytes, &family, sizeof family); }

tn_uint32 family_code(const tn_ip *ip)
{
    switch (raw_family(ip)) {
    case AF_INET: return TN_IP_FAMILY_V4;
    case AF_INET6: return TN_IP_FAMILY_V6;
    default: return TN_IP_FAMILY_NONE;
    }
}

// Where the address bytes of a family code lie, and how many there are.
struct span {
    tn_uint32 offset, length;
};
span address_of(tn_uint32 code)
{
    return code == TN_IP_FAMILY_V4 ? span{4, 4} : code == TN_IP_FAMILY_V6 ? span{8, 16} : span{0, 0};
}

bool same_address(const tn_ip *a, const tn_ip *b, tn_uint32 code)
{
    span at = address_of(code);
    return std::memcmp(a->bytes + at.offset, b->bytes + at.offset, at.length) == 0;
}

bool address_is(const tn_ip *ip, const tn_uchar *v4, const tn_uchar *v6)
{
    tn_uint32 code = family_code(ip);
    if (code == TN_IP_FAMILY_NONE) return false;
    span at = address_of(code);
    return std::memcmp(ip->bytes + at.offset, code == TN_IP_FAMILY_V4 ? v4 : v6, at.length) == 0;
}

// The port as decimal text with its terminator.
void port_text(char (&text)[8], tn_uint16 port)
{
    text[tn_str_fmt_uint16(reinterpret_cast<tn_uchar *>(text), port)] = 0;
}

addrinfo stream_hints(int flags)
{
    addrinfo hints{};
    hints.ai_flags = flags;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    return hints;
}

// An entry's address over the start of the record; what the entry does not
// cover keeps its bytes.
void copy_entry(tn_ip *ip, const addrinfo *entry)
{
    if (!entry->ai_addr) return;
    std::size_t n = entry->ai_addrlen < sizeof ip->bytes ? entry->ai_addrlen : sizeof ip->bytes;
    std::memcpy(ip->bytes, entry->ai_addr, n);
}

const char *as_chars(const tn_uchar *text) { return reinterpret_cast<const char *>(text); }

} // namespace

unsigned tn::socket::ip_size(const tn_ip *ip)
{
    switch (raw_family(ip)) {
    case AF_INET: return sizeof(sockaddr_in);
    case AF_INET6: return sizeof(sockaddr_in6);
    default: return 0;
    }
}

void tn_ip_init(tn_ip *ip) { std::memset(ip->bytes, 0, sizeof ip->bytes); }

tn_bool tn_ip_copy(tn_ip *destination, const tn_ip *source)
{
    std::memcpy(destination->bytes, source->bytes, sizeof destination->bytes);
    return 1;
}

tn_bool tn_ip_set(tn_ip *ip, const tn_uchar *text, tn_uint16 port)
{
    if (!tn_socket_init()) return 0;
    char service[8];
    port_text(service, port);
    const addrinfo hints = stream_hints(AI_NUMERICHOST);
    const resolver *r = current();
    addrinfo *list = nullptr;
    int code = r->getaddrinfo(as_chars(text), service, &hints, &list);
    tn::socket::set_last_error(code);
    if (code != 0 || !list) return 0;
    copy_entry(ip, list);
    r->freeaddrinfo(list);
    return 1;
}

tn_bool tn_ip_set2(tn_ip *ip, tn_uint32 family, const tn_uchar *bytes, tn_uint16 port)
{
    if (family != TN_IP_FAMILY_V4 && family != TN_IP_FAMILY_V6) return 0;
    set_raw_family(ip, family == TN_IP_FAMILY_V4 ? AF_INET : AF_INET6);
    tn_uint16_pack_big(ip->bytes + 2, port);
    if (bytes) {
        span at = address_of(family);
        std::memcpy(ip->bytes + at.offset, bytes, at.length);
    }
    return 1;
}

tn_bool tn_ip_get(const tn_ip *ip, tn_uint32 *family, tn_uchar *text, tn_uint16 *port)
{
    if (!tn_socket_init()) return 0;
    tn_uint32 code = family_code(ip);
    if (family) *family = code;
    if (code == TN_IP_FAMILY_NONE) return 1;
    if (port) tn_uint16_unpack_big(ip->bytes + 2, port);
    if (!text) return 1;
    int result = current()->getnameinfo(reinterpret_cast<const sockaddr *>(ip->bytes), tn::socket::ip_size(ip),
                                        reinterpret_cast<char *>(text), TN_IP_STR_SIZE, nullptr, 0,
                                        NI_NUMERICHOST);
    tn::socket::set_last_error(result);
    return result == 0;
}

tn_bool tn_ip_get2(const tn_ip *ip, tn_uint32 *family, tn_uchar *bytes, tn_uint32 *length, tn_uint16 *port)
{
    tn_uint32 code = family_code(ip);
    if (family) *family = code;
    if (code == TN_IP_FAMILY_NONE) return 1;
    span at = address_of(code);
    if (bytes) std::memcpy(bytes, ip->bytes + at.offset, at.length);
    if (length) *length = at.length;
    if (port) tn_uint16_unpack_big(ip->bytes + 2, port);
    return 1;
}

tn_bool tn_ip_by_name(tn_ip_array *array, const tn_uchar *name, tn_uint16 port)
{
    if (!tn_socket_init()) return 0;
    tn_array_truncate(array);
    char service[8];
    port_text(service, port);
    // Without a name the resolver gives the wildcard addresses, for binding.
    const addrinfo hints = stream_hints(name ? 0 : AI_PASSIVE);
    const resolver *r = current();
    addrinfo *list = nullptr;
    int code = r->getaddrinfo(as_chars(name), service, &hints, &list);
    tn::socket::set_last_error(code);
    if (code != 0) return 0;
    tn_bool ok = 1;
    for (const addrinfo *entry = list; entry && ok; entry = entry->ai_next) {
        tn_ip one;
        tn_ip_init(&one);
        copy_entry(&one, entry);
        ok = tn_array_catn(array, &one, 1);
    }
    if (list) r->freeaddrinfo(list);
    return ok;
}

tn_bool tn_ip_equal(const tn_ip *a, const tn_ip *b)
{
    tn_uint32 code = family_code(a);
    if (code != family_code(b)) return 0;
    if (code == TN_IP_FAMILY_NONE) return 1;
    return std::memcmp(a->bytes + 2, b->bytes + 2, 2) == 0 && same_address(a, b, code);
}

tn_bool tn_ip_addr_equal(const tn_ip *a, const tn_ip *b)
{
    tn_uint32 code = family_code(a);
    return code == family_code(b) && same_address(a, b, code);
}

tn_bool tn_ip_family_equal(const tn_ip *a, const tn_ip *b) { return family_code(a) == family_code(b); }

tn_bool tn_ip_is_any(const tn_ip *ip) { return address_is(ip, any4, any6); }

tn_bool tn_ip_is_loopback(const tn_ip *ip) { return address_is(ip, loopback4, loopback6); }

tn_ip *tn_ip_array_get_end(const tn_ip_array *array) { return static_cast<tn_ip *>(tn_array_get_end(array)); }

const tn_uchar *tn_ip_str_any4(void) { return reinterpret_cast<const tn_uchar *>("0.0.0.0"); }
const tn_uchar *tn_ip_str_loopback4(void) { return reinterpret_cast<const tn_uchar *>("127.0.0.1"); }
const tn_uchar *tn_ip_str_any6(void) { return reinterpret_cast<const tn_uchar *>("::"); }
const tn_uchar *tn_ip_str_loopback6(void) { return reinterpret_cast<const tn_uchar *>("::1"); }
const tn_uchar *tn_ip_addr_any4(void) { return any4; }
const tn_uchar *tn_ip_addr_loopback4(void) { return loopback4; }
const tn_uchar *tn_ip_addr_any6(void) { return any6; }
const tn_uchar *tn_ip_addr_loopback6(void) { return loopback6; }

void tn_ip_use_builtin_resolver(tn_bool on)
{
    chosen.store(on ? &builtin_resolver : &system_resolver, std::memory_order_release);
}
