#include "SdkResolution.h"

#include <arpa/inet.h>

#include <algorithm>
#include <thread>

namespace qel::daemon {

namespace {

using Ips = std::optional<std::vector<std::string>>;

// The trace of the lookup answered last on this thread: delivered just before its callback.
thread_local std::optional<QelDNSLookupTrace> latestTrace;

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

SdkResolution::SdkResolution(const ResolveRequest& request, Deadline deadline)
    : name_(request.name),
      families_(request.family == QEL_FAMILY_BOTH ? std::vector<int>{QEL_FAMILY_V4, QEL_FAMILY_V6}
                                                  : std::vector<int>{request.family}),
      deadline_(deadline) {}

void SdkResolution::noteTrace(const QelDNSLookupTrace& trace) { latestTrace = trace; }

void SdkResolution::start() {
    started_ = true;
    for (size_t i = 0; i < families_.size(); ++i) {
        QelHttpDnsManager::shared().getIPByDomain(
            name_, families_[i] == QEL_FAMILY_V4 ? 1 : 2,
            [shared = shared_, i](std::optional<QelDNSError> error, Ips ips) {
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
}

bool SdkResolution::ready() {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return started_ && allAnswered();
}

ResolveAnswer SdkResolution::answer() {
    if (!started_) {
        while (QelHttpDnsManager::shared().initStatus() == 0 &&
               std::chrono::steady_clock::now() < deadline_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        start();
    }
    std::unique_lock<std::mutex> lock(shared_->mutex);
    const bool all = shared_->done.wait_until(lock, deadline_, [this] { return allAnswered(); });
    return compose(all);
}

bool SdkResolution::allAnswered() const {
    return shared_->outcomes[0].answered && (families_.size() == 1 || shared_->outcomes[1].answered);
}

// The outcomes as one answer (under the shared lock); `all` false: the deadline passed first.
ResolveAnswer SdkResolution::compose(bool all) const {
    ResolveAnswer answer;
    bool unavailable = !all;
    for (size_t i = 0; i < families_.size(); ++i) {
        const Outcome& outcome = shared_->outcomes[i];
        if (!outcome.answered) continue;
        for (const std::string& ip : outcome.ips) {
            if (auto bytes = addressBytes(ip, families_[i])) {
                answer.addresses.push_back(
                    {families_[i], static_cast<uint32_t>(std::max<int64_t>(outcome.ttl, 0)), *bytes});
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
