#include "QelHttpDnsSDK/Platform/KeyedArchiver.h"

#include <algorithm>
#include <iterator>

#include "QelHttpDnsSDK/Platform/KeyedArchiveFormat.h"

namespace qel::platform {

using namespace keyed_archive;

KeyedArchiver::KeyedArchiver() {
    data_.reserve(128);
    data_.insert(data_.end(), std::begin(kMagic), std::end(kMagic));
    data_.push_back(kVersion);
}

void KeyedArchiver::writeVarint(uint64_t value) {
    while (value >= 0x80) {
        data_.push_back(static_cast<uint8_t>(value | 0x80));
        value >>= 7;
    }
    data_.push_back(static_cast<uint8_t>(value));
}

void KeyedArchiver::writeSymbol(std::string_view symbol) {
    // Archives hold a handful of distinct keys, so a linear search beats hashing.
    const auto found = std::find(symbols_.begin(), symbols_.end(), symbol);
    if (found != symbols_.end()) {
        writeVarint(static_cast<uint64_t>(found - symbols_.begin()) + 1);
        return;
    }
    writeVarint(kNewSymbol);
    writeVarint(symbol.size());
    data_.insert(data_.end(), symbol.begin(), symbol.end());
    symbols_.emplace_back(symbol);
}

void KeyedArchiver::beginRootArray(uint64_t count) {
    data_.push_back(kArray);
    writeVarint(count);
}

void KeyedArchiver::appendObject(const Coding& object) {
    data_.push_back(kObject);
    writeSymbol(object.className());
    // The field count precedes the fields but is known only once they are written: encode
    // them first, then slide the count in front of them.
    const size_t countAt = data_.size();
    fieldCount_ = 0;
    object.encodeWithCoder(*this);
    uint8_t count[10];
    size_t length = 0;
    for (uint64_t value = fieldCount_;; value >>= 7) {
        count[length++] = static_cast<uint8_t>(value >= 0x80 ? (value | 0x80) : value);
        if (value < 0x80) break;
    }
    data_.insert(data_.begin() + static_cast<std::ptrdiff_t>(countAt), count, count + length);
}

void KeyedArchiver::beginField(std::string_view key) {
    ++fieldCount_;
    writeSymbol(key);
}

void KeyedArchiver::encodeString(const std::optional<std::string>& value, std::string_view key) {
    beginField(key);
    if (!value) {
        data_.push_back(kNull);
        return;
    }
    data_.push_back(kString);
    writeVarint(value->size());
    data_.insert(data_.end(), value->begin(), value->end());
}

void KeyedArchiver::encodeInt32(int32_t value, std::string_view key) {
    beginField(key);
    data_.push_back(kInt32);
    writeVarint(zigzag(value));
}

void KeyedArchiver::encodeInt64(int64_t value, std::string_view key) {
    beginField(key);
    data_.push_back(kInt64);
    writeVarint(zigzag(value));
}

}  // namespace qel::platform
