// The resolver daemon's reading of a request and writing of an answer, on arbitrary bytes:
//  - a request is either refused or decoded into a name of 1..253 bytes without control bytes,
//    and encoding it again gives the very bytes read;
//  - the header's announced size agrees with what the decoder takes;
//  - an answer built from the input (addresses of any length, a message of any size) encodes
//    within the protocol's limits and decodes into the addresses of the right lengths.
#include <cstdint>
#include <vector>

#include "FuzzCheck.h"
#include "ResolveMessage.h"

using namespace qel::daemon;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<uint8_t> bytes(data, data + size);
    if (const auto request = decodeRequest(bytes)) {
        fuzzCheck(!request->name.empty() && request->name.size() <= QEL_MAX_NAME, "name length");
        for (const unsigned char c : request->name) fuzzCheck(c >= 0x20 && c != 0x7f, "no control byte");
        fuzzCheck(encodeRequest(*request) == bytes, "a request encodes to the bytes it came from");
        fuzzCheck(requestSize(data).value_or(0) == size, "the header announces the request's size");
    }
    ResolveAnswer answer;
    answer.status = size > 0 ? data[0] % 5 : 0;
    for (size_t at = 1; at + 2 <= size && answer.addresses.size() < 100; at += 2 + data[at + 1] % 20) {
        const size_t length = data[at + 1] % 20;
        const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at + 2);
        const auto end = at + 2 + length <= size ? begin + static_cast<std::ptrdiff_t>(length) : bytes.end();
        answer.addresses.push_back({data[at] % 2 ? QEL_FAMILY_V6 : QEL_FAMILY_V4, data[at], std::string(begin, end)});
    }
    answer.message.assign(bytes.begin(), bytes.end());
    const std::vector<uint8_t> encoded = encodeAnswer(answer);
    fuzzCheck(encoded.size() <= QEL_MAX_ANSWER, "an answer fits the protocol's limit");
    const auto decoded = decodeAnswer(encoded);
    fuzzCheck(decoded.has_value(), "an encoded answer decodes");
    for (const auto& address : decoded->addresses) {
        fuzzCheck(address.bytes.size() == (address.family == QEL_FAMILY_V4 ? 4u : 16u), "address length");
    }
    return 0;
}
