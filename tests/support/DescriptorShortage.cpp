#include "support/DescriptorShortage.h"

#include <unistd.h>

// Present only when the UndefinedBehaviorSanitizer runtime is linked in.
extern "C" void __ubsan_handle_dynamic_type_cache_miss(void* data, void* pointer, void* hash) __attribute__((weak));

namespace qel::test {

bool DescriptorShortage::sanitizerNeedsDescriptors() { return __ubsan_handle_dynamic_type_cache_miss != nullptr; }

DescriptorShortage::DescriptorShortage(int count) {
    // dup() takes the lowest free number, so these are the `count` slots a limit just above
    // the last of them leaves open.
    for (int i = 0; i < count; ++i) freeSlots_.push_back(::dup(STDERR_FILENO));
    for (int fd : freeSlots_) ::close(fd);
    ::getrlimit(RLIMIT_NOFILE, &saved_);
    rlimit scarce = saved_;
    scarce.rlim_cur = count > 0 ? static_cast<rlim_t>(freeSlots_.back()) + 1 : 0;
    lowered_ = ::setrlimit(RLIMIT_NOFILE, &scarce) == 0;
}

bool DescriptorShortage::isLowestFree(int fd) {
    const int probe = ::dup(STDERR_FILENO);
    if (probe >= 0) ::close(probe);
    return probe == fd;
}

void DescriptorShortage::restore() {
    if (lowered_) ::setrlimit(RLIMIT_NOFILE, &saved_);
    lowered_ = false;
}

}  // namespace qel::test
