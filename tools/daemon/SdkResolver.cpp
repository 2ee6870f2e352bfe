#include "SdkResolver.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <regex>
#include <vector>

#include "QelHttpDnsSDK/QelHttpDnsSDK.h"
#include "SdkResolution.h"

namespace qel::daemon {

namespace {

std::atomic<bool> debugLines{false};

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
    // Empty: memory only, not the SDK's default file under the user's home.
    QelDNSApplication::setStorePath(config.store.empty() ? ":memory:" : config.store);
    QelDNSTraceObserver::install(SdkResolution::noteTrace);
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

std::unique_ptr<Resolution> SdkResolver::begin(const ResolveRequest& request) {
    double seconds = timeout_;
    if (request.deadlineMillis != 0) {
        // Answered a little before the caller gives up, so that it hears why rather than nothing.
        const double margin = std::min(0.1, request.deadlineMillis / 10000.0);
        seconds = std::min(seconds, request.deadlineMillis / 1000.0 - margin);
    }
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(seconds));
    auto resolution = std::make_unique<SdkResolution>(request, deadline);
    if (QelHttpDnsManager::shared().initStatus() != 0) resolution->start();
    return resolution;
}

}  // namespace qel::daemon
