// Reading, writing and damaging files byte for byte, for tests of stores on disk.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel::test {

std::vector<uint8_t> readFileBytes(const std::string& path);
void writeFileBytes(const std::string& path, const std::vector<uint8_t>& bytes);
/// `count` bytes from a generator seeded with `seed` (the same bytes for the same seed).
std::vector<uint8_t> randomBytes(size_t count, uint32_t seed);
/// Overwrites everything after the first `keep` bytes of the file with random bytes, leaving
/// its size as it is.
void scrambleFileAfter(const std::string& path, size_t keep, uint32_t seed);

}  // namespace qel::test
