/* The SDK from C (C99) and from other languages' foreign-function interfaces. Each function
 * calls the shared QelHttpDnsManager (or the blocking lookup) with the same checks, codes and
 * messages; no C++ exception or type crosses this interface.
 *
 * Memory: every qel_httpdns_error, qel_httpdns_result and string this interface hands out is
 * the caller's, freed with the matching qel_httpdns_*_free function (each accepts NULL).
 * Strings are UTF-8. A NULL string argument means "absent", as in the C++ interface.
 *
 * Threads: every function may be called from any thread, except qel_httpdns_resolve on the
 * library's platform thread (see there). Lookup callbacks run on the calling thread before
 * qel_httpdns_lookup returns (refusals, cache hits) or on the platform thread (answers of the
 * service); never on a thread of their own.
 *
 * Errors: a function that returns a qel_httpdns_error * returns NULL on success. Codes are the
 * manager's (docs/errors.md) plus this interface's, all named QEL_HTTPDNS_E_* below. */
#ifndef QEL_HTTPDNS_H
#define QEL_HTTPDNS_H

#include <stddef.h>
#include <stdint.h>

#include "QelHttpDnsSDK/QelDNSExport.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorTable.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Lookup types. */
#define QEL_HTTPDNS_IPV4 1
#define QEL_HTTPDNS_IPV6 2

/* Every code, the manager's and this interface's, is named QEL_HTTPDNS_E_* in the table this
 * includes: QEL_HTTPDNS_E_TIMED_OUT, QEL_HTTPDNS_E_PLATFORM_THREAD, QEL_HTTPDNS_E_INVALID_ARGUMENT
 * and QEL_HTTPDNS_E_INTERNAL (the failure's own text, e.g. out of memory) are this interface's. */

typedef struct qel_httpdns_error {
    int64_t code;
    char* domain; /* "com.qel.httpdnssdk" */
    char* message;
} qel_httpdns_error;

/* A lookup's answer: either `error` (ips NULL, ip_count 0) or ip_count >= 1 addresses as text
 * ("192.0.2.1", "2001:db8::1") in the service's order (error NULL). Only addresses of the
 * family asked for are handed out: whatever else the service's answer holds is dropped, and an
 * answer with nothing left is the error -20003 "empty data", as an empty answer is. */
typedef struct qel_httpdns_result {
    qel_httpdns_error* error;
    char** ips;
    size_t ip_count;
} qel_httpdns_result;

/* Receives a lookup's answer, which it owns (free it with qel_httpdns_result_free; it may be
 * kept past the call), and the user_data given to the lookup. `result` is NULL only when
 * memory ran out while making it. */
typedef void (*qel_httpdns_callback)(qel_httpdns_result* result, void* user_data);

QEL_EXPORT void qel_httpdns_error_free(qel_httpdns_error* error);
QEL_EXPORT void qel_httpdns_result_free(qel_httpdns_result* result);
QEL_EXPORT void qel_httpdns_string_free(char* text);

/* "1.0.0": static storage, not to be freed. */
QEL_EXPORT const char* qel_httpdns_version(void);

/* What the application tells the library about itself; call both at start, before the first
 * lookup. The identifier is sent with every request; the store path takes effect only before
 * the store opens (QEL_HTTPDNS_E_INVALID_ARGUMENT after, or for a NULL or empty path). */
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_bundle_identifier(const char* identifier);
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_store_path(const char* path);

/* Registers the account and logs in in the background (registerAuthId). */
QEL_EXPORT qel_httpdns_error* qel_httpdns_register(const char* auth_id, const char* auth_secret);
/* 0 never registered or first login reply pending, 1 no network, 2 empty credentials,
 * 3 login failed, 4 logged in; -1 only if the manager could not be reached. */
QEL_EXPORT int64_t qel_httpdns_status(void);
/* The status message ("" for 0 and 4); NULL only when memory ran out. Free with
 * qel_httpdns_string_free. */
QEL_EXPORT char* qel_httpdns_status_description(void);

/* Settings. The server URL is used by the next login (NULL or "" for the default); the
 * timeout is in seconds per request (0 for 20 s; negative or NaN is invalid); the degraded
 * hosts are refused with code 2 (count 0 clears them; a NULL entry is invalid). */
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_server_url(const char* url);
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_cache_enabled(int enabled);
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_expired_ip_enabled(int enabled);
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_timeout(double seconds);
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_degrade_hosts(const char* const* hosts, size_t count);
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_log_enabled(int enabled);
QEL_EXPORT qel_httpdns_error* qel_httpdns_clean_cache(void);

/* The resilience profile for servers (the guide's "Running in a server"): every lookup ends
 * within `deadline` seconds (0: the timeout above) with one callback, failing nodes rest while
 * the next one is tried, each lookup keeps its own family, concurrent misses share a request,
 * and the login renews itself. `enabled` 0 turns it off; a negative or NaN deadline is
 * invalid. The other settings of the C++ QelDNSResilienceOptions keep their defaults. */
QEL_EXPORT qel_httpdns_error* qel_httpdns_set_resilience(int enabled, double deadline);

/* Looks `domain` up (QEL_HTTPDNS_IPV4 or QEL_HTTPDNS_IPV6). Returns an error, and never calls
 * `callback`, when `callback` is NULL or `type` another number
 * (QEL_HTTPDNS_E_INVALID_ARGUMENT), or the lookup could not be started; otherwise returns
 * NULL and `callback` receives the answer once, on the threads described above. As with
 * the C++ manager, a lookup made before the first login reply (status 0) is dropped and its
 * callback never runs. */
QEL_EXPORT qel_httpdns_error* qel_httpdns_lookup(const char* domain, int type,
                                                 qel_httpdns_callback callback, void* user_data);

/* Looks `domain` up and waits at most `timeout_seconds` for the answer (0: only an answer
 * that needs no wait, such as a cache hit). Blocks the calling thread; on the platform thread
 * (inside a lookup callback that runs there) it fails at once with
 * QEL_HTTPDNS_E_PLATFORM_THREAD. A negative or NaN timeout, or a type other than
 * QEL_HTTPDNS_IPV4 and QEL_HTTPDNS_IPV6, is QEL_HTTPDNS_E_INVALID_ARGUMENT, and nothing is
 * looked up. NULL only when memory ran out. */
QEL_EXPORT qel_httpdns_result* qel_httpdns_resolve(const char* domain, int type,
                                                   double timeout_seconds);

#ifdef __cplusplus
}
#endif

#endif /* QEL_HTTPDNS_H */
