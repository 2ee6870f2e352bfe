// Writes a keyed archive: an array of `Coding` objects as the root, each object a class name
// and keyed, typed fields (string objects, 32-bit and 64-bit integers). The byte layout is
// documented in docs/archive-format.md; `KeyedUnarchiver` reads it back.
//
// An archiver exists only during `archivedDataWithRootObjects`, which hands it to each
// object's `encodeWithCoder`. It is not shared between threads.
#pragma once

#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QelHttpDnsSDK/Platform/Coding.h"
#include "QelHttpDnsSDK/Platform/Data.h"

namespace qel::platform {

class KeyedArchiver {
public:
    /// Encodes `objects`, a range of pointers (raw or smart) to `Coding` objects, as the
    /// archive's root array. Nothing when an element is null: an archive never holds a hole.
    template <class Range>
    static std::optional<Data> archivedDataWithRootObjects(const Range& objects) {
        KeyedArchiver archiver;
        archiver.beginRootArray(static_cast<uint64_t>(std::size(objects)));
        for (const auto& object : objects) {
            if (!object) return std::nullopt;
            archiver.appendObject(*object);
        }
        return std::move(archiver.data_);
    }

    /// A string object under `key`; an absent string is recorded as null.
    void encodeString(const std::optional<std::string>& value, std::string_view key);
    void encodeInt32(int32_t value, std::string_view key);
    void encodeInt64(int64_t value, std::string_view key);

private:
    KeyedArchiver();

    void beginRootArray(uint64_t count);
    void appendObject(const Coding& object);
    void beginField(std::string_view key);
    void writeSymbol(std::string_view symbol);
    void writeVarint(uint64_t value);

    Data data_;
    std::vector<std::string> symbols_;  // numbered in order of definition
    uint64_t fieldCount_ = 0;           // fields written for the object being encoded
};

}  // namespace qel::platform
