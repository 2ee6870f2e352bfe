// What the benchmarks that drive the public manager share: a login to the tests' loopback
// service, and the wait for one lookup's answer with the moment it came.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"

namespace qel::bench {

/// Logs the shared manager in to `url` with caching on, then makes two IPv4 lookups, so that
/// from then on every IPv4 lookup's key ends in "_v4". Whether the login succeeded (10 s at most).
inline bool logInAndWarm(const std::string& url, const std::string& id, const std::string& secret) {
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.customServerUrl(url);
    dns.registerAuthId(id, secret);
    for (int i = 0; i < 2000 && dns.initStatus() != 4; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    dns.enableCacheIP(true);
    for (int i = 0; i < 2; ++i) dns.getIPV4ByDomain(std::string("warm.test"), nullptr);
    return dns.initStatus() == 4;
}

/// Waits for one answer and keeps the moment it came.
class TimedAnswer {
public:
    using Clock = std::chrono::steady_clock;
    using Ips = std::optional<std::vector<std::string>>;

    explicit TimedAnswer(std::vector<std::string> expected) : expected_(std::move(expected)) {}

    void reset() {
        std::lock_guard<std::mutex> lock(mutex_);
        answered_ = false;
    }
    void set(const Ips& ips) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            answered_ = true;
            ok_ = ips && *ips == expected_;
            at_ = Clock::now();
        }
        changed_.notify_one();
    }
    /// Whether the expected addresses came, within 20 s.
    bool wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(20), [this] { return answered_; }) && ok_;
    }
    bool answered() {
        std::lock_guard<std::mutex> lock(mutex_);
        return answered_;
    }
    double secondsSince(Clock::time_point start) {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::chrono::duration<double>(at_ - start).count();
    }

private:
    const std::vector<std::string> expected_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool answered_ = false;
    bool ok_ = false;
    Clock::time_point at_;
};

}  // namespace qel::bench
