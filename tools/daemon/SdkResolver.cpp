#include "SdkResolver.h"

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/QelHttpDnsSDK.h"

namespace qel::daemon {

namespace {

using Ips = std::optional<std::vector<std::string>>;

std::atomic<bool> debugLines{false};
// The trace of the lookup answered last on this thread: delivered just before its callback.
thread_local std::optional<QelDNSLookupTrace> latestTrace;

// One lookup's outcome.
struct Outcome {
    bool answered = false;
    std::optional<QelDNSError> error;
    std::vector<std::string> ips;
    int64_t ttl = -1;
};

// A refusal that says the name has no address here (the next name source should be asked),
// as opposed to a failure to ask now.
bool meansNotFound(int64_t code) {
    return code == QEL_HTTPDNS_E_MALFORMED_DOMAIN || code == QEL_HTTPDNS_E_DEGRADE_HOST ||
           code == QEL_HTTPDNS_E_FORBIDDEN || code == QEL_HTTPDNS_E_RESOLVE_EMPTY_DATA;
}

std::optional<std::string> addressBytes(const std::string& text, int family) {
    unsigned char bytes[16];
    const int af = family == QEL_FAMILY_V4 ? AF_INET : AF_INET6;
    if (inet_pton(af, text.c_str(), bytes) != 1) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(bytes), family == QEL_FAMILY_V4 ? 4 : 16);
}

}  // namespace

std::string SdkResolver::filterLogLine(const std::string& line, bool debug) {
    static const char* const kTraffic[] = {"request url: ", "request headers ", "request paramters ",
                                           "response url "};
    const bool traffic = std::any_of(std::begin(kTraffic), std::end(kTraffic),
                                     [&](const char* prefix) { return line.rfind(prefix, 0) == 0; });
    if (!traffic) return line;
    if (!debug) return std::string();
    static const std::regex authorization("(\"Authorization\"\\s*:\\s*\")[^\"]*\"");
    return std::regex_replace(line, authorization, "$1(hidden)\"");
}

SdkResolver::SdkResolver(const DaemonConfig& config, std::function<void(const std::string&)> log)
    : timeout_(config.timeout) {
    QelDNSApplication::setLogSink([log = std::move(log)](const std::string& line) {
        std::string kept = filterLogLine(line, debugLines.load(std::memory_order_relaxed));
        if (!kept.empty()) log(kept);
    });
    QelDNSApplication::setBundleIdentifier(config.appId);
    if (!config.store.empty()) QelDNSApplication::setStorePath(config.store);
    QelDNSTraceObserver::install([](const QelDNSLookupTrace& trace) { latestTrace = trace; });
    QelDNSResilienceOptions resilience;
    resilience.deadline = config.timeout;
    QelDNSResilience::enable(resilience);
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.enableCacheIP(true);
    dns.customServerUrl(config.serviceUrl);
    apply(config);
    dns.registerAuthId(config.authId, config.authSecret);
}

void SdkResolver::apply(const DaemonConfig& config) {
    debugLines.store(config.debug, std::memory_order_relaxed);
    timeout_ = config.timeout;
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.setTimeout(config.timeout);
    dns.setDegradeHosts(config.degradeHosts);
    QelDNSCacheOptions cache;
    cache.maxNames = config.maxNames;
    cache.maxAge = config.maxAge;
    cache.maxStale = config.maxStale;
    cache.perNetwork = config.perNetwork;
    QelDNSCacheProfile::enable(cache);
    if (!config.preResolve.empty()) {
        std::vector<QelDNSPreResolveModel> names;
        for (const std::string& name : config.preResolve) {
            for (int64_t type : {1, 2}) names.emplace_back(name, type);
        }
        dns.preGetIPsWithDomains(names);
    }
}

ResolveAnswer SdkResolver::resolve(const ResolveRequest& request) {
    double seconds = timeout_;
    if (request.deadlineMillis != 0) {
        // Answered a little before the caller gives up, so that it hears why rather than nothing.
        const double margin = std::min(0.1, request.deadlineMillis / 10000.0);
        seconds = std::min(seconds, request.deadlineMillis / 1000.0 - margin);
    }
    struct Shared {
        std::mutex mutex;
        std::condition_variable done;
        Outcome outcomes[2];
    };
    // The SDK drops a lookup made before the first login reply: wait for it, within the deadline.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (QelHttpDnsManager::shared().initStatus() == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    auto shared = std::make_shared<Shared>();
    const std::vector<int> families = request.family == QEL_FAMILY_BOTH
                                          ? std::vector<int>{QEL_FAMILY_V4, QEL_FAMILY_V6}
                                          : std::vector<int>{request.family};
    for (size_t i = 0; i < families.size(); ++i) {
        QelHttpDnsManager::shared().getIPByDomain(
            request.name, families[i] == QEL_FAMILY_V4 ? 1 : 2,
            [shared, i](std::optional<QelDNSError> error, Ips ips) {
                std::lock_guard<std::mutex> lock(shared->mutex);
                Outcome& outcome = shared->outcomes[i];
                outcome.answered = true;
                outcome.error = std::move(error);
                if (ips) outcome.ips = std::move(*ips);
                if (latestTrace) outcome.ttl = latestTrace->ttl;
                latestTrace.reset();
                shared->done.notify_all();
            });
    }
    std::unique_lock<std::mutex> lock(shared->mutex);
    const bool all = shared->done.wait_until(
        lock, deadline, [&] {
            return shared->outcomes[0].answered && (families.size() == 1 || shared->outcomes[1].answered);
        });
    ResolveAnswer answer;
    bool unavailable = !all;
    for (size_t i = 0; i < families.size(); ++i) {
        const Outcome& outcome = shared->outcomes[i];
        if (!outcome.answered) continue;
        for (const std::string& ip : outcome.ips) {
            if (auto bytes = addressBytes(ip, families[i])) {
                answer.addresses.push_back(
                    {families[i], static_cast<uint32_t>(std::max<int64_t>(outcome.ttl, 0)), *bytes});
            }
        }
        if (outcome.error) {
            answer.code = static_cast<int32_t>(outcome.error->code());
            answer.message = outcome.error->localizedDescription();
            unavailable = unavailable || !meansNotFound(outcome.error->code());
        }
    }
    if (!answer.addresses.empty()) {
        answer.status = QEL_STATUS_ANSWERED;
        answer.code = 0;
        answer.message.clear();
    } else if (unavailable) {
        answer.status = QEL_STATUS_UNAVAILABLE;
        if (!all && answer.code == 0) {
            answer.code = QEL_HTTPDNS_E_TIMED_OUT;
            answer.message = "timed out";
        }
    } else {
        answer.status = QEL_STATUS_NOT_FOUND;
        if (answer.code == 0) {  // answered, but no address of the family
            answer.code = QEL_HTTPDNS_E_RESOLVE_EMPTY_DATA;
            answer.message = "no address";
        }
    }
    return answer;
}

}  // namespace qel::daemon
