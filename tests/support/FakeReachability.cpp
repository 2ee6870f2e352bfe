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
        if (!target_->readable_) return false;
        flags = target_->flags_;
        return true;
    }
    bool setCallback(Callback callback) override {
        std::lock_guard<std::mutex> lock(target_->mutex_);
        ++target_->setCallbackCalls_;
        if (target_->failSetCallback_) return false;
        target_->callback_ = std::move(callback);
        return true;
    }
    bool schedule() override {
        std::lock_guard<std::mutex> lock(target_->mutex_);
        ++target_->scheduleCalls_;
        if (target_->failSchedule_) return false;
        target_->scheduled_ = true;
        return true;
    }
    bool unschedule() override {
        std::lock_guard<std::mutex> lock(target_->mutex_);
        ++target_->unscheduleCalls_;
        const bool was = target_->scheduled_;
        target_->scheduled_ = false;
        return was;
    }

private:
    std::shared_ptr<FakeReachabilityTarget> target_;
};

void FakeReachabilityTarget::setFlags(uint32_t flags, bool readable) {
    std::lock_guard<std::mutex> lock(mutex_);
    flags_ = flags;
    readable_ = readable;
}

bool FakeReachabilityTarget::fire() {
    platform::ReachabilitySource::Callback callback;
    uint32_t flags;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!scheduled_ || !callback_) return false;
        callback = callback_;
        flags = flags_;
    }
    callback(flags);
    return true;
}

void FakeReachabilityTarget::invokeCallback() {
    platform::ReachabilitySource::Callback callback;
    uint32_t flags;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        callback = callback_;
        flags = flags_;
    }
    if (callback) callback(flags);
}

void FakeReachabilityTarget::failSetCallback(bool fail) {
    std::lock_guard<std::mutex> lock(mutex_);
    failSetCallback_ = fail;
}

void FakeReachabilityTarget::failSchedule(bool fail) {
    std::lock_guard<std::mutex> lock(mutex_);
    failSchedule_ = fail;
}

bool FakeReachabilityTarget::scheduled() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return scheduled_;
}

bool FakeReachabilityTarget::hasCallback() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<bool>(callback_);
}

int FakeReachabilityTarget::setCallbackCalls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return setCallbackCalls_;
}

int FakeReachabilityTarget::scheduleCalls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return scheduleCalls_;
}

int FakeReachabilityTarget::unscheduleCalls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return unscheduleCalls_;
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
    if (address) {
        sockaddr_storage copy{};
        std::memcpy(&copy, address,
                    address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
        target->address = copy;
    }
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

std::shared_ptr<FakeReachabilityTarget> FakeReachabilityFactory::target(size_t index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return index < targets_.size() ? targets_[index] : nullptr;
}

std::shared_ptr<FakeReachabilityTarget> FakeReachabilityFactory::last() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return targets_.empty() ? nullptr : targets_.back();
}

}  // namespace qel::test
