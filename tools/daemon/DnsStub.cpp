#include "DnsStub.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ldns/ldns.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>

#include "DnsQueryDecoder.h"

namespace qel::daemon {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxMessage = 65535;          // what a TCP length prefix can say
constexpr size_t kPerConnInFlight = 16;        // questions one TCP connection may have waiting
constexpr size_t kMaxPendingOut = 256 * 1024;  // answers a TCP client has not read yet
constexpr uint16_t kOurUdpSize = 1232;         // what our OPT record offers (no IP fragmentation)
constexpr unsigned kBadVersion = 16;           // BADVERS, an extended RCODE ldns has no name for
// epoll keys below this name the fixed sockets; the rest are connections and relays.
constexpr uint64_t kUdpKey = 0, kTcpKey = 1, kWakeKey = 2, kFirstKey = 16;

struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    bool operator==(const Address& other) const {
        return length == other.length && std::memcmp(&storage, &other.storage, length) == 0;
    }
};

// "IP", "IP:PORT", "[IPv6]:PORT" or a bare IPv6 address (with a %scope, as resolv.conf allows).
std::optional<Address> parseAddress(const std::string& text, const char* defaultPort) {
    std::string host = text, port = defaultPort ? defaultPort : "";
    if (!text.empty() && text.front() == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos) return std::nullopt;
        host = text.substr(1, close - 1);
        const std::string rest = text.substr(close + 1);
        if (!rest.empty()) {
            if (rest.front() != ':') return std::nullopt;
            port = rest.substr(1);
        }
    } else if (std::count(text.begin(), text.end(), ':') == 1) {
        host = text.substr(0, text.find(':'));
        port = text.substr(text.find(':') + 1);
    }
    if (host.empty() || port.empty() || port.find_first_not_of("0123456789") != std::string::npos ||
        port.size() > 5 || std::stoul(port) > 65535) {
        return std::nullopt;
    }
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr) {
        return std::nullopt;
    }
    Address address;
    std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
    address.length = found->ai_addrlen;
    freeaddrinfo(found);
    return address;
}

// The IP address without the port: one client host, whichever ports its connections come from.
std::string hostOf(const Address& address) {
    if (address.storage.ss_family == AF_INET) {
        const in_addr& ip = reinterpret_cast<const sockaddr_in*>(&address.storage)->sin_addr;
        return std::string(reinterpret_cast<const char*>(&ip), sizeof ip);
    }
    const in6_addr& ip = reinterpret_cast<const sockaddr_in6*>(&address.storage)->sin6_addr;
    return std::string(reinterpret_cast<const char*>(&ip), sizeof ip);
}

std::optional<Address> firstNameserver(const std::string& resolvConf) {
    std::ifstream file(resolvConf);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string keyword, value;
        if (words >> keyword >> value && keyword == "nameserver") {
            // A bare IPv6 address has no port; an IPv4 one cannot carry one here.
            return parseAddress(value.find(':') == std::string::npos ? value + ":53" : value, "53");
        }
    }
    return std::nullopt;
}

// The server questions are relayed to; nothing when relaying is off. Throws DnsStubError.
std::optional<Address> findUpstream(const DnsStub::Options& options, int udp) {
    if (!options.forward) return std::nullopt;
    const auto server = options.upstream.empty() ? firstNameserver(options.resolvConf)
                                                 : parseAddress(options.upstream, "53");
    if (!server) {
        throw DnsStubError(options.upstream.empty()
                               ? "no nameserver in " + options.resolvConf
                               : "malformed upstream address: " + options.upstream);
    }
    // Relaying to ourselves would loop until the deadline.
    Address self;
    self.length = sizeof self.storage;
    getsockname(udp, reinterpret_cast<sockaddr*>(&self.storage), &self.length);
    if (*server == self) throw DnsStubError("the upstream server is this stub: " + options.listen);
    return server;
}

// --- messages, built with ldns --------------------------------------------------------------

struct PktFree {
    void operator()(ldns_pkt* pkt) const { ldns_pkt_free(pkt); }
};
using Pkt = std::unique_ptr<ldns_pkt, PktFree>;

Pkt replyTo(const DnsQuery& query, ldns_pkt_rcode rcode) {
    Pkt pkt(ldns_pkt_new());
    ldns_pkt_set_id(pkt.get(), query.id);
    ldns_pkt_set_qr(pkt.get(), true);
    ldns_pkt_set_opcode(pkt.get(), static_cast<ldns_pkt_opcode>(query.opcode));
    ldns_pkt_set_rd(pkt.get(), query.recursionDesired);
    ldns_pkt_set_ra(pkt.get(), true);
    ldns_pkt_set_rcode(pkt.get(), rcode);
    return pkt;
}

ldns_rdf* ownerOf(const DnsQuery& query) { return ldns_dname_new_frm_str(query.name.c_str()); }

void addQuestion(ldns_pkt* pkt, const DnsQuery& query) {
    ldns_rdf* owner = ownerOf(query);
    if (owner == nullptr) return;
    ldns_rr* rr = ldns_rr_new();
    ldns_rr_set_owner(rr, owner);
    ldns_rr_set_type(rr, static_cast<ldns_rr_type>(query.type));
    ldns_rr_set_class(rr, static_cast<ldns_rr_class>(query.qclass));
    ldns_rr_set_question(rr, true);
    ldns_pkt_push_rr(pkt, LDNS_SECTION_QUESTION, rr);
    if (query.edns) ldns_pkt_set_edns_udp_size(pkt, kOurUdpSize);
}

std::string toWire(const ldns_pkt* pkt) {
    uint8_t* buffer = nullptr;
    size_t size = 0;
    if (ldns_pkt2wire(&buffer, pkt, &size) != LDNS_STATUS_OK) return {};
    std::string wire(reinterpret_cast<const char*>(buffer), size);
    std::free(buffer);
    return wire;
}

// Header only: for a query whose question could not be read.
std::string refusal(const DnsQuery& query, ldns_pkt_rcode rcode) {
    return toWire(replyTo(query, rcode).get());
}

std::string rcodeAnswer(const DnsQuery& query, ldns_pkt_rcode rcode) {
    Pkt pkt = replyTo(query, rcode);
    addQuestion(pkt.get(), query);
    return toWire(pkt.get());
}

// An extended RCODE keeps its low 4 bits in the header and the rest in the OPT record, whose
// version tells the client the one we speak.
std::string badVersion(const DnsQuery& query) {
    Pkt pkt = replyTo(query, static_cast<ldns_pkt_rcode>(kBadVersion & 0x0f));
    addQuestion(pkt.get(), query);
    ldns_pkt_set_edns_udp_size(pkt.get(), kOurUdpSize);
    ldns_pkt_set_edns_version(pkt.get(), 0);
    ldns_pkt_set_edns_extended_rcode(pkt.get(), uint8_t(kBadVersion >> 4));
    return toWire(pkt.get());
}

std::string truncated(const DnsQuery& query) {
    Pkt pkt = replyTo(query, LDNS_RCODE_NOERROR);
    ldns_pkt_set_tc(pkt.get(), true);
    addQuestion(pkt.get(), query);
    return toWire(pkt.get());
}

std::string addressAnswer(const DnsQuery& query, const StubAnswer& answer) {
    if (answer.kind == StubAnswer::Failure) return rcodeAnswer(query, LDNS_RCODE_SERVFAIL);
    Pkt pkt = replyTo(query, LDNS_RCODE_NOERROR);
    addQuestion(pkt.get(), query);
    const bool v4 = query.type == LDNS_RR_TYPE_A;
    for (const auto& [text, ttl] : answer.addresses) {
        if (answer.kind != StubAnswer::Addresses) break;
        ldns_rdf* rdata =
            ldns_rdf_new_frm_str(v4 ? LDNS_RDF_TYPE_A : LDNS_RDF_TYPE_AAAA, text.c_str());
        ldns_rdf* owner = rdata ? ownerOf(query) : nullptr;
        if (owner == nullptr) {
            ldns_rdf_deep_free(rdata);
            continue;
        }
        ldns_rr* rr = ldns_rr_new();
        ldns_rr_set_owner(rr, owner);
        ldns_rr_set_type(rr, v4 ? LDNS_RR_TYPE_A : LDNS_RR_TYPE_AAAA);
        ldns_rr_set_class(rr, LDNS_RR_CLASS_IN);
        ldns_rr_set_ttl(rr, ttl);
        ldns_rr_push_rdf(rr, rdata);
        ldns_pkt_push_rr(pkt.get(), LDNS_SECTION_ANSWER, rr);
    }
    return toWire(pkt.get());
}

int nonBlockingSocket(int family, int type) {
    return socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

}  // namespace

// --- the answers coming back from the resolver, from any thread ---------------------------------

namespace {
// Shared by the loop and every `done` handed out, so a late `done` finds it alive; it owns the
// eventfd that wakes the loop.
struct Inbox {
    std::mutex mutex;
    std::deque<std::pair<uint64_t, StubAnswer>> answers;  // guarded by mutex
    bool open = true;                                     // guarded by mutex
    const int wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);

    ~Inbox() {
        if (wake >= 0) close(wake);
    }
    // The loop's own thread: an answer it posts (a cached name, answered while the loop handed
    // the question over) is delivered after the events at hand without waking the loop.
    std::atomic<std::thread::id> loopThread{};

    void post(uint64_t token, StubAnswer answer) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (!open) return;
            answers.emplace_back(token, std::move(answer));
        }
        if (std::this_thread::get_id() != loopThread.load(std::memory_order_relaxed)) poke();
    }
    void poke() const {
        const uint64_t one = 1;
        (void)!write(wake, &one, sizeof one);
    }
};
}  // namespace

struct DnsStub::Loop {
    struct Client {
        bool tcp = false;
        Address peer;       // UDP
        uint64_t conn = 0;  // TCP: the connection's key
    };
    struct Pending {
        Client client;
        DnsQuery query;
        Clock::time_point deadline;
        // A relayed question: its socket, what is left to send (TCP: with the length prefix),
        // the id it went out with, and the TCP answer so far.
        int relay = -1;
        bool relayTcp = false;
        std::string out, in;
        uint16_t relayId = 0;
    };
    struct Conn {
        int fd = -1;
        std::string in, out;
        size_t inFlight = 0;
        bool eof = false;
        Clock::time_point lastActive;
        std::string host;  // the client's, see hostOf
    };

    const Options& options;
    const Resolve& resolve;
    const int udp, tcp;
    const std::optional<Address> upstream;
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    const std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
    bool stopping = false;  // guarded by inbox->mutex
    uint64_t nextKey = kFirstKey;
    std::map<uint64_t, Pending> pending;
    std::map<uint64_t, Conn> conns;
    std::map<std::string, size_t> connsOfHost;  // open TCP connections by client host
    std::vector<uint8_t> udpBuffer = std::vector<uint8_t>(kMaxMessage + 1);  // one, reused
    std::mt19937 rng{std::random_device{}()};

    Loop(const Options& o, const Resolve& r, int u, int t, std::optional<Address> up)
        : options(o), resolve(r), udp(u), tcp(t), upstream(up) {}

    ~Loop() {
        for (auto& [key, conn] : conns) close(conn.fd);
        for (auto& [key, p] : pending) {
            if (p.relay >= 0) close(p.relay);
        }
        if (epoll >= 0) close(epoll);
    }

    bool watch(int fd, uint64_t key, uint32_t events, int op = EPOLL_CTL_ADD) {
        epoll_event event{};
        event.events = events;
        event.data.u64 = key;
        return epoll_ctl(epoll, op, fd, &event) == 0;
    }

    void run() {
        inbox->loopThread.store(std::this_thread::get_id(), std::memory_order_relaxed);
        std::vector<epoll_event> events(64);
        while (true) {
            {
                std::lock_guard<std::mutex> lock(inbox->mutex);
                if (stopping) {
                    inbox->open = false;
                    return;
                }
            }
            const int n = epoll_wait(epoll, events.data(), int(events.size()), waitMs());
            for (int i = 0; i < n; ++i) dispatch(events[i].data.u64, events[i].events);
            deliverAnswers();
            expire();
        }
    }

    int waitMs() const {
        auto next = Clock::time_point::max();
        for (const auto& [key, p] : pending) next = std::min(next, p.deadline);
        for (const auto& [key, c] : conns) {
            if (c.inFlight == 0) next = std::min(next, c.lastActive + options.tcpIdle);
        }
        if (next == Clock::time_point::max()) return -1;
        const auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()).count();
        return int(std::clamp<long long>(ms, 0, 60000));
    }

    void dispatch(uint64_t key, uint32_t events) {
        if (key == kUdpKey) return readUdp();
        if (key == kTcpKey) return acceptTcp();
        if (key == kWakeKey) return drainInbox();
        if (conns.count(key)) return serveConn(key, events);
        auto found = pending.find(key);
        if (found != pending.end()) serveRelay(found, events);
    }

    // --- clients ---------------------------------------------------------------------------------

    void readUdp() {
        std::vector<uint8_t>& buffer = udpBuffer;
        for (int i = 0; i < 64; ++i) {  // then let the other sockets have a turn
            Client client;
            client.peer.length = sizeof client.peer.storage;
            const ssize_t n =
                recvfrom(udp, buffer.data(), buffer.size(), MSG_TRUNC,
                         reinterpret_cast<sockaddr*>(&client.peer.storage), &client.peer.length);
            if (n < 0) return;
            handle(client, buffer.data(), std::min(size_t(n), buffer.size()));
        }
    }

    void acceptTcp() {
        while (true) {
            Address peer;
            peer.length = sizeof peer.storage;
            const int fd = accept4(tcp, reinterpret_cast<sockaddr*>(&peer.storage), &peer.length,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) return;
            const uint64_t key = nextKey++;
            std::string host = hostOf(peer);
            if (!roomForConn(host) || !watch(fd, key, EPOLLIN)) {
                close(fd);
                continue;
            }
            ++connsOfHost[host];
            conns[key] = Conn{fd, {}, {}, 0, false, Clock::now(), std::move(host)};
        }
    }

    bool roomForConn(const std::string& host) const {
        if (conns.size() >= options.maxTcpConnections) return false;
        const auto found = connsOfHost.find(host);
        return found == connsOfHost.end() || found->second < options.maxTcpPerPeer;
    }

    void serveConn(uint64_t key, uint32_t events) {
        Conn& conn = conns[key];
        if (events & (EPOLLERR | EPOLLHUP) && !(events & EPOLLIN)) return closeConn(key);
        if (events & EPOLLOUT) flush(key);
        if (!conns.count(key)) return;
        if (events & EPOLLIN) {
            char chunk[4096];
            const ssize_t n = read(conn.fd, chunk, sizeof chunk);
            if (n > 0) {
                conn.in.append(chunk, size_t(n));
                conn.lastActive = Clock::now();
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                conn.eof = true;
            }
        }
        readFrames(key);
    }

    void readFrames(uint64_t key) {
        Conn& conn = conns[key];
        while (conn.inFlight < kPerConnInFlight && conn.in.size() >= 2) {
            const size_t length = uint8_t(conn.in[0]) << 8 | uint8_t(conn.in[1]);
            // A frame this long or empty cannot be a query, and the stream cannot be trusted
            // to find the next one.
            if (length == 0 || length > DnsQueryDecoder::kMaxQuery) return closeConn(key);
            if (conn.in.size() < 2 + length) break;
            const std::string frame = conn.in.substr(2, length);
            conn.in.erase(0, 2 + length);
            Client client;
            client.tcp = true;
            client.conn = key;
            handle(client, reinterpret_cast<const uint8_t*>(frame.data()), frame.size());
            if (!conns.count(key)) return;
        }
        updateConn(key);
    }

    // Reads while there is room for another question; closes once a client that finished
    // sending has its answers.
    void updateConn(uint64_t key) {
        Conn& conn = conns[key];
        if (conn.eof && conn.inFlight == 0 && conn.out.empty()) return closeConn(key);
        uint32_t events = 0;
        if (!conn.eof && conn.inFlight < kPerConnInFlight &&
            conn.in.size() < 2 + DnsQueryDecoder::kMaxQuery) {
            events |= EPOLLIN;
        }
        if (!conn.out.empty()) events |= EPOLLOUT;
        watch(conn.fd, key, events, EPOLL_CTL_MOD);
    }

    void flush(uint64_t key) {
        Conn& conn = conns[key];
        while (!conn.out.empty()) {
            const ssize_t n = send(conn.fd, conn.out.data(), conn.out.size(), MSG_NOSIGNAL);
            if (n < 0) {
                if (errno == EAGAIN || errno == EINTR) return;
                return closeConn(key);
            }
            conn.out.erase(0, size_t(n));
            conn.lastActive = Clock::now();
        }
    }

    void closeConn(uint64_t key) {
        const Conn& conn = conns[key];
        close(conn.fd);
        if (--connsOfHost[conn.host] == 0) connsOfHost.erase(conn.host);
        conns.erase(key);
    }

    void sendTo(const Client& client, std::string message, const DnsQuery& query) {
        if (message.empty()) message = rcodeAnswer(query, LDNS_RCODE_SERVFAIL);
        if (!client.tcp) {
            if (message.size() > query.udpSize) message = truncated(query);
            sendto(udp, message.data(), message.size(), 0, client.peer.get(), client.peer.length);
            return;
        }
        auto found = conns.find(client.conn);
        if (found == conns.end()) return;  // the client left; the answer has no one to go to
        if (message.size() > kMaxMessage) message = rcodeAnswer(query, LDNS_RCODE_SERVFAIL);
        found->second.out += char(message.size() >> 8);
        found->second.out += char(message.size() & 0xff);
        found->second.out += message;
        if (found->second.out.size() > kMaxPendingOut) return closeConn(client.conn);
        flush(client.conn);
    }

    // --- questions -------------------------------------------------------------------------------

    void handle(const Client& client, const uint8_t* data, size_t size) {
        const DnsQueryDecoder::Result decoded = DnsQueryDecoder::decode(data, size);
        const DnsQuery& query = decoded.query;
        switch (decoded.verdict) {
            case DnsQueryDecoder::Verdict::Drop: return;
            case DnsQueryDecoder::Verdict::FormatError:
                return sendTo(client, refusal(query, LDNS_RCODE_FORMERR), query);
            case DnsQueryDecoder::Verdict::NotImplemented:
                return sendTo(client, refusal(query, LDNS_RCODE_NOTIMPL), query);
            case DnsQueryDecoder::Verdict::BadVersion:
                return sendTo(client, badVersion(query), query);
            case DnsQueryDecoder::Verdict::Query: break;
        }
        const bool address = query.qclass == LDNS_RR_CLASS_IN && !query.hostName.empty() &&
                             (query.type == LDNS_RR_TYPE_A || query.type == LDNS_RR_TYPE_AAAA);
        if (!address && !options.forward) {
            return sendTo(client, rcodeAnswer(query, LDNS_RCODE_REFUSED), query);
        }
        if (pending.size() >= options.maxInFlight) {
            return sendTo(client, rcodeAnswer(query, LDNS_RCODE_SERVFAIL), query);
        }
        const uint64_t token = nextKey++;
        Pending& p = pending[token];
        p.client = client;
        p.query = query;
        if (client.tcp) conns[client.conn].inFlight++;
        if (!address) {
            p.deadline = Clock::now() + options.upstreamTimeout;
            return relay(token, data, size);
        }
        p.deadline = Clock::now() + options.resolveTimeout;
        std::function<void(StubAnswer)> done = [inbox = inbox, token](StubAnswer answer) {
            inbox->post(token, std::move(answer));
        };
        try {
            resolve(query.hostName, query.type == LDNS_RR_TYPE_A ? 4 : 6, std::move(done));
        } catch (...) {
            inbox->post(token, StubAnswer{});  // a failure, answered like any other
        }
    }

    void drainInbox() {
        uint64_t count;
        (void)!read(inbox->wake, &count, sizeof count);
        deliverAnswers();
    }

    void deliverAnswers() {
        std::deque<std::pair<uint64_t, StubAnswer>> answers;
        {
            std::lock_guard<std::mutex> lock(inbox->mutex);
            answers.swap(inbox->answers);
        }
        for (const auto& [token, answer] : answers) {
            auto found = pending.find(token);
            if (found == pending.end() || found->second.relay >= 0)
                continue;  // answered at its deadline
            finish(found, addressAnswer(found->second.query, answer));
        }
    }

    void finish(std::map<uint64_t, Pending>::iterator found, std::string message) {
        const Pending p = std::move(found->second);
        pending.erase(found);
        if (p.relay >= 0) close(p.relay);
        sendTo(p.client, std::move(message), p.query);
        if (p.client.tcp && conns.count(p.client.conn)) {
            conns[p.client.conn].inFlight--;
            readFrames(p.client.conn);
        }
    }

    // Keys first: finishing one question can start or end others.
    void expire() {
        const auto now = Clock::now();
        std::vector<uint64_t> late, idle;
        for (const auto& [key, p] : pending) {
            if (p.deadline <= now) late.push_back(key);
        }
        for (uint64_t key : late) {
            auto found = pending.find(key);
            if (found != pending.end()) {
                finish(found, rcodeAnswer(found->second.query, LDNS_RCODE_SERVFAIL));
            }
        }
        for (const auto& [key, conn] : conns) {
            if (conn.inFlight == 0 && now - conn.lastActive >= options.tcpIdle) idle.push_back(key);
        }
        for (uint64_t key : idle) {
            if (conns.count(key)) closeConn(key);
        }
    }

    // --- relaying to the upstream server ---------------------------------------------------------

    void relay(uint64_t token, const uint8_t* data, size_t size) {
        Pending& p = pending[token];
        p.relayTcp = p.client.tcp;
        p.relayId = uint16_t(rng());
        std::string message(reinterpret_cast<const char*>(data), size);
        message[0] = char(p.relayId >> 8);
        message[1] = char(p.relayId & 0xff);
        if (p.relayTcp) message.insert(0, std::string{char(size >> 8), char(size & 0xff)});
        p.out = std::move(message);
        p.relay = upstream ? nonBlockingSocket(upstream->storage.ss_family,
                                               p.relayTcp ? SOCK_STREAM : SOCK_DGRAM)
                           : -1;
        if (p.relay < 0 ||
            (connect(p.relay, upstream->get(), upstream->length) != 0 && errno != EINPROGRESS) ||
            !watch(p.relay, token, EPOLLOUT)) {
            return finish(pending.find(token), {});
        }
    }

    void serveRelay(std::map<uint64_t, Pending>::iterator found, uint32_t events) {
        Pending& p = found->second;
        if (events & EPOLLOUT && !p.out.empty()) {
            int error = 0;
            socklen_t length = sizeof error;
            getsockopt(p.relay, SOL_SOCKET, SO_ERROR, &error, &length);
            const ssize_t n = error ? -1 : send(p.relay, p.out.data(), p.out.size(), MSG_NOSIGNAL);
            if (error != 0 || (n < 0 && errno != EAGAIN)) return finish(found, {});
            if (n > 0) p.out.erase(0, size_t(n));
            if (p.out.empty()) watch(p.relay, found->first, EPOLLIN, EPOLL_CTL_MOD);
            return;
        }
        if (!(events & (EPOLLIN | EPOLLERR | EPOLLHUP))) return;
        std::string answer;
        if (p.relayTcp) {
            char chunk[4096];
            const ssize_t n = read(p.relay, chunk, sizeof chunk);
            if (n <= 0) {
                if (n < 0 && errno == EAGAIN) return;
                return finish(found, {});
            }
            p.in.append(chunk, size_t(n));
            if (p.in.size() < 2) return;
            const size_t length = uint8_t(p.in[0]) << 8 | uint8_t(p.in[1]);
            if (p.in.size() < 2 + length) return;
            answer = p.in.substr(2, length);
        } else {
            answer.resize(kMaxMessage);
            const ssize_t n = recv(p.relay, answer.data(), answer.size(), 0);
            if (n < 0) {
                if (errno == EAGAIN) return;
                return finish(found, {});  // e.g. ICMP port unreachable
            }
            answer.resize(size_t(n));
        }
        // Only the answer to what we sent: the id we chose, marked as a response.
        if (answer.size() < LDNS_HEADER_SIZE || ldns_read_uint16(answer.data()) != p.relayId ||
            !LDNS_QR_WIRE(reinterpret_cast<const uint8_t*>(answer.data()))) {
            if (p.relayTcp) return finish(found, {});
            return;
        }
        answer[0] = char(p.query.id >> 8);
        answer[1] = char(p.query.id & 0xff);
        finish(found, std::move(answer));
    }
};

// --- the owner's side ----------------------------------------------------------------------------

namespace {

uint16_t portOf(const Address& address) {
    return ntohs(address.storage.ss_family == AF_INET
                     ? reinterpret_cast<const sockaddr_in*>(&address.storage)->sin_port
                     : reinterpret_cast<const sockaddr_in6*>(&address.storage)->sin6_port);
}

// A UDP and a TCP socket bound to `listen`'s one port, `bound` set to it. For port 0 the kernel
// picks the UDP port, which may be taken in TCP: a few ports are tried then. False with errno
// set (and both sockets -1) when it cannot.
bool bindBoth(const Address& listen, int& udp, int& tcp, Address& bound) {
    const int on = 1;
    for (int attempt = 0; attempt < 16; ++attempt) {
        udp = nonBlockingSocket(listen.storage.ss_family, SOCK_DGRAM);
        tcp = nonBlockingSocket(listen.storage.ss_family, SOCK_STREAM);
        if (tcp >= 0) setsockopt(tcp, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (listen.storage.ss_family == AF_INET6) {
            // [::] means IPv6 only: an IPv4 listener is a second stub.
            if (udp >= 0) setsockopt(udp, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
            if (tcp >= 0) setsockopt(tcp, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        }
        bound = listen;
        if (udp >= 0 && tcp >= 0 && bind(udp, listen.get(), listen.length) == 0 &&
            getsockname(udp, reinterpret_cast<sockaddr*>(&bound.storage), &bound.length) == 0 &&
            bind(tcp, bound.get(), bound.length) == 0 && ::listen(tcp, 64) == 0) {
            return true;
        }
        const int error = errno;
        if (udp >= 0) close(udp);
        if (tcp >= 0) close(tcp);
        udp = tcp = -1;
        errno = error;
        if (portOf(listen) != 0 || error != EADDRINUSE) return false;
    }
    return false;
}

}  // namespace

DnsStub::DnsStub(Options options, Resolve resolve)
    : options_(std::move(options)), resolve_(std::move(resolve)) {
    const auto listen = parseAddress(options_.listen, nullptr);
    if (!listen) throw DnsStubError("malformed listening address: " + options_.listen);
    Address bound = *listen;
    if (!bindBoth(*listen, udp_, tcp_, bound)) {
        throw DnsStubError("cannot listen on " + options_.listen + ": " + std::strerror(errno));
    }
    port_ = portOf(bound);
    try {
        findUpstream(options_, udp_);  // a bad one fails here, not at start()
    } catch (...) {
        close(udp_);
        close(tcp_);
        throw;
    }
}

DnsStub::~DnsStub() {
    stop();
    close(udp_);
    close(tcp_);
}

void DnsStub::start() {
    if (loop_) return;
    auto loop =
        std::make_unique<Loop>(options_, resolve_, udp_, tcp_, findUpstream(options_, udp_));
    if (loop->epoll < 0 || loop->inbox->wake < 0 || !loop->watch(udp_, kUdpKey, EPOLLIN) ||
        !loop->watch(tcp_, kTcpKey, EPOLLIN) ||
        !loop->watch(loop->inbox->wake, kWakeKey, EPOLLIN)) {
        throw DnsStubError(std::string("cannot start the DNS stub: ") + std::strerror(errno));
    }
    loop_ = std::move(loop);
    thread_ = std::thread([loop = loop_.get()] { loop->run(); });
}

void DnsStub::stop() {
    if (!loop_) return;
    {
        std::lock_guard<std::mutex> lock(loop_->inbox->mutex);
        loop_->stopping = true;
    }
    loop_->inbox->poke();
    thread_.join();
    loop_.reset();
}

}  // namespace qel::daemon
