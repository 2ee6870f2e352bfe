#include "Service.h"

#include <algorithm>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "Signature.h"

namespace qel::server {

namespace {

using nlohmann::json;
using Reply = Service::Reply;

// Appends `text` as a JSON string. Plain printable ASCII, what nearly every field is, is copied
// as it is; anything else goes through the JSON library, which escapes it and replaces bytes
// that are not UTF-8 (names arrive as any bytes), so the answer stays valid JSON.
void appendString(std::string& out, const std::string& text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
    });
    if (plain) {
        out += '"';
        out += text;
        out += '"';
    } else {
        out += json(text).dump(-1, ' ', false, json::error_handler_t::replace);
    }
}

void appendList(std::string& out, const std::vector<std::string>& items) {
    out += '[';
    for (size_t i = 0; i < items.size(); ++i) {
        if (i) out += ',';
        appendString(out, items[i]);
    }
    out += ']';
}

Reply refusal(int status, const std::string& message, std::string account = {}) {
    // Written by hand, as every answer: building a JSON tree costs more than the checks.
    std::string body = "{\"message\":";
    appendString(body, message);
    body += ",\"status\":" + std::to_string(status) + "}";
    return {status, std::move(body), {}, std::move(account), logQuoted(message)};
}

// "MD5 <32 hex digits>" gives the digits; anything else gives nothing.
std::optional<std::string> signatureOf(const std::string& authorization) {
    constexpr char kScheme[] = "MD5 ";
    if (authorization.compare(0, sizeof kScheme - 1, kScheme) != 0) return std::nullopt;
    return authorization.substr(sizeof kScheme - 1);
}

std::optional<int64_t> parseMilliseconds(const std::string& text) {
    if (text.empty() || text.size() > 19) return std::nullopt;
    const size_t digits = text[0] == '-' ? 1 : 0;
    if (digits == text.size() ||
        text.find_first_not_of("0123456789", digits) != std::string::npos) {
        return std::nullopt;
    }
    return std::strtoll(text.c_str(), nullptr, 10);
}

}  // namespace

int64_t Service::systemMilliseconds() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

Service::Service(Accounts accounts, Zone zone, AccessLog& log, Clock clock)
    : log_(log), clock_(std::move(clock)) {
    auto state = std::make_shared<State>();
    state->accounts = std::make_shared<const Accounts>(std::move(accounts));
    state->zone = std::make_shared<const Zone>(std::move(zone));
    state_ = std::move(state);
}

std::shared_ptr<const Service::State> Service::snapshot() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
}

void Service::change(const std::function<void(State&)>& edit) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto changed = std::make_shared<State>(*state_);
    edit(*changed);
    state_ = std::move(changed);
}

void Service::setNodes(std::vector<std::string> nodes) {
    change([&](State& state) { state.nodes = std::move(nodes); });
}

void Service::setWindow(std::chrono::milliseconds window) {
    change([&](State& state) { state.window = window; });
}

void Service::setAccounts(Accounts accounts) {
    auto shared = std::make_shared<const Accounts>(std::move(accounts));
    change([&](State& state) { state.accounts = std::move(shared); });
}

void Service::setZone(Zone zone) {
    auto shared = std::make_shared<const Zone>(std::move(zone));
    change([&](State& state) { state.zone = std::move(shared); });
}

void Service::setUpstream(std::unique_ptr<Upstream> upstream) { upstream_ = std::move(upstream); }

Reply Service::answer(const std::string& method, const std::string& rawTarget,
                      const std::string& authorization) const {
    const RequestTarget target = parseTarget(rawTarget);
    Reply reply = answer(method, target, authorization);
    reply.path = target.path;
    return reply;
}

Reply Service::answer(const std::string& method, const RequestTarget& target,
                      const std::string& authorization) const {
    // "/<AuthId>/service" or "/<AuthId>/resolve"; the AuthId is all that lies between.
    const size_t last = target.path.rfind('/');
    const std::string endpoint = last == std::string::npos ? "" : target.path.substr(last + 1);
    const std::string authId =
        last == std::string::npos || last < 1 ? "" : target.path.substr(1, last - 1);
    if (target.controlBytes) {
        return refusal(400, "control characters are not allowed in the path or query", authId);
    }
    if (target.path.empty() || target.path[0] != '/' || authId.empty() || target.encodedSlash ||
        (endpoint != "service" && endpoint != "resolve")) {
        return refusal(404,
                       "no such endpoint: the paths are /<AuthId>/service and /<AuthId>/resolve");
    }
    if (method != "GET") return refusal(405, "method " + method + " not allowed: use GET", authId);

    const auto state = snapshot();
    const auto secret = state->accounts->secretOf(authId);
    if (!secret) return refusal(403, "unknown account", authId);
    return endpoint == "service" ? login(*state, authId, *secret, target, authorization)
                                 : resolve(*state, authId, *secret, target, authorization);
}

std::string Service::timestampProblem(const State& state, const std::string& timestamp) const {
    const auto sent = parseMilliseconds(timestamp);
    if (!sent) return "timestamp is not a number of milliseconds";
    const std::chrono::milliseconds window = state.window;
    const int64_t offset = *sent - clock_();
    if (std::llabs(offset) <= window.count()) return {};
    return "timestamp outside the accepted window: " + std::to_string(offset / 1000) +
           " s from the server's clock, at most " + std::to_string(window.count() / 1000) +
           " s allowed";
}

Reply Service::login(const State& state, const std::string& authId, const std::string& secret,
                     const RequestTarget& target, const std::string& authorization) const {
    const auto timestamp = target.param("timestamp"), appId = target.param("app_id");
    if (!timestamp || !appId) return refusal(400, "timestamp and app_id are required", authId);
    const auto signature = signatureOf(authorization);
    if (!signature) return refusal(403, "missing Authorization header 'MD5 <signature>'", authId);
    if (!sameSignature(*signature, loginSignature(*appId, *timestamp, secret))) {
        return refusal(403, "signature mismatch", authId);
    }
    if (auto problem = timestampProblem(state, *timestamp); !problem.empty()) {
        return refusal(403, problem, authId);
    }
    const std::vector<std::string>& nodes = state.nodes;
    if (nodes.empty()) return refusal(503, "no resolve node configured", authId);
    std::string body = "{\"auth_id\":";
    appendString(body, authId);
    body += ",\"best_service_node\":";
    appendString(body, nodes.front());
    body += ",\"service_node_list\":";
    appendList(body, nodes);
    body += '}';
    return {200,
            std::move(body),
            {},
            authId,
            "app_id=" + logSafe(*appId) + " nodes=" + std::to_string(nodes.size())};
}

Reply Service::resolve(const State& state, const std::string& authId, const std::string& secret,
                       const RequestTarget& target, const std::string& authorization) const {
    const auto timestamp = target.param("timestamp"), host = target.param("host"),
               type = target.param("type"), appId = target.param("app_id");
    if (!timestamp || !host || !type || !appId) {
        return refusal(400, "timestamp, host, type and app_id are required", authId);
    }
    const auto signature = signatureOf(authorization);
    if (!signature) return refusal(403, "missing Authorization header 'MD5 <signature>'", authId);
    if (!sameSignature(*signature, resolveSignature(*appId, *host, *timestamp, *type, secret))) {
        return refusal(403, "signature mismatch", authId);
    }
    if (auto problem = timestampProblem(state, *timestamp); !problem.empty()) {
        return refusal(403, problem, authId);
    }
    if (*type != "1" && *type != "2")
        return refusal(400, "type must be 1 (IPv4) or 2 (IPv6)", authId);
    if (host->empty()) return refusal(400, "host is empty", authId);

    const AddressType addressType = *type == "1" ? AddressType::V4 : AddressType::V6;
    const std::shared_ptr<const Zone>& zone = state.zone;
    AddressSet found;
    std::string source = "zone";
    if (zone->lookup(*host, addressType, found)) {
        // The zone holds the name: its answer stands, even without addresses of the type.
    } else if (upstream_) {
        source = "upstream";
        Upstream::Result result = upstream_->resolve(Zone::canonicalName(*host), addressType);
        if (result.kind == Upstream::Result::Failed) {
            return refusal(
                502,
                "upstream DNS server " + upstream_->server().text() + " failed: " + result.error,
                authId);
        }
        found = std::move(result.addresses);
    } else {
        source = "none";
    }
    std::string detail = "host=" + logSafe(*host) + " type=" + *type + " source=" + source +
                         " addresses=" + std::to_string(found.addresses.size()) +
                         " ttl=" + std::to_string(found.ttl);
    // An empty "ip_list" is the answer for a name without addresses of the type asked for.
    std::string body = "{\"host\":";
    appendString(body, *host);
    body += ",\"ip_list\":";
    appendList(body, found.addresses);
    body += ",\"ttl\":" + std::to_string(found.ttl) + "}";
    return {200, std::move(body), {}, authId, std::move(detail)};
}

Reply Service::handle(const Request& request) const {
    const auto start = std::chrono::steady_clock::now();
    Reply reply =
        request.headerFields > kMaxHeaderFields
            ? refusal(431, "too many header fields: at most " + std::to_string(kMaxHeaderFields))
            : answer(request.method, request.target, request.authorization);
    AccessRecord record;
    record.remote = request.remote;
    record.account = logSafe(reply.account);
    record.method = logSafe(request.method);
    record.path = logSafe(reply.path);
    record.status = reply.status;
    record.duration = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - start);
    record.detail = reply.detail;
    log_.access(record);
    return reply;
}

}  // namespace qel::server
