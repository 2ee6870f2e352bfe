#include "QelHttpDnsSDK/Platform/ProcessFork.h"

#include <pthread.h>

namespace qel::platform {

namespace {

std::atomic<uint64_t> forks{0};
std::atomic<void (*)()> beforeForkHook{nullptr};
std::atomic<void (*)()> afterForkHook{nullptr};

void beforeFork() {
    if (auto hook = beforeForkHook.load(std::memory_order_acquire)) hook();
}

void afterForkInParent() {
    if (auto hook = afterForkHook.load(std::memory_order_acquire)) hook();
}

void afterForkInChild() { forks.fetch_add(1, std::memory_order_acq_rel); }

}  // namespace

uint64_t ProcessFork::generation() {
    static const bool installed =
        pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild) == 0;
    (void)installed;
    return forks.load(std::memory_order_acquire);
}

void ProcessFork::setParentHooks(void (*beforeFork)(), void (*afterForkInParent)()) {
    beforeForkHook.store(beforeFork, std::memory_order_release);
    afterForkHook.store(afterForkInParent, std::memory_order_release);
}

}  // namespace qel::platform
