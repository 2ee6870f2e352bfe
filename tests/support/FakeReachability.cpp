#include "support/FakeReachability.h"

#include <netinet/in.h>

#include <cstring>

namespace qel::test {

class FakeReachabilitySource final : public platform::ReachabilitySource {
public:
    explicit FakeReachabilitySource(std::shared_ptr<FakeReachabilityTarget> target)
        : target_(std::move(target)) {}
    ~FakeReachabilitySource() override { unschedule(); }

    bool getFlags(uint32_t& flags) override {
        std::lock_guard<std::mutex> lock(target_->mutex_);
        if (target_->readable_) flags = target_->flags_;
        return target_->readable_;
    }
    bool setCallback(Callback callback) override {
        std::lock_guard<std::mutex> lock(target_->mutex_);
        target_->callback_ = std::move(callback);
        return true;
    }
    bool schedule() override { return setScheduled(true); }
    bool unschedule() override { return setScheduled(false); }

private:
    bool setScheduled(bool scheduled) {
        std::lock_guard<std::mutex> lock(target_->mutex_);
        target_->scheduled_ = scheduled;
        return true;
    }
    std::shared_ptr<FakeReachabilityTarget> target_;
};

void FakeReachabilityTarget::setFlags(uint32_t flags, bool readable) {
    std::lock_guard<std::mutex> lock(mutex_);
    flags_ = flags;
    readable_ = readable;
}

platform::ReachabilitySource::Callback FakeReachabilityTarget::callbackIf(bool mustBeScheduled,
                                                                          uint32_t& flags) const {
    std::lock_guard<std::mutex> lock(mutex_);
    flags = flags_;
    return mustBeScheduled && !scheduled_ ? nullptr : callback_;
}

bool FakeReachabilityTarget::fire() {
    uint32_t flags;
    auto callback = callbackIf(true, flags);
    if (callback) callback(flags);  // outside the lock, as a real source does
    return static_cast<bool>(callback);
}

void FakeReachabilityTarget::invokeCallback() {
    uint32_t flags;
    if (auto callback = callbackIf(false, flags)) callback(flags);
}

bool FakeReachabilityTarget::scheduled() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return scheduled_;
}

FakeReachabilityFactory::FakeReachabilityFactory(uint32_t initialFlags)
    : initialFlags_(initialFlags) {
    platform::ReachabilitySourceFactory::install(this);
}

FakeReachabilityFactory::~FakeReachabilityFactory() {
    platform::ReachabilitySourceFactory::install(nullptr);
}

std::unique_ptr<platform::ReachabilitySource> FakeReachabilityFactory::makeWithName(
    const std::string& hostName) {
    auto target = std::make_shared<FakeReachabilityTarget>();
    target->hostName = hostName;
    return make(std::move(target));
}

std::unique_ptr<platform::ReachabilitySource> FakeReachabilityFactory::makeWithAddress(
    const sockaddr* address) {
    auto target = std::make_shared<FakeReachabilityTarget>();
    sockaddr_storage copy{};
    std::memcpy(&copy, address,
                address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
    target->address = copy;
    return make(std::move(target));
}

std::unique_ptr<platform::ReachabilitySource> FakeReachabilityFactory::make(
    std::shared_ptr<FakeReachabilityTarget> target) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (failCreation_) return nullptr;
    target->setFlags(initialFlags_);
    targets_.push_back(target);
    return std::make_unique<FakeReachabilitySource>(std::move(target));
}

void FakeReachabilityFactory::failCreation(bool fail) {
    std::lock_guard<std::mutex> lock(mutex_);
    failCreation_ = fail;
}

size_t FakeReachabilityFactory::made() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return targets_.size();
}

std::shared_ptr<FakeReachabilityTarget> FakeReachabilityFactory::last() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return targets_.empty() ? nullptr : targets_.back();
}

}  // namespace qel::test
