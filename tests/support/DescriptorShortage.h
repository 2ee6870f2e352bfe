// Lowers the process's limit on open descriptors so that exactly `count` more can be opened,
// until `restore()` or the end of the object. It affects every thread of the process, so it
// belongs in a child process (a death test) of its own.
#pragma once

#include <sys/resource.h>

#include <vector>

namespace qel::test {

class DescriptorShortage {
public:
    explicit DescriptorShortage(int count);
    ~DescriptorShortage() { restore(); }
    DescriptorShortage(const DescriptorShortage&) = delete;
    DescriptorShortage& operator=(const DescriptorShortage&) = delete;

    /// The descriptor numbers left to open, lowest first.
    const std::vector<int>& freeSlots() const { return freeSlots_; }
    /// True while `fd` is the lowest free descriptor, i.e. nothing took and kept that slot.
    static bool isLowestFree(int fd);
    /// True in a build with UndefinedBehaviorSanitizer, whose vptr check opens a pipe: with
    /// descriptors short it reports every polymorphic object it checks as invalid.
    static bool sanitizerNeedsDescriptors();
    void restore();

private:
    rlimit saved_{};
    bool lowered_ = false;
    std::vector<int> freeSlots_;
};

}  // namespace qel::test
