// A fresh directory under $TMPDIR (or /tmp), removed with everything in it when the object
// goes away. Tests keep their files here, never under the real home directory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel::test {

class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    /// The bytes of `file(name)` / replaces them.
    std::vector<uint8_t> read(const std::string& name) const;
    void write(const std::string& name, const std::vector<uint8_t>& bytes) const;

private:
    std::string path_;
};

/// `count` bytes from a generator seeded with `seed` (the same bytes for the same seed).
std::vector<uint8_t> randomBytes(size_t count, uint32_t seed);

}  // namespace qel::test
