// Byte-level constants of the keyed archive, shared by `KeyedArchiver` and `KeyedUnarchiver`.
// The layout is described in docs/archive-format.md; every value here is part of files that
// applications keep, so none may change meaning.
#pragma once

#include <cstdint>

namespace qel::platform::keyed_archive {

constexpr uint8_t kMagic[3] = {'Q', 'K', 'A'};
constexpr uint8_t kVersion = 1;

enum Tag : uint8_t {
    kNull = 0x00,
    kString = 0x01,
    kInt32 = 0x02,
    kInt64 = 0x03,
    kArray = 0x04,
    kObject = 0x05,
};

// A symbol (a key or a class name) is either defined in place, which gives it the next
// number, or referred to by number + 1.
constexpr uint64_t kNewSymbol = 0;

inline uint64_t zigzag(int64_t value) {
    return (static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63);
}

inline int64_t unzigzag(uint64_t value) {
    return static_cast<int64_t>(value >> 1) ^ -static_cast<int64_t>(value & 1);
}

}  // namespace qel::platform::keyed_archive
