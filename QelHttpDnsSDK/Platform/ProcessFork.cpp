#include "QelHttpDnsSDK/Platform/ProcessFork.h"

#include <pthread.h>

namespace qel::platform {

namespace {

std::atomic<void (*)()> beforeForkHook{nullptr};
std::atomic<void (*)()> afterForkHook{nullptr};

void beforeFork() {
    if (auto hook = beforeForkHook.load(std::memory_order_acquire)) hook();
}

void afterForkInParent() {
    if (auto hook = afterForkHook.load(std::memory_order_acquire)) hook();
}

}  // namespace

std::atomic<uint64_t> ProcessFork::forks_{0};

void ProcessFork::watch() {
    static const bool installed = pthread_atfork(&beforeFork, &afterForkInParent, [] {
                                      forks_.fetch_add(1, std::memory_order_acq_rel);
                                  }) == 0;
    (void)installed;
}

void ProcessFork::setParentHooks(void (*beforeFork)(), void (*afterForkInParent)()) {
    beforeForkHook.store(beforeFork, std::memory_order_release);
    afterForkHook.store(afterForkInParent, std::memory_order_release);
}

}  // namespace qel::platform
