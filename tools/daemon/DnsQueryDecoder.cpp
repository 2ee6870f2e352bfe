#include "DnsQueryDecoder.h"

#include <ldns/ldns.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace qel::daemon {

namespace {

struct PktFree {
    void operator()(ldns_pkt* pkt) const { ldns_pkt_free(pkt); }
};

bool isHostByte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
}

// ldns escapes every byte that is not plain in presentation form, so a name free of
// backslashes holds only the bytes it shows.
std::string hostNameOf(const std::string& presentation) {
    if (presentation.size() < 2 ||
        !std::all_of(presentation.begin(), presentation.end(), isHostByte)) {
        return {};
    }
    std::string host = presentation.substr(0, presentation.size() - 1);
    if (host.find("..") != std::string::npos || host.front() == '.') return {};
    std::transform(host.begin(), host.end(), host.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; });
    return host;
}

}  // namespace

DnsQueryDecoder::Result DnsQueryDecoder::decode(const uint8_t* data, size_t size) {
    Result result;
    if (data == nullptr || size < LDNS_HEADER_SIZE) return result;
    // The header fields a refusal echoes; read by hand since ldns reads all or nothing.
    result.query.id = ldns_read_uint16(data);
    result.query.opcode = LDNS_OPCODE_WIRE(data);
    result.query.recursionDesired = LDNS_RD_WIRE(data);
    if (LDNS_QR_WIRE(data)) return result;
    result.verdict = Verdict::FormatError;
    if (size > kMaxQuery) return result;
    if (result.query.opcode != LDNS_PACKET_QUERY) {
        result.verdict = Verdict::NotImplemented;
        return result;
    }
    ldns_pkt* raw = nullptr;
    if (ldns_wire2pkt(&raw, data, size) != LDNS_STATUS_OK) return result;
    const std::unique_ptr<ldns_pkt, PktFree> pkt(raw);
    if (ldns_pkt_qdcount(pkt.get()) != 1 ||
        ldns_rr_list_rr_count(ldns_pkt_question(pkt.get())) != 1) {
        return result;
    }
    const ldns_rr* question = ldns_rr_list_rr(ldns_pkt_question(pkt.get()), 0);
    char* text = ldns_rdf2str(ldns_rr_owner(question));
    if (text == nullptr) return result;
    result.query.name = text;
    std::free(text);
    result.query.hostName = hostNameOf(result.query.name);
    result.query.type = static_cast<uint16_t>(ldns_rr_get_type(question));
    result.query.qclass = static_cast<uint16_t>(ldns_rr_get_class(question));
    result.query.edns = ldns_pkt_edns(pkt.get());
    if (result.query.edns) {
        result.query.udpSize = std::max<uint16_t>(512, ldns_pkt_edns_udp_size(pkt.get()));
    }
    // Only EDNS version 0 exists; a client asking in a later one expects to be told to step down.
    result.verdict = result.query.edns && ldns_pkt_edns_version(pkt.get()) > 0 ? Verdict::BadVersion
                                                                               : Verdict::Query;
    return result;
}

}  // namespace qel::daemon
