/* libnss_qelhttpdns.so.2: the name-service-switch module that asks the resolver daemon.
 *
 * glibc loads this file into every program that resolves a host name with `qelhttpdns` on the
 * hosts line of nsswitch.conf, so it is plain C with no state: no threads, no constructors, no
 * allocation. Each call opens one connection to the daemon's Unix socket (QEL_DEFAULT_SOCKET,
 * or $QEL_HTTPDNS_SOCKET outside set-id programs), sends one request, reads one answer, and lays
 * the addresses out in the caller's buffer.
 *
 * What the caller sees, so that `hosts: files qelhttpdns dns` falls through to DNS whenever the
 * daemon cannot answer:
 *   answered                     SUCCESS
 *   the name has no address      NOTFOUND, ENOENT, HOST_NOT_FOUND (also an empty or long name)
 *   buffer too small             TRYAGAIN, ERANGE, NETDB_INTERNAL (glibc retries with more)
 *   daemon busy, unavailable,
 *   or silent past the deadline  UNAVAIL, EAGAIN or ETIMEDOUT, TRY_AGAIN
 *   no daemon, a request it      UNAVAIL, NO_RECOVERY, and the errno of the socket call, EINVAL
 *   refused, a garbled answer    (refused) or EBADMSG (garbled)
 *   an address family other
 *   than AF_INET or AF_INET6     UNAVAIL, EAFNOSUPPORT, NO_RECOVERY
 * Under glibc's getaddrinfo, TRY_AGAIN becomes EAI_AGAIN when no other source answers, and
 * NO_RECOVERY or HOST_NOT_FOUND become EAI_NONAME.
 * The deadline is 5 s from the call ($QEL_HTTPDNS_TIMEOUT_MS overrides it), sent to the daemon
 * and enforced here on connect, send and receive. */
#define _GNU_SOURCE
#include <errno.h>
#include <netdb.h>
#include <nss.h>
#include <poll.h>
#include <stdalign.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "qel_resolve_protocol.h"

#define DEFAULT_TIMEOUT_MS 5000

/* The entry points glibc looks up, with the signatures its own header gives them; nothing else
 * leaves the library. */
#define EXPORT __attribute__((visibility("default")))
EXPORT nss_gethostbyname4_r _nss_qelhttpdns_gethostbyname4_r;
EXPORT nss_gethostbyname3_r _nss_qelhttpdns_gethostbyname3_r;
EXPORT nss_gethostbyname2_r _nss_qelhttpdns_gethostbyname2_r;
EXPORT nss_gethostbyname_r _nss_qelhttpdns_gethostbyname_r;

struct address {
    int family; /* AF_INET or AF_INET6 */
    uint32_t ttl;
    const unsigned char* bytes;
};

struct answer {
    unsigned char wire[QEL_MAX_ANSWER];
    size_t count;
    struct address addresses[QEL_MAX_ADDRESSES];
};

static uint32_t read_u32(const unsigned char* p) {
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

static enum nss_status fail(enum nss_status status, int error, int herror, int* errnop,
                            int* h_errnop) {
    *errnop = error;
    *h_errnop = herror;
    return status;
}

static int timeout_ms(void) {
    const char* text = secure_getenv("QEL_HTTPDNS_TIMEOUT_MS");
    if (text == NULL || *text == '\0') return DEFAULT_TIMEOUT_MS;
    char* end;
    unsigned long value = strtoul(text, &end, 10);
    return *end == '\0' && value > 0 && value <= 600000 ? (int)value : DEFAULT_TIMEOUT_MS;
}

static int64_t now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* Waits until `fd` is ready for `events` or `end` passes; 0 or an errno. */
static int wait_for(int fd, short events, int64_t end) {
    for (;;) {
        int64_t left = end - now_ms();
        if (left <= 0) return ETIMEDOUT;
        struct pollfd p = {.fd = fd, .events = events};
        int ready = poll(&p, 1, (int)left);
        if (ready > 0) return 0; /* an error or hang-up shows in the next call on fd */
        if (ready == 0) return ETIMEDOUT;
        if (errno != EINTR) return errno;
    }
}

static int connect_daemon(int fd, int64_t end) {
    const char* path = secure_getenv("QEL_HTTPDNS_SOCKET");
    if (path == NULL || *path == '\0') path = QEL_DEFAULT_SOCKET;
    struct sockaddr_un to = {.sun_family = AF_UNIX};
    if (strlen(path) >= sizeof to.sun_path) return ENAMETOOLONG;
    strcpy(to.sun_path, path);
    for (;;) {
        if (connect(fd, (const struct sockaddr*)&to, sizeof to) == 0) return 0;
        if (errno == EAGAIN) { /* the daemon's backlog is full: try again shortly */
            int64_t left = end - now_ms();
            if (left <= 0) return ETIMEDOUT;
            poll(NULL, 0, left < 10 ? (int)left : 10);
        } else if (errno == EINPROGRESS || errno == EINTR) {
            int error = wait_for(fd, POLLOUT, end);
            socklen_t size = sizeof error;
            if (error == 0 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
                error = errno;
            return error;
        } else {
            return errno;
        }
    }
}

static int send_all(int fd, const unsigned char* data, size_t size, int64_t end) {
    while (size > 0) {
        ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
        if (sent > 0) {
            data += sent;
            size -= (size_t)sent;
        } else if (sent < 0 && errno == EAGAIN) {
            int error = wait_for(fd, POLLOUT, end);
            if (error != 0) return error;
        } else if (sent < 0 && errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

/* How much of an answer `have` bytes are: 0 complete, 1 more to come, -1 malformed. Fills the
 * list of addresses, each checked against its family and the one that was asked for. */
static int parse(struct answer* a, size_t have, int asked) {
    const unsigned char* w = a->wire;
    if (have < QEL_ANSWER_HEADER) return 1;
    if (memcmp(w, QEL_PROTOCOL_MAGIC, 4) != 0) return -1;
    size_t count = (size_t)w[6] << 8 | w[7], message = (size_t)w[12] << 8 | w[13];
    if (count > QEL_MAX_ADDRESSES || message > QEL_MAX_MESSAGE) return -1;
    size_t at = QEL_ANSWER_HEADER;
    for (a->count = 0; a->count < count; a->count++) {
        if (have < at + 5) return 1;
        int family = w[at] == 4 ? AF_INET : w[at] == 6 ? AF_INET6 : -1;
        if (family < 0 || (asked != QEL_FAMILY_BOTH && w[at] != asked)) return -1;
        size_t size = family == AF_INET ? 4 : 16;
        if (have < at + 5 + size) return 1;
        a->addresses[a->count] =
            (struct address){.family = family, .ttl = read_u32(w + at + 1), .bytes = w + at + 5};
        at += 5 + size;
    }
    return have < at + message ? 1 : 0;
}

/* Asks the daemon for `name` (one trailing dot dropped) in `family`; SUCCESS with at least one
 * address in `a`, or the caller's status. */
static enum nss_status ask(const char* name, int family, struct answer* a, int* errnop,
                           int* h_errnop) {
    size_t length = strnlen(name, QEL_MAX_NAME + 2);
    if (length > 0 && name[length - 1] == '.') length--;
    if (length == 0 || length > QEL_MAX_NAME)
        return fail(NSS_STATUS_NOTFOUND, ENOENT, HOST_NOT_FOUND, errnop, h_errnop);

    int timeout = timeout_ms();
    int64_t end = now_ms() + timeout;
    unsigned char request[QEL_MAX_REQUEST] = QEL_PROTOCOL_MAGIC;
    request[4] = (unsigned char)family;
    request[6] = (unsigned char)(length >> 8);
    request[7] = (unsigned char)length;
    for (int i = 0; i < 4; i++) request[8 + i] = (unsigned char)((uint32_t)timeout >> (24 - 8 * i));
    memcpy(request + QEL_REQUEST_HEADER, name, length);

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return fail(NSS_STATUS_UNAVAIL, errno, NO_RECOVERY, errnop, h_errnop);
    int error = connect_daemon(fd, end);
    if (error == 0) error = send_all(fd, request, QEL_REQUEST_HEADER + length, end);
    size_t have = 0;
    int state = 1;
    while (error == 0 && state == 1) {
        ssize_t got = recv(fd, a->wire + have, sizeof a->wire - have, 0);
        if (got > 0) {
            have += (size_t)got;
            state = parse(a, have, family);
        } else if (got == 0) {
            state = -1; /* closed before the whole answer came */
        } else if (errno == EAGAIN) {
            error = wait_for(fd, POLLIN, end);
        } else if (errno != EINTR) {
            error = errno;
        }
    }
    close(fd);
    if (error != 0)
        return fail(NSS_STATUS_UNAVAIL, error, error == ETIMEDOUT ? TRY_AGAIN : NO_RECOVERY, errnop,
                    h_errnop);
    switch (state < 0 ? -1 : a->wire[4]) {
        case QEL_STATUS_ANSWERED:
            if (a->count > 0) return NSS_STATUS_SUCCESS;
            break;
        case QEL_STATUS_NOT_FOUND:
            return fail(NSS_STATUS_NOTFOUND, ENOENT, HOST_NOT_FOUND, errnop, h_errnop);
        case QEL_STATUS_UNAVAILABLE:
        case QEL_STATUS_BUSY: return fail(NSS_STATUS_UNAVAIL, EAGAIN, TRY_AGAIN, errnop, h_errnop);
        case QEL_STATUS_BAD_REQUEST:
            return fail(NSS_STATUS_UNAVAIL, EINVAL, NO_RECOVERY, errnop, h_errnop);
    }
    return fail(NSS_STATUS_UNAVAIL, EBADMSG, NO_RECOVERY, errnop, h_errnop);
}

/* Hands out `size` bytes of the caller's buffer at `align`, or NULL when it is too small. */
static void* take(char** next, char* end, size_t size, size_t align) {
    uintptr_t at = ((uintptr_t)*next + align - 1) & ~(uintptr_t)(align - 1);
    if (at > (uintptr_t)end || size > (uintptr_t)end - at) return NULL;
    *next = (char*)at + size;
    return (void*)at;
}

static char* copy_name(const char* name, char** next, char* end) {
    size_t length = strlen(name);
    char* copy = take(next, end, length + 1, 1);
    if (copy != NULL) memcpy(copy, name, length + 1);
    return copy;
}

static int32_t smallest_ttl(const struct answer* a) {
    uint32_t ttl = UINT32_MAX;
    for (size_t i = 0; i < a->count; i++)
        if (a->addresses[i].ttl < ttl) ttl = a->addresses[i].ttl;
    return ttl > INT32_MAX ? INT32_MAX : (int32_t)ttl;
}

static enum nss_status too_small(int* errnop, int* h_errnop) {
    return fail(NSS_STATUS_TRYAGAIN, ERANGE, NETDB_INTERNAL, errnop, h_errnop);
}

enum nss_status _nss_qelhttpdns_gethostbyname4_r(const char* name, struct gaih_addrtuple** pat,
                                                 char* buffer, size_t buflen, int* errnop,
                                                 int* h_errnop, int32_t* ttlp) {
    struct answer a;
    enum nss_status status = ask(name, QEL_FAMILY_BOTH, &a, errnop, h_errnop);
    if (status != NSS_STATUS_SUCCESS) return status;
    char *next = buffer, *end = buffer + buflen;
    char* copy = copy_name(name, &next, end);
    struct gaih_addrtuple* list = take(&next, end, a.count * sizeof *list, alignof(*list));
    if (copy == NULL || list == NULL) return too_small(errnop, h_errnop);
    for (size_t i = 0; i < a.count; i++) {
        list[i] = (struct gaih_addrtuple){.next = i + 1 < a.count ? &list[i + 1] : NULL,
                                          .name = copy,
                                          .family = a.addresses[i].family};
        memcpy(list[i].addr, a.addresses[i].bytes, a.addresses[i].family == AF_INET ? 4 : 16);
    }
    /* A caller may hand in a tuple of its own to fill first. */
    if (*pat != NULL)
        **pat = list[0];
    else
        *pat = list;
    if (ttlp != NULL) *ttlp = smallest_ttl(&a);
    return NSS_STATUS_SUCCESS;
}

enum nss_status _nss_qelhttpdns_gethostbyname3_r(const char* name, int af, struct hostent* host,
                                                 char* buffer, size_t buflen, int* errnop,
                                                 int* h_errnop, int32_t* ttlp, char** canonp) {
    if (af != AF_INET && af != AF_INET6)
        return fail(NSS_STATUS_UNAVAIL, EAFNOSUPPORT, NO_RECOVERY, errnop, h_errnop);
    struct answer a;
    enum nss_status status =
        ask(name, af == AF_INET ? QEL_FAMILY_V4 : QEL_FAMILY_V6, &a, errnop, h_errnop);
    if (status != NSS_STATUS_SUCCESS) return status;
    size_t size = af == AF_INET ? 4 : 16;
    char *next = buffer, *end = buffer + buflen;
    char* copy = copy_name(name, &next, end);
    char** aliases = take(&next, end, sizeof(char*), alignof(char*));
    char** list = take(&next, end, (a.count + 1) * sizeof(char*), alignof(char*));
    char* bytes = take(&next, end, a.count * size, alignof(uint32_t));
    if (copy == NULL || aliases == NULL || list == NULL || bytes == NULL)
        return too_small(errnop, h_errnop);
    for (size_t i = 0; i < a.count; i++) {
        list[i] = memcpy(bytes + i * size, a.addresses[i].bytes, size);
    }
    list[a.count] = NULL;
    aliases[0] = NULL;
    *host = (struct hostent){.h_name = copy,
                             .h_aliases = aliases,
                             .h_addrtype = af,
                             .h_length = (int)size,
                             .h_addr_list = list};
    if (ttlp != NULL) *ttlp = smallest_ttl(&a);
    if (canonp != NULL) *canonp = copy;
    return NSS_STATUS_SUCCESS;
}

enum nss_status _nss_qelhttpdns_gethostbyname2_r(const char* name, int af, struct hostent* host,
                                                 char* buffer, size_t buflen, int* errnop,
                                                 int* h_errnop) {
    return _nss_qelhttpdns_gethostbyname3_r(name, af, host, buffer, buflen, errnop, h_errnop, NULL,
                                            NULL);
}

enum nss_status _nss_qelhttpdns_gethostbyname_r(const char* name, struct hostent* host,
                                                char* buffer, size_t buflen, int* errnop,
                                                int* h_errnop) {
    return _nss_qelhttpdns_gethostbyname3_r(name, AF_INET, host, buffer, buflen, errnop, h_errnop,
                                            NULL, NULL);
}
