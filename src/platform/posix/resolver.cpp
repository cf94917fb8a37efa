#include "platform/posix/resolver.h"

#include <tarnel_util/tn_alloc.h>
#include <tarnel_util/tn_fmt.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

namespace tn::resolver {
namespace {

constexpr std::size_t name_size = 1025;
constexpr int alias_hops = 16;

// Room for the reentrant lookups of the C library: the stack first, and a
// larger block from tn_alloc each time the library says it needs more.
class scratch {
public:
    scratch() = default;
    scratch(const scratch &) = delete;
    scratch &operator=(const scratch &) = delete;
    ~scratch() { tn_alloc_free(heap_); }

    char *data() { return heap_ ? heap_ : local_; }
    std::size_t size() const { return size_; }

    bool grow()
    {
        constexpr std::size_t limit = 1u << 20;
        if (size_ >= limit) return false;
        tn_alloc_free(heap_);
        size_ *= 4;
        heap_ = static_cast<char *>(tn_alloc(static_cast<tn_uint32>(size_)));
        return heap_ != nullptr;
    }

private:
    char local_[2048];
    char *heap_ = nullptr;
    std::size_t size_ = sizeof local_;
};

enum class found { yes, no, no_memory };

// Runs one reentrant lookup, growing the scratch while it reports ERANGE.
template <typename Entry, typename Lookup> found look_up(scratch &room, Lookup lookup)
{
    for (;;) {
        Entry *result = nullptr;
        int code = lookup(room.data(), room.size(), &result);
        if (code == ERANGE) {
            if (!room.grow()) return found::no_memory;
            continue;
        }
        return code == 0 && result ? found::yes : found::no;
    }
}

found host_by_name(const char *name, hostent *entry, int *h_error, scratch &room)
{
    return look_up<hostent>(room, [&](char *buffer, std::size_t size, hostent **result) {
        return gethostbyname_r(name, entry, buffer, size, result, h_error);
    });
}

found host_by_address(const in_addr *address, hostent *entry, int *h_error, scratch &room)
{
    return look_up<hostent>(room, [&](char *buffer, std::size_t size, hostent **result) {
        return gethostbyaddr_r(address, sizeof *address, AF_INET, entry, buffer, size, result, h_error);
    });
}

found service_by_name(const char *name, const char *protocol, servent *entry, scratch &room)
{
    return look_up<servent>(room, [&](char *buffer, std::size_t size, servent **result) {
        return getservbyname_r(name, protocol, entry, buffer, size, result);
    });
}

found service_by_port(in_port_t port, const char *protocol, servent *entry, scratch &room)
{
    return look_up<servent>(room, [&](char *buffer, std::size_t size, servent **result) {
        return getservbyport_r(port, protocol, entry, buffer, size, result);
    });
}

// A failed host lookup's reason, as the resolver codes say it.
int code_of_host_error(int h_error)
{
    return h_error == TRY_AGAIN ? EAI_AGAIN : h_error == NO_RECOVERY ? EAI_FAIL : EAI_NONAME;
}

char *clone_text(const char *text)
{
    std::size_t n = std::strlen(text) + 1;
    auto *copy = static_cast<char *>(tn_alloc(static_cast<tn_uint32>(n)));
    if (copy) std::memcpy(copy, text, n);
    return copy;
}

// Copies at most name_size - 1 characters and terminates.
void copy_name(char *destination, const char *source)
{
    std::size_t n = source ? strnlen(source, name_size - 1) : 0;
    if (n) std::memcpy(destination, source, n);
    destination[n] = 0;
}

addrinfo *new_entry(int socktype, int protocol, in_port_t port, in_addr_t address)
{
    auto *entry = static_cast<addrinfo *>(tn_alloc_zero(sizeof(addrinfo)));
    auto *socket_address = static_cast<sockaddr_in *>(tn_alloc_zero(sizeof(sockaddr_in)));
    if (!entry || !socket_address) {
        tn_alloc_free(entry);
        tn_alloc_free(socket_address);
        return nullptr;
    }
    entry->ai_family = AF_INET;
    entry->ai_socktype = socktype;
    entry->ai_protocol = protocol;
    entry->ai_addrlen = sizeof(sockaddr_in);
    entry->ai_addr = reinterpret_cast<sockaddr *>(socket_address);
    socket_address->sin_family = AF_INET;
    socket_address->sin_port = port;
    socket_address->sin_addr.s_addr = address;
    return entry;
}

// The list under construction; whatever it holds is freed unless taken.
class entry_list {
public:
    entry_list() = default;
    entry_list(const entry_list &) = delete;
    entry_list &operator=(const entry_list &) = delete;
    ~entry_list() { builtin_freeaddrinfo(head_); }

    addrinfo *head() const { return head_; }

    addrinfo *append(int socktype, int protocol, in_port_t port, in_addr_t address)
    {
        addrinfo *entry = new_entry(socktype, protocol, port, address);
        if (!entry) return nullptr;
        *tail_ = entry;
        tail_ = &entry->ai_next;
        return entry;
    }

    // Behind every entry a datagram twin on the UDP port.
    bool clone_for_datagrams(in_port_t udp_port)
    {
        for (addrinfo *entry = head_; entry; entry = entry->ai_next) {
            auto *original = reinterpret_cast<const sockaddr_in *>(entry->ai_addr);
            addrinfo *twin = new_entry(SOCK_DGRAM, entry->ai_protocol, udp_port, original->sin_addr.s_addr);
            if (!twin) return false;
            twin->ai_next = entry->ai_next;
            entry->ai_next = twin;
            if (tail_ == &entry->ai_next) tail_ = &twin->ai_next;
            entry = twin;
        }
        return true;
    }

    addrinfo *take()
    {
        addrinfo *list = head_;
        head_ = nullptr;
        tail_ = &head_;
        return list;
    }

private:
    addrinfo *head_ = nullptr;
    addrinfo **tail_ = &head_;
};

// Resolves a host name through the classic host lookup, following the
// official name of an entry that has no IPv4 address, up to alias_hops
// times, as an alias chain may loop.
int look_up_name(const char *node, int flags, int socktype, int protocol, in_port_t port, entry_list &list)
{
    char first[name_size], second[name_size];
    char *name = first;
    char *alias = second;
    copy_name(name, node);
    scratch room;
    for (int hops = 0;;) {
        alias[0] = 0;
        hostent entry;
        int h_error = 0;
        found result = host_by_name(name, &entry, &h_error, room);
        if (result == found::no_memory) return EAI_MEMORY;
        if (result == found::no) return code_of_host_error(h_error);
        if (entry.h_addrtype == AF_INET && entry.h_length == 4 && entry.h_addr_list) {
            for (char **at = entry.h_addr_list; *at; ++at) {
                in_addr_t address;
                std::memcpy(&address, *at, sizeof address);
                if (!list.append(socktype, protocol, port, address)) return EAI_MEMORY;
            }
        }
        copy_name(alias, entry.h_name);
        if (list.head()) {
            if ((flags & AI_CANONNAME) && !(list.head()->ai_canonname = clone_text(alias))) return EAI_MEMORY;
            return 0;
        }
        if (!alias[0] || std::strcmp(alias, name) == 0 || ++hops == alias_hops) return EAI_FAIL;
        char *next = alias;
        alias = name;
        name = next;
    }
}

// Exactly three dots and a value inet_addr takes; 255.255.255.255 cannot be
// told from inet_addr's failure and so never counts as numeric.
bool numeric_address(const char *node, in_addr_t *address)
{
    int dots = 0;
    for (const char *c = node; *c; ++c) dots += *c == '.';
    if (dots != 3) return false;
    *address = inet_addr(node);
    return *address != INADDR_NONE;
}

bool fits(const char *text, std::size_t length, char *destination, socklen_t size)
{
    if (length + 1 > size) return false;
    std::memcpy(destination, text, length);
    destination[length] = 0;
    return true;
}

} // namespace

int builtin_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **result)
{
    *result = nullptr;
    if (!node && !service) return EAI_NONAME;
    int flags = 0;
    int socktype = 0;
    int protocol = 0;
    if (hints) {
        if (hints->ai_addrlen || hints->ai_canonname || hints->ai_addr || hints->ai_next) return EAI_FAIL;
        if ((hints->ai_flags & AI_CANONNAME) && !node) return EAI_BADFLAGS;
        if (hints->ai_family != AF_UNSPEC && hints->ai_family != AF_INET) return EAI_FAMILY;
        if (hints->ai_socktype != 0 && hints->ai_socktype != SOCK_STREAM && hints->ai_socktype != SOCK_DGRAM &&
            hints->ai_socktype != SOCK_RAW) {
            return EAI_SOCKTYPE;
        }
        flags = hints->ai_flags;
        socktype = hints->ai_socktype;
        protocol = hints->ai_protocol;
    }

    in_port_t port = 0;
    in_port_t tcp_port = 0;
    in_port_t udp_port = 0;
    bool clone = false;
    if (service) {
        char *end;
        unsigned long number = std::strtoul(service, &end, 10);
        if (*end == 0) {
            port = udp_port = htons(static_cast<uint16_t>(number));
            if (socktype == 0) {
                socktype = SOCK_STREAM;
                clone = true;
            }
        } else {
            scratch room;
            servent entry;
            const bool any_type = socktype == 0;
            if (any_type || socktype == SOCK_DGRAM) {
                found hit = service_by_name(service, "udp", &entry, room);
                if (hit == found::no_memory) return EAI_MEMORY;
                if (hit == found::yes) port = udp_port = static_cast<in_port_t>(entry.s_port);
            }
            // Asked second, so that TCP wins where both know the name.
            if (any_type || socktype == SOCK_STREAM) {
                found hit = service_by_name(service, "tcp", &entry, room);
                if (hit == found::no_memory) return EAI_MEMORY;
                if (hit == found::yes) port = tcp_port = static_cast<in_port_t>(entry.s_port);
            }
            if (port == 0) return any_type ? EAI_NONAME : EAI_SERVICE;
            if (any_type) {
                socktype = tcp_port ? SOCK_STREAM : SOCK_DGRAM;
                clone = tcp_port && udp_port;
            }
        }
    }

    entry_list list;
    if (!node) {
        in_addr_t address = htonl((flags & AI_PASSIVE) ? INADDR_ANY : INADDR_LOOPBACK);
        if (!list.append(socktype, protocol, port, address)) return EAI_MEMORY;
    } else if (in_addr_t address; numeric_address(node, &address)) {
        addrinfo *entry = list.append(socktype, protocol, port, address);
        if (!entry) return EAI_MEMORY;
        entry->ai_flags |= AI_NUMERICHOST;
        if (flags & AI_CANONNAME) {
            char text[INET_ADDRSTRLEN];
            in_addr parsed{address};
            if (!inet_ntop(AF_INET, &parsed, text, sizeof text) || !(entry->ai_canonname = clone_text(text))) {
                return EAI_MEMORY;
            }
        }
    } else if (flags & AI_NUMERICHOST) {
        return EAI_NONAME;
    } else if (int code = look_up_name(node, flags, socktype, protocol, port, list)) {
        return code;
    }

    if (clone && !list.clone_for_datagrams(udp_port)) return EAI_MEMORY;
    *result = list.take();
    return 0;
}

int builtin_getnameinfo(const sockaddr *address, socklen_t length, char *host, socklen_t host_size,
                        char *service, socklen_t service_size, int flags)
{
    if (!address || length < sizeof(sockaddr_in)) return EAI_FAIL;
    if (address->sa_family != AF_INET) return EAI_FAMILY;
    const bool want_host = host && host_size;
    const bool want_service = service && service_size;
    if (!want_host && !want_service) return EAI_NONAME;
    if ((flags & NI_NUMERICHOST) && (flags & NI_NAMEREQD)) return EAI_BADFLAGS;

    sockaddr_in in;
    std::memcpy(&in, address, sizeof in);
    scratch room;

    if (want_service) {
        const char *text = nullptr;
        if (!(flags & NI_NUMERICSERV)) {
            servent entry;
            found hit = service_by_port(in.sin_port, (flags & NI_DGRAM) ? "udp" : nullptr, &entry, room);
            if (hit == found::no_memory) return EAI_MEMORY;
            if (hit == found::yes && entry.s_name) text = entry.s_name;
        }
        char number[sizeof "65535"];
        if (!text) {
            number[tn_str_fmt_uint16(reinterpret_cast<tn_uchar *>(number), ntohs(in.sin_port))] = 0;
            text = number;
        }
        if (!fits(text, std::strlen(text), service, service_size)) return EAI_FAIL;
    }

    if (want_host) {
        char numeric[INET_ADDRSTRLEN];
        const char *text = nullptr;
        std::size_t text_length = 0;
        if (!(flags & NI_NUMERICHOST)) {
            hostent entry;
            int h_error = 0;
            found hit = host_by_address(&in.sin_addr, &entry, &h_error, room);
            if (hit == found::no_memory) return EAI_MEMORY;
            if (hit == found::yes && entry.h_name) {
                text = entry.h_name;
                text_length = std::strlen(text);
                if (flags & NI_NOFQDN) {
                    if (const char *dot = std::strchr(text, '.')) text_length = static_cast<std::size_t>(dot - text);
                }
            } else if (flags & NI_NAMEREQD) {
                return code_of_host_error(h_error);
            }
        }
        if (!text) {
            if (!inet_ntop(AF_INET, &in.sin_addr, numeric, sizeof numeric)) return EAI_FAIL;
            text = numeric;
            text_length = std::strlen(text);
        }
        if (!fits(text, text_length, host, host_size)) return EAI_FAIL;
    }
    return 0;
}

void builtin_freeaddrinfo(addrinfo *list)
{
    while (list) {
        addrinfo *next = list->ai_next;
        tn_alloc_free(list->ai_canonname);
        tn_alloc_free(list->ai_addr);
        tn_alloc_free(list);
        list = next;
    }
}

} // namespace tn::resolver
