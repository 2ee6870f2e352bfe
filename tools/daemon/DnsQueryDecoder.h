// The DNS stub's reading of one query message: bytes in, either a query to answer or the reply
// the bytes deserve (FORMERR, NOTIMP, BADVERS, or nothing). Pure and thread-safe: no state, no I/O,
// so a fuzzer can drive it on any bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qel::daemon {

struct DnsQuery {
    uint16_t id = 0;
    uint8_t opcode = 0;
    bool recursionDesired = false;
    /// The question's name as sent, in presentation form with its trailing dot (odd bytes as
    /// \DDD); an answer echoes it, case included.
    std::string name;
    /// The same name in lower case without the trailing dot, when every label is letters,
    /// digits, hyphens and underscores; empty otherwise (the root, escapes, control bytes).
    std::string hostName;
    uint16_t type = 0;
    uint16_t qclass = 0;
    /// The client sent an OPT record: its answer carries one too.
    bool edns = false;
    /// The largest UDP answer the client takes: 512, or its EDNS0 size when larger.
    uint16_t udpSize = 512;
};

class DnsQueryDecoder {
public:
    enum class Verdict {
        Query,           // a well-formed standard query with one question
        FormatError,     // answer FORMERR (query.id, opcode and recursionDesired are read)
        NotImplemented,  // another opcode: answer NOTIMP (same fields read)
        BadVersion,      // an EDNS version above 0: answer BADVERS (the whole query is read)
        Drop,            // no reply: shorter than a header, or a response (no reply loops)
    };
    struct Result {
        Verdict verdict = Verdict::Drop;
        DnsQuery query;
    };

    /// A query larger than this is malformed: a real one is a name, a type and an OPT record.
    static constexpr size_t kMaxQuery = 4096;

    static Result decode(const uint8_t* data, size_t size);
};

}  // namespace qel::daemon
