/* The resolver daemon's protocol on its Unix socket (SOCK_STREAM): one request and one answer
 * per connection. C and C++; every integer is big-endian, at the offset given.
 *
 * Request, 12 + N bytes:
 *   0  "QEL1"                  magic and version
 *   4  u8   family             QEL_FAMILY_V4, QEL_FAMILY_V6, or QEL_FAMILY_BOTH (IPv4 first)
 *   5  u8   flags              0
 *   6  u16  N                  length of the name, 1..QEL_MAX_NAME
 *   8  u32  deadline           milliseconds the caller waits at most; 0: the daemon's own
 *  12  N bytes                 the name, without a trailing dot, no NUL
 *
 * Answer, 14 + addresses + M bytes:
 *   0  "QEL1"
 *   4  u8   status             QEL_STATUS_*
 *   5  u8   0
 *   6  u16  C                  number of addresses, 0..QEL_MAX_ADDRESSES
 *   8  i32  code               the SDK's error code (0 when answered)
 *  12  u16  M                  length of the message, 0..QEL_MAX_MESSAGE
 *  14  C addresses, each:      u8 family (4 or 6), u32 seconds of lifetime left,
 *                              then 4 or 16 bytes of address (network order)
 *   .. M bytes                 the SDK's message (UTF-8), or the daemon's own
 *
 * The daemon closes the connection after the answer; a client that gets no answer within its
 * deadline gives up. */
#ifndef QEL_RESOLVE_PROTOCOL_H
#define QEL_RESOLVE_PROTOCOL_H

#define QEL_PROTOCOL_MAGIC "QEL1"
#define QEL_REQUEST_HEADER 12
#define QEL_ANSWER_HEADER 14
#define QEL_MAX_NAME 253
#define QEL_MAX_ADDRESSES 64
#define QEL_MAX_MESSAGE 512
#define QEL_MAX_REQUEST (QEL_REQUEST_HEADER + QEL_MAX_NAME)
#define QEL_MAX_ANSWER (QEL_ANSWER_HEADER + QEL_MAX_ADDRESSES * 21 + QEL_MAX_MESSAGE)

#define QEL_FAMILY_BOTH 0
#define QEL_FAMILY_V4 4
#define QEL_FAMILY_V6 6

/* Answered: at least one address. */
#define QEL_STATUS_ANSWERED 0
/* The name has no address here: the service has none, refused it, the name is malformed, or
 * it is on the degrade list. A name-service module says NOTFOUND (and the next source is
 * asked). */
#define QEL_STATUS_NOT_FOUND 1
/* The daemon cannot answer now: not logged in, no network, the service failing, the deadline
 * passed. A name-service module says UNAVAIL. */
#define QEL_STATUS_UNAVAILABLE 2
/* The request was malformed or too large; nothing was looked up. */
#define QEL_STATUS_BAD_REQUEST 3
/* Too many requests of this caller at once. */
#define QEL_STATUS_BUSY 4

#define QEL_DEFAULT_SOCKET "/run/qel-httpdns/resolve.sock"

#endif
