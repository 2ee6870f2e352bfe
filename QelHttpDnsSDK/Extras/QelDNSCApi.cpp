// The C interface over the manager and the blocking lookup. Every entry point catches what the
// C++ side may throw and turns it into an error value: nothing unwinds into C.
#include "QelHttpDnsSDK/Extras/qel_httpdns.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QelHttpDnsSDK/Const/QelDNSConst.h"
#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSAddressCheck.h"
#include "QelHttpDnsSDK/Extras/QelDNSBlockingLookup.h"
#include "QelHttpDnsSDK/Extras/QelDNSResilience.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/QelDNSApplication.h"

namespace codes = QelDNSErrorCodes;

static_assert(QEL_HTTPDNS_E_TIMED_OUT == codes::kTimedOut);
static_assert(QEL_HTTPDNS_E_PLATFORM_THREAD == codes::kCalledOnPlatformThread);
static_assert(QEL_HTTPDNS_E_INVALID_ARGUMENT == codes::kInvalidArgument);
static_assert(QEL_HTTPDNS_E_INTERNAL == codes::kInternalFailure);

namespace {

using Ips = std::optional<std::vector<std::string>>;

// Handed out when not even an error can be allocated; never freed.
char outOfMemoryDomain[] = "com.qel.httpdnssdk";
char outOfMemoryMessage[] = "out of memory";
qel_httpdns_error outOfMemory{codes::kInternalFailure, outOfMemoryDomain, outOfMemoryMessage};

char* copyText(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy) std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

std::optional<std::string> optionalText(const char* text) {
    if (!text) return std::nullopt;
    return std::string(text);
}

qel_httpdns_error* makeError(const QelDNSError& error) {
    auto* made = static_cast<qel_httpdns_error*>(std::calloc(1, sizeof(qel_httpdns_error)));
    if (!made) return &outOfMemory;
    made->code = error.code();
    made->domain = copyText(error.domain());
    made->message = copyText(error.localizedDescription());
    if (!made->domain || !made->message) {
        qel_httpdns_error_free(made);
        return &outOfMemory;
    }
    return made;
}

qel_httpdns_error* makeError(int64_t code, const char* message) {
    return makeError(QelDNSUntil::errorCode(code, message));
}

qel_httpdns_error* invalidArgument() {
    return makeError(codes::kInvalidArgument, codes::kInvalidArgumentMessage);
}

// Runs `body`, which returns the error to hand out (or nullptr); what it throws becomes an
// error too.
template <typename Body>
qel_httpdns_error* guarded(Body body) noexcept {
    try {
        return body();
    } catch (const std::exception& failure) {
        try {
            return makeError(codes::kInternalFailure, failure.what());
        } catch (...) {
            return &outOfMemory;
        }
    } catch (...) {
        return &outOfMemory;
    }
}

bool isLookupType(int type) { return type == QEL_HTTPDNS_IPV4 || type == QEL_HTTPDNS_IPV6; }

// Null when memory runs out; never throws. Hands out only the addresses of `type`: the
// service's list may hold any text, and C callers connect to what they get.
qel_httpdns_result* makeResult(const std::optional<QelDNSError>& error,
                               std::vector<std::string> ips, int type) noexcept {
    auto* result = static_cast<qel_httpdns_result*>(std::calloc(1, sizeof(qel_httpdns_result)));
    if (!result) return nullptr;
    try {
        if (!error) QelDNSAddressCheck::keepAddresses(ips, type);
        if (error || ips.empty()) {
            // Nothing usable left is what an empty answer from the service is.
            result->error = error ? makeError(*error)
                                  : makeError(QelDNSErrorCodes::kResolveEmptyData,
                                              QelDNSErrorCodes::kResolveEmptyDataMessage);
            return result;
        }
    } catch (...) {
        result->error = &outOfMemory;
        return result;
    }
    result->ips = static_cast<char**>(std::calloc(ips.size() ? ips.size() : 1, sizeof(char*)));
    if (!result->ips) {
        std::free(result);
        return nullptr;
    }
    for (const std::string& ip : ips) {
        char* copy = copyText(ip);
        if (!copy) {
            qel_httpdns_result_free(result);
            return nullptr;
        }
        result->ips[result->ip_count++] = copy;
    }
    return result;
}

qel_httpdns_result* resultWithError(qel_httpdns_error* error) noexcept {
    auto* result = static_cast<qel_httpdns_result*>(std::calloc(1, sizeof(qel_httpdns_result)));
    if (!result) {
        qel_httpdns_error_free(error);
        return nullptr;
    }
    result->error = error;
    return result;
}

}  // namespace

extern "C" {

void qel_httpdns_error_free(qel_httpdns_error* error) {
    if (!error || error == &outOfMemory) return;
    std::free(error->domain);
    std::free(error->message);
    std::free(error);
}

void qel_httpdns_result_free(qel_httpdns_result* result) {
    if (!result) return;
    qel_httpdns_error_free(result->error);
    for (size_t i = 0; i < result->ip_count; ++i) std::free(result->ips[i]);
    std::free(result->ips);
    std::free(result);
}

void qel_httpdns_string_free(char* text) { std::free(text); }

const char* qel_httpdns_version(void) { return QelDNS_SDK_VERSION; }

qel_httpdns_error* qel_httpdns_set_bundle_identifier(const char* identifier) {
    return guarded([&]() -> qel_httpdns_error* {
        QelDNSApplication::setBundleIdentifier(optionalText(identifier));
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_set_store_path(const char* path) {
    return guarded([&]() -> qel_httpdns_error* {
        if (!path || !*path || !QelDNSApplication::setStorePath(path)) return invalidArgument();
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_register(const char* auth_id, const char* auth_secret) {
    return guarded([&]() -> qel_httpdns_error* {
        QelHttpDnsManager::shared().registerAuthId(optionalText(auth_id),
                                                   optionalText(auth_secret));
        return nullptr;
    });
}

int64_t qel_httpdns_status(void) {
    try {
        return QelHttpDnsManager::shared().initStatus();
    } catch (...) {
        return -1;
    }
}

char* qel_httpdns_status_description(void) {
    try {
        return copyText(QelHttpDnsManager::shared().currentStatusDesc());
    } catch (...) {
        return nullptr;
    }
}

qel_httpdns_error* qel_httpdns_set_server_url(const char* url) {
    return guarded([&]() -> qel_httpdns_error* {
        QelHttpDnsManager::shared().customServerUrl(optionalText(url));
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_set_cache_enabled(int enabled) {
    return guarded([&]() -> qel_httpdns_error* {
        QelHttpDnsManager::shared().enableCacheIP(enabled != 0);
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_set_expired_ip_enabled(int enabled) {
    return guarded([&]() -> qel_httpdns_error* {
        QelHttpDnsManager::shared().enableExpiredIp(enabled != 0);
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_set_timeout(double seconds) {
    return guarded([&]() -> qel_httpdns_error* {
        if (std::isnan(seconds) || seconds < 0) return invalidArgument();
        QelHttpDnsManager::shared().setTimeout(seconds);
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_set_resilience(int enabled, double deadline) {
    return guarded([&]() -> qel_httpdns_error* {
        if (std::isnan(deadline) || deadline < 0) return invalidArgument();
        if (!enabled) {
            QelDNSResilience::disable();
            return nullptr;
        }
        QelDNSResilienceOptions options;
        options.deadline = deadline;
        QelDNSResilience::enable(options);
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_set_degrade_hosts(const char* const* hosts, size_t count) {
    return guarded([&]() -> qel_httpdns_error* {
        if (count == 0) {
            QelHttpDnsManager::shared().setDegradeHosts(std::nullopt);
            return nullptr;
        }
        if (!hosts) return invalidArgument();
        std::vector<std::string> list;
        for (size_t i = 0; i < count; ++i) {
            if (!hosts[i]) return invalidArgument();
            list.emplace_back(hosts[i]);
        }
        QelHttpDnsManager::shared().setDegradeHosts(std::move(list));
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_set_log_enabled(int enabled) {
    return guarded([&]() -> qel_httpdns_error* {
        QelHttpDnsManager::shared().consolePrintLogEnable(enabled != 0);
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_clean_cache(void) {
    return guarded([&]() -> qel_httpdns_error* {
        QelHttpDnsManager::shared().cleanAllCache();
        return nullptr;
    });
}

qel_httpdns_error* qel_httpdns_lookup(const char* domain, int type, qel_httpdns_callback callback,
                                      void* user_data) {
    return guarded([&]() -> qel_httpdns_error* {
        if (!callback || !isLookupType(type)) return invalidArgument();
        // Converting never throws, so the callback runs exactly once per answer.
        auto answer = [callback, user_data, type](std::optional<QelDNSError> error, Ips ips) {
            callback(makeResult(error, ips ? std::move(*ips) : std::vector<std::string>(), type),
                     user_data);
        };
        QelHttpDnsManager::shared().getIPByDomain(optionalText(domain), type, answer);
        return nullptr;
    });
}

qel_httpdns_result* qel_httpdns_resolve(const char* domain, int type, double timeout_seconds) {
    try {
        if (!isLookupType(type) || std::isnan(timeout_seconds) || timeout_seconds < 0) {
            return resultWithError(guarded([] { return invalidArgument(); }));
        }
        QelDNSBlockingLookup::Result answer =
            QelDNSBlockingLookup::resolve(optionalText(domain), type, timeout_seconds);
        return makeResult(answer.error, std::move(answer.ips), type);
    } catch (const std::exception& failure) {
        return resultWithError(
            guarded([&] { return makeError(codes::kInternalFailure, failure.what()); }));
    } catch (...) {
        return resultWithError(&outOfMemory);
    }
}

}  // extern "C"
