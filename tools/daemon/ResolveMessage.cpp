#include "ResolveMessage.h"

#include <cstring>

namespace qel::daemon {

namespace {

uint16_t read16(const uint8_t* at) { return static_cast<uint16_t>(at[0] << 8 | at[1]); }
uint32_t read32(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) << 24 | static_cast<uint32_t>(at[1]) << 16 |
           static_cast<uint32_t>(at[2]) << 8 | at[3];
}
void put16(std::vector<uint8_t>& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}
void put32(std::vector<uint8_t>& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}
bool hasMagic(const uint8_t* at) { return std::memcmp(at, QEL_PROTOCOL_MAGIC, 4) == 0; }
size_t addressLength(int family) { return family == QEL_FAMILY_V4 ? 4 : family == QEL_FAMILY_V6 ? 16 : 0; }

}  // namespace

std::optional<size_t> requestSize(const uint8_t* header) {
    const uint16_t length = read16(header + 6);
    if (!hasMagic(header) || length == 0 || length > QEL_MAX_NAME) return std::nullopt;
    return QEL_REQUEST_HEADER + size_t{length};
}

std::optional<ResolveRequest> decodeRequest(const std::vector<uint8_t>& bytes) {
    if (bytes.size() < QEL_REQUEST_HEADER) return std::nullopt;
    const std::optional<size_t> size = requestSize(bytes.data());
    if (!size || bytes.size() != *size) return std::nullopt;
    const int family = bytes[4];
    if (family != QEL_FAMILY_BOTH && family != QEL_FAMILY_V4 && family != QEL_FAMILY_V6) {
        return std::nullopt;
    }
    if (bytes[5] != 0) return std::nullopt;
    ResolveRequest request;
    request.family = family;
    request.deadlineMillis = read32(bytes.data() + 8);
    request.name.assign(bytes.begin() + QEL_REQUEST_HEADER, bytes.end());
    for (const unsigned char c : request.name) {
        if (c < 0x20 || c == 0x7f) return std::nullopt;  // never logged or passed on raw
    }
    return request;
}

std::vector<uint8_t> encodeRequest(const ResolveRequest& request) {
    std::vector<uint8_t> out(QEL_PROTOCOL_MAGIC, QEL_PROTOCOL_MAGIC + 4);
    out.push_back(static_cast<uint8_t>(request.family));
    out.push_back(0);
    put16(out, static_cast<uint16_t>(request.name.size()));
    put32(out, request.deadlineMillis);
    out.insert(out.end(), request.name.begin(), request.name.end());
    return out;
}

std::vector<uint8_t> encodeAnswer(const ResolveAnswer& answer) {
    std::vector<const ResolvedAddress*> sent;
    for (const ResolvedAddress& address : answer.addresses) {
        if (sent.size() == QEL_MAX_ADDRESSES) break;
        if (address.bytes.size() == addressLength(address.family)) sent.push_back(&address);
    }
    const size_t messageLength = std::min<size_t>(answer.message.size(), QEL_MAX_MESSAGE);
    std::vector<uint8_t> out(QEL_PROTOCOL_MAGIC, QEL_PROTOCOL_MAGIC + 4);
    out.push_back(static_cast<uint8_t>(answer.status));
    out.push_back(0);
    put16(out, static_cast<uint16_t>(sent.size()));
    put32(out, static_cast<uint32_t>(answer.code));
    put16(out, static_cast<uint16_t>(messageLength));
    for (const ResolvedAddress* address : sent) {
        out.push_back(static_cast<uint8_t>(address->family));
        put32(out, address->ttl);
        out.insert(out.end(), address->bytes.begin(), address->bytes.end());
    }
    out.insert(out.end(), answer.message.begin(), answer.message.begin() + messageLength);
    return out;
}

std::optional<ResolveAnswer> decodeAnswer(const std::vector<uint8_t>& bytes) {
    if (bytes.size() < QEL_ANSWER_HEADER || !hasMagic(bytes.data())) return std::nullopt;
    ResolveAnswer answer;
    answer.status = bytes[4];
    const uint16_t count = read16(bytes.data() + 6);
    answer.code = static_cast<int32_t>(read32(bytes.data() + 8));
    const uint16_t messageLength = read16(bytes.data() + 12);
    if (count > QEL_MAX_ADDRESSES || messageLength > QEL_MAX_MESSAGE) return std::nullopt;
    size_t at = QEL_ANSWER_HEADER;
    for (uint16_t i = 0; i < count; ++i) {
        if (bytes.size() < at + 5) return std::nullopt;
        ResolvedAddress address;
        address.family = bytes[at];
        address.ttl = read32(bytes.data() + at + 1);
        const size_t length = addressLength(address.family);
        at += 5;
        if (length == 0 || bytes.size() < at + length) return std::nullopt;
        address.bytes.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                             bytes.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
        answer.addresses.push_back(std::move(address));
    }
    if (bytes.size() != at + messageLength) return std::nullopt;
    answer.message.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.end());
    return answer;
}

}  // namespace qel::daemon
