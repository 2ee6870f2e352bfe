// The DNS stub's reading of a query (DnsQueryDecoder), on any bytes. Checked on every input:
//  - shorter than a header, or a response: no reply; otherwise the refusal echoes the wire id;
//  - a query (or one answered BADVERS, which carries an OPT record) is at most kMaxQuery bytes,
//    opcode QUERY, one question on the wire, a UDP size of at least 512, a name in presentation
//    form ending in a dot;
//  - the host name is empty or the name in lower case without its dot, made of letters, digits,
//    hyphens, underscores and single dots;
//  - the name survives the way back: written again with ldns as the question of a new query,
//    it decodes to the same name, type and class (the stub echoes questions that way).
#include <cstdint>
#include <string>

// After the C++ headers: with clang, libstdc++'s headers no longer compile once ldns's are in.
#include <ldns/ldns.h>

#include "DnsQueryDecoder.h"
#include "FuzzCheck.h"

using qel::daemon::DnsQuery;
using qel::daemon::DnsQueryDecoder;

namespace {

void checkHostName(const DnsQuery& query) {
    if (query.hostName.empty()) return;
    std::string lower = query.name.substr(0, query.name.size() - 1);
    for (char& c : lower) c = (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
    fuzzCheck(query.hostName == lower, "the host name is the name in lower case without its dot");
    fuzzCheck(query.hostName.front() != '.' && query.hostName.back() != '.' &&
                  query.hostName.find("..") == std::string::npos,
              "the host name has no empty label");
    for (char c : query.hostName) {
        fuzzCheck(
            (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.',
            "the host name holds only host-name bytes");
    }
}

void checkRoundTrip(const DnsQuery& query) {
    ldns_rdf* owner = ldns_dname_new_frm_str(query.name.c_str());
    fuzzCheck(owner != nullptr, "the name reads back");
    std::string wire("\x00\x07\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00", 12);
    wire.append(reinterpret_cast<const char*>(ldns_rdf_data(owner)), ldns_rdf_size(owner));
    ldns_rdf_deep_free(owner);
    wire += {char(query.type >> 8), char(query.type), char(query.qclass >> 8), char(query.qclass)};
    const auto again =
        DnsQueryDecoder::decode(reinterpret_cast<const uint8_t*>(wire.data()), wire.size());
    fuzzCheck(again.verdict == DnsQueryDecoder::Verdict::Query && again.query.name == query.name &&
                  again.query.type == query.type && again.query.qclass == query.qclass,
              "the question written again decodes the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto result = DnsQueryDecoder::decode(data, size);
    if (size < LDNS_HEADER_SIZE || LDNS_QR_WIRE(data)) {
        fuzzCheck(result.verdict == DnsQueryDecoder::Verdict::Drop,
                  "no reply to a runt or a response");
        return 0;
    }
    fuzzCheck(result.verdict != DnsQueryDecoder::Verdict::Drop,
              "a query with a header gets a reply");
    fuzzCheck(result.query.id == ldns_read_uint16(data), "the reply echoes the id");
    const bool badVersion = result.verdict == DnsQueryDecoder::Verdict::BadVersion;
    if (result.verdict != DnsQueryDecoder::Verdict::Query && !badVersion) return 0;
    const DnsQuery& query = result.query;
    fuzzCheck(!badVersion || query.edns, "BADVERS only for a query with an OPT record");
    fuzzCheck(size <= DnsQueryDecoder::kMaxQuery, "a query is not oversized");
    fuzzCheck(LDNS_OPCODE_WIRE(data) == LDNS_PACKET_QUERY && LDNS_QDCOUNT(data) == 1,
              "a query is a standard query with one question");
    fuzzCheck(query.udpSize >= 512, "the UDP size is at least 512");
    fuzzCheck(!query.name.empty() && query.name.back() == '.', "the name ends in a dot");
    checkHostName(query);
    checkRoundTrip(query);
    return 0;
}
