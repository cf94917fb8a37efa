/*
 * tn_ip.h - one IP address with a port, and name lookup.
 *
 * A tn_ip is a block of 28 bytes that holds exactly the platform's IPv4 or
 * IPv6 socket address, so the socket layer hands it to the system without
 * conversion. Its layout, for those who read it directly:
 *
 *   bytes 0-1   family: 16 bits in native order, the platform's value
 *               (2 for IPv4, 10 for IPv6 on this platform, 0 for none)
 *   bytes 2-3   port, big-endian
 *   IPv4:  bytes 4-7 address in network order; the rest has no meaning
 *   IPv6:  bytes 4-7 flow information, bytes 8-23 address in network
 *          order, bytes 24-27 scope identifier
 *
 * The byte operations below never read or write the flow information and
 * the scope. When a record meets the platform it goes with the size of its
 * family: 16 bytes for IPv4, 28 for IPv6, 0 for anything else.
 *
 * The public operations speak of the family through a small code, never the
 * platform's value: TN_IP_FAMILY_NONE (0) for any family field other than
 * IPv4 and IPv6, TN_IP_FAMILY_V4 (1) and TN_IP_FAMILY_V6 (2). A port is a
 * tn_uint16 in host order. Address bytes are 4 for IPv4 and 16 for IPv6, in
 * network order. Results are 1 for success and 0 for failure unless a
 * function says otherwise; an out-parameter described as "or null" may be
 * null, and that output is then left out.
 *
 * The record needs no free: it is plain bytes. tn_ip_init is needed only
 * before a record is read or tn_ip_set2 fills it in part.
 *
 * Name service. tn_ip_set, tn_ip_get and tn_ip_by_name go through the
 * system's resolver, or through the library's own IPv4-only resolver when
 * tn_ip_use_builtin_resolver has turned it on. They leave the resolver's
 * result code as the thread's last socket error, also when it is 0 (no
 * error); tn_socket_get_last_error reports every non-zero resolver code as
 * TN_SOCKET_ERROR_OTHER. Nothing here takes a lock.
 */
#ifndef TARNEL_UTIL_TN_IP_H
#define TARNEL_UTIL_TN_IP_H

#include "tn_array.h"

TN_BEGIN_DECLS

#define TN_IP_FAMILY_NONE 0u
#define TN_IP_FAMILY_V4 1u
#define TN_IP_FAMILY_V6 2u

/* Bytes a numeric address text needs with its terminator: the smallest
 * buffer that tn_ip_get may be given for its text. */
#define TN_IP_STR_SIZE 46

/* The platform's socket address in 28 bytes, aligned as the platform wants
 * it. Read and write it through the operations, or through bytes as laid out
 * above. */
typedef union tn_ip {
    tn_uint8 bytes[28];
    tn_uint32 align_; /* alignment only */
} tn_ip;

/* An array of whole tn_ip records: a tn_array that the caller sets up with
 * tn_array_init(array, sizeof(tn_ip)) and owns. */
typedef tn_array tn_ip_array;

/* Zeroes all 28 bytes; the family code is then 0. */
TN_API void tn_ip_init(tn_ip *ip);

/* Copies all 28 bytes of source to destination. Returns 1. */
TN_API tn_bool tn_ip_copy(tn_ip *destination, const tn_ip *source);

/* Parses a numeric IPv4 text ("192.168.0.1") or IPv6 text ("fe80::1") and
 * sets the record to that address and port. A host name is refused without
 * consulting any name service, so the call never waits. On failure the
 * record is unchanged. */
TN_API tn_bool tn_ip_set(tn_ip *ip, const tn_uchar *text, tn_uint16 port);

/* Sets the family field from the family code (1 or 2), the port, and the 4
 * or 16 address bytes when bytes is not null. All other bytes, the address
 * too when bytes is null, keep what they held, so a caller starts from
 * tn_ip_init or a full record. Any other family code returns 0 and changes
 * nothing. */
TN_API tn_bool tn_ip_set2(tn_ip *ip, tn_uint32 family, const tn_uchar *bytes, tn_uint16 port);

/* Splits the record: stores the family code in *family, the address as
 * numeric text with its terminator in text (at least TN_IP_STR_SIZE bytes)
 * and the port in *port, each unless null. For family code 0 only the family
 * is stored, and the result is 1. Returns 0 if the text cannot be made (the
 * family and port are stored all the same); without text the result is 1. */
TN_API tn_bool tn_ip_get(const tn_ip *ip, tn_uint32 *family, tn_uchar *text, tn_uint16 *port);

/* Splits the record with the address as raw bytes: family code, 4 or 16
 * bytes into bytes, their count into *length, and the port, each unless
 * null. For family code 0 only the family code is stored. Always returns 1. */
TN_API tn_bool tn_ip_get2(const tn_ip *ip, tn_uint32 *family, tn_uchar *bytes, tn_uint32 *length,
                          tn_uint16 *port);

/* Resolves a host name into all its addresses, IPv4 and IPv6, in the
 * resolver's order, each with the port, and appends them to the array after
 * emptying it. A null name gives the wildcard addresses (for binding). A
 * name that the resolver knows with no address gives 1 and an empty array.
 * A failed lookup gives 0 with the array empty; a failed append gives 0 and
 * keeps the records appended before it (the array is then failed). This may
 * wait on the name service. */
TN_API tn_bool tn_ip_by_name(tn_ip_array *array, const tn_uchar *name, tn_uint16 port);

/* 1 when the family codes agree and, for IPv4 and IPv6, the ports and the
 * address bytes agree too. Two records of family code 0 are equal. */
TN_API tn_bool tn_ip_equal(const tn_ip *a, const tn_ip *b);
/* As tn_ip_equal without the port. */
TN_API tn_bool tn_ip_addr_equal(const tn_ip *a, const tn_ip *b);
/* 1 when the family codes agree. */
TN_API tn_bool tn_ip_family_equal(const tn_ip *a, const tn_ip *b);

/* 1 when the address is the wildcard of its family (0.0.0.0 or ::),
 * whatever the port; 0 for family code 0. */
TN_API tn_bool tn_ip_is_any(const tn_ip *ip);
/* 1 when the address is exactly 127.0.0.1 or ::1, whatever the port; the
 * rest of 127.0.0.0/8 does not count. 0 for family code 0. */
TN_API tn_bool tn_ip_is_loopback(const tn_ip *ip);

/* A pointer to the last record, or null when the array is empty or failed. */
TN_API tn_ip *tn_ip_array_get_end(const tn_ip_array *array);

/* Fixed texts and address bytes in static storage; never write through
 * them. The texts are "0.0.0.0", "127.0.0.1", "::" and "::1"; the bytes are
 * 0.0.0.0 and 127.0.0.1 (4 bytes), and 16 zero bytes and fifteen zero bytes
 * followed by 1 (16 bytes). */
TN_API const tn_uchar *tn_ip_str_any4(void);
TN_API const tn_uchar *tn_ip_str_loopback4(void);
TN_API const tn_uchar *tn_ip_str_any6(void);
TN_API const tn_uchar *tn_ip_str_loopback6(void);
TN_API const tn_uchar *tn_ip_addr_any4(void);
TN_API const tn_uchar *tn_ip_addr_loopback4(void);
TN_API const tn_uchar *tn_ip_addr_any6(void);
TN_API const tn_uchar *tn_ip_addr_loopback6(void);

/* Chooses the resolver behind tn_ip_set, tn_ip_get and tn_ip_by_name: 1 the
 * library's built-in one, 0 the system's getaddrinfo and getnameinfo (the
 * default). The built-in resolver is for hosts that want to keep away from
 * the system's resolver: it parses dotted IPv4 text itself and looks names
 * up only through the C library's classic host and service lookups. It
 * speaks IPv4 only, so IPv6 text neither parses nor prints under it, and
 * tn_ip_by_name yields IPv4 addresses only. It does not take
 * 255.255.255.255 or text with other than three dots as numeric: tn_ip_set
 * refuses those, and tn_ip_by_name looks them up as names. Its result codes
 * are the system's EAI_ values. The switch may be thrown at any time from
 * any thread; each operation runs wholly on the resolver that was chosen
 * when it started. */
TN_API void tn_ip_use_builtin_resolver(tn_bool on);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_IP_H */
