// Reads a keyed archive written by `KeyedArchiver` with secure decoding: the caller names the
// classes it accepts, and any damage (bad header, truncation, trailing bytes, an unknown tag,
// an integer out of its width) or any class outside that list makes the whole archive yield
// nothing. Decoding never throws and never reads outside the given bytes.
//
// During decoding, each object's `initWithCoder` receives an unarchiver holding that object's
// fields; the `decode...ForKey` operations read them. A key the object lacks, or one holding
// another type, reads as 0 or as no string, so a later version may add and drop fields.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QelHttpDnsSDK/Platform/Coding.h"
#include "QelHttpDnsSDK/Platform/Data.h"

namespace qel::platform {

class KeyedUnarchiver {
public:
    /// One entry of the allow-list: a class name and, for coding classes, how to decode it.
    struct AllowedClass {
        using Decode = std::shared_ptr<Coding> (*)(const KeyedUnarchiver& coder);

        std::string_view name;
        Decode decode = nullptr;  // null for the built-in array and string classes

        /// The root array; without it no archive decodes.
        static AllowedClass array() { return {"Array", nullptr}; }
        /// String objects; without it a field holding a string makes the archive fail.
        static AllowedClass string() { return {"String", nullptr}; }
        /// A coding class (see Coding.h). A class that does not support secure coding is
        /// never decoded, even when listed.
        template <class T>
        static AllowedClass of() {
            if (!T::supportsSecureCoding()) return {T::kClassName, nullptr};
            return {T::kClassName, [](const KeyedUnarchiver& coder) -> std::shared_ptr<Coding> {
                        return T::initWithCoder(coder);
                    }};
        }
    };

    /// Decodes an archive whose root array holds objects of class `T` only; `Pointer` is
    /// `std::shared_ptr<T>` or `std::shared_ptr<const T>`. Nothing when the data is damaged,
    /// names a class outside `allowed`, or holds an object that is not a `T`.
    template <class Pointer>
    static std::optional<std::vector<Pointer>> unarchivedArrayOfObjects(
        const Data& data, const std::vector<AllowedClass>& allowed) {
        using T = typename Pointer::element_type;
        std::vector<Pointer> objects;
        const bool complete = decodeRootArray(
            data, allowed, &objects,
            [](void* into, size_t count) {
                static_cast<std::vector<Pointer>*>(into)->reserve(count);
            },
            [](void* into, std::shared_ptr<Coding>&& object) {
                T* typed = dynamic_cast<T*>(object.get());
                if (!typed) return false;
                static_cast<std::vector<Pointer>*>(into)->emplace_back(std::move(object), typed);
                return true;
            });
        if (!complete) return std::nullopt;
        return objects;
    }

    /// The string object under `key`; nothing when absent, null or not a string.
    std::optional<std::string> decodeStringForKey(std::string_view key) const;
    /// The integer under `key`, 0 when absent or not an integer. A 64-bit value that does not
    /// fit in 32 bits marks the archive as damaged.
    int32_t decodeInt32ForKey(std::string_view key) const;
    int64_t decodeInt64ForKey(std::string_view key) const;

private:
    struct Field {
        std::string_view key;
        uint8_t tag;
        int64_t integer;        // for integer tags
        std::string_view text;  // for the string tag
    };

    KeyedUnarchiver(const Field* begin, const Field* end, bool* damaged)
        : begin_(begin), end_(end), damaged_(damaged) {}

    const Field* find(std::string_view key) const;

    using Reserve = void (*)(void* into, size_t count);
    using Append = bool (*)(void* into, std::shared_ptr<Coding>&& object);
    static bool decodeRootArray(const Data& data, const std::vector<AllowedClass>& allowed,
                                void* into, Reserve reserve, Append append);

    const Field* begin_;
    const Field* end_;
    bool* damaged_;
};

}  // namespace qel::platform
