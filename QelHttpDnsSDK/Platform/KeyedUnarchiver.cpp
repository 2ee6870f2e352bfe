#include "QelHttpDnsSDK/Platform/KeyedUnarchiver.h"

#include <cstring>
#include <limits>

#include "QelHttpDnsSDK/Platform/KeyedArchiveFormat.h"

namespace qel::platform {

using namespace keyed_archive;

namespace {

// A bounds-checked cursor over the archive; every read fails instead of passing the end.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}

    size_t remaining() const { return static_cast<size_t>(end_ - at_); }

    bool byte(uint8_t& out) {
        if (at_ == end_) return false;
        out = *at_++;
        return true;
    }

    bool varint(uint64_t& out) {
        out = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            uint8_t b;
            if (!byte(b)) return false;
            if (shift == 63 && b > 1) return false;  // more than 64 bits
            out |= static_cast<uint64_t>(b & 0x7f) << shift;
            if (!(b & 0x80)) return true;
        }
        return false;
    }

    bool bytes(uint64_t length, std::string_view& out) {
        if (length > remaining()) return false;
        out = std::string_view(reinterpret_cast<const char*>(at_), static_cast<size_t>(length));
        at_ += length;
        return true;
    }

    bool symbol(std::vector<std::string_view>& symbols, std::string_view& out) {
        uint64_t code;
        if (!varint(code)) return false;
        if (code == kNewSymbol) {
            uint64_t length;
            if (!varint(length) || !bytes(length, out)) return false;
            symbols.push_back(out);
            return true;
        }
        if (code - 1 >= symbols.size()) return false;
        out = symbols[static_cast<size_t>(code - 1)];
        return true;
    }

private:
    const uint8_t* at_;
    const uint8_t* end_;
};

const KeyedUnarchiver::AllowedClass* findClass(
    const std::vector<KeyedUnarchiver::AllowedClass>& allowed, std::string_view name) {
    for (const auto& entry : allowed) {
        if (entry.name == name) return &entry;
    }
    return nullptr;
}

// The smallest encodings, which bound how many elements the remaining bytes can hold:
// an object is a tag, a symbol reference and a field count; a field a symbol and a tag.
constexpr size_t kMinObjectBytes = 3;
constexpr size_t kMinFieldBytes = 2;

}  // namespace

bool KeyedUnarchiver::decodeRootArray(const Data& data, const std::vector<AllowedClass>& allowed,
                                      void* into, Reserve reserve, Append append) {
    Reader reader(data.data(), data.size());
    uint8_t header[4];
    for (uint8_t& b : header) {
        if (!reader.byte(b)) return false;
    }
    if (std::memcmp(header, kMagic, sizeof kMagic) != 0 || header[3] != kVersion) return false;

    const AllowedClass* arrayClass = findClass(allowed, AllowedClass::array().name);
    if (!arrayClass || arrayClass->decode) return false;
    const AllowedClass* stringClass = findClass(allowed, AllowedClass::string().name);
    const bool stringsAllowed = stringClass && !stringClass->decode;

    uint8_t tag;
    uint64_t count;
    if (!reader.byte(tag) || tag != kArray || !reader.varint(count)) return false;
    if (count > reader.remaining() / kMinObjectBytes) return false;
    reserve(into, static_cast<size_t>(count));

    std::vector<std::string_view> symbols;
    std::vector<Field> fields;
    fields.reserve(8);
    for (uint64_t i = 0; i < count; ++i) {
        std::string_view className;
        uint64_t fieldCount;
        if (!reader.byte(tag) || tag != kObject || !reader.symbol(symbols, className) ||
            !reader.varint(fieldCount) || fieldCount > reader.remaining() / kMinFieldBytes) {
            return false;
        }
        const AllowedClass* objectClass = findClass(allowed, className);
        if (!objectClass || !objectClass->decode) return false;

        fields.clear();
        for (uint64_t f = 0; f < fieldCount; ++f) {
            Field field{};
            uint64_t value;
            if (!reader.symbol(symbols, field.key) || !reader.byte(field.tag)) return false;
            switch (field.tag) {
                case kNull: break;
                case kString:
                    if (!stringsAllowed || !reader.varint(value) ||
                        !reader.bytes(value, field.text))
                        return false;
                    break;
                case kInt32:
                    if (!reader.varint(value)) return false;
                    field.integer = unzigzag(value);
                    if (field.integer < std::numeric_limits<int32_t>::min() ||
                        field.integer > std::numeric_limits<int32_t>::max()) {
                        return false;
                    }
                    break;
                case kInt64:
                    if (!reader.varint(value)) return false;
                    field.integer = unzigzag(value);
                    break;
                default:  // arrays and objects are not field values in this version
                    return false;
            }
            fields.push_back(field);
        }

        bool damaged = false;
        KeyedUnarchiver coder(fields.data(), fields.data() + fields.size(), &damaged);
        std::shared_ptr<Coding> object = objectClass->decode(coder);
        if (!object || damaged || !append(into, std::move(object))) return false;
    }
    return reader.remaining() == 0;
}

const KeyedUnarchiver::Field* KeyedUnarchiver::find(std::string_view key) const {
    // Few fields per object: a linear search; with a repeated key the first one counts.
    for (const Field* field = begin_; field != end_; ++field) {
        if (field->key == key) return field;
    }
    return nullptr;
}

std::optional<std::string> KeyedUnarchiver::decodeStringForKey(std::string_view key) const {
    const Field* field = find(key);
    if (!field || field->tag != kString) return std::nullopt;
    return std::string(field->text);
}

int64_t KeyedUnarchiver::decodeInt64ForKey(std::string_view key) const {
    const Field* field = find(key);
    if (!field || (field->tag != kInt32 && field->tag != kInt64)) return 0;
    return field->integer;
}

int32_t KeyedUnarchiver::decodeInt32ForKey(std::string_view key) const {
    const int64_t value = decodeInt64ForKey(key);
    if (value < std::numeric_limits<int32_t>::min() ||
        value > std::numeric_limits<int32_t>::max()) {
        *damaged_ = true;
        return 0;
    }
    return static_cast<int32_t>(value);
}

}  // namespace qel::platform
