// The resolver daemon's messages (qel_resolve_protocol.h) as C++ values: a request decoded
// from the bytes a caller sent, an answer encoded into the bytes it gets. Pure functions, so
// that the decoder is fuzzed on its own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qel_resolve_protocol.h"

namespace qel::daemon {

struct ResolveRequest {
    int family = QEL_FAMILY_BOTH;  // QEL_FAMILY_*
    uint32_t deadlineMillis = 0;   // 0: the daemon's own
    std::string name;
};

struct ResolvedAddress {
    int family = QEL_FAMILY_V4;
    uint32_t ttl = 0;
    std::string bytes;  // 4 or 16 bytes, network order
};

struct ResolveAnswer {
    int status = QEL_STATUS_UNAVAILABLE;
    int32_t code = 0;
    std::vector<ResolvedAddress> addresses;  // at most QEL_MAX_ADDRESSES are sent
    std::string message;                     // cut to QEL_MAX_MESSAGE bytes
};

/// How many bytes of a request that starts with `header` (QEL_REQUEST_HEADER bytes) there are,
/// or nothing when the header already shows the request is malformed.
std::optional<size_t> requestSize(const uint8_t* header);
/// The request in `bytes`; nothing unless it is exactly one well-formed request: the magic,
/// a known family, flags 0, a name of 1..QEL_MAX_NAME bytes of which none is a NUL or control
/// byte, and no byte after it.
std::optional<ResolveRequest> decodeRequest(const std::vector<uint8_t>& bytes);
/// The request's bytes (for clients: qeldns --daemon, tests).
std::vector<uint8_t> encodeRequest(const ResolveRequest& request);

/// The answer's bytes; addresses beyond the limit and message bytes beyond its limit are left
/// out, and an address of the wrong length is skipped.
std::vector<uint8_t> encodeAnswer(const ResolveAnswer& answer);
/// The answer in `bytes`; nothing unless it is exactly one well-formed answer.
std::optional<ResolveAnswer> decodeAnswer(const std::vector<uint8_t>& bytes);

}  // namespace qel::daemon
