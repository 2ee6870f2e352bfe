// The service's two endpoints, independent of how requests arrive:
//   GET /<AuthId>/service?timestamp=T&app_id=A       login: the resolve nodes
//   GET /<AuthId>/resolve?timestamp=T&host=H&type=N&app_id=A   the addresses of H
// Each request must name a known account, carry "Authorization: MD5 <signature>" recomputed
// from its fields and the account's secret, and a timestamp (milliseconds) within the window
// around this server's clock. A refusal is the JSON {"status": N, "message": "..."} with the
// same HTTP status; 403 for the account, signature and timestamp checks.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AccessLog.h"
#include "Accounts.h"
#include "RequestTarget.h"
#include "Upstream.h"
#include "Zone.h"

namespace qel::server {

class Service {
public:
    /// Milliseconds since 1970.
    using Clock = std::function<int64_t()>;
    static int64_t systemMilliseconds();

    struct Reply {
        int status = 200;
        std::string body;     // JSON
        std::string path;     // decoded, for the log
        std::string account;  // from the path, for the log
        std::string detail;   // for the log
    };

    /// One request as it arrived, whatever carried it.
    struct Request {
        std::string method;
        std::string target;         // path and query as received, still escaped
        std::string authorization;  // the Authorization header, empty when absent
        std::string remote;         // "127.0.0.1:54321", "[::1]:54321"
        size_t headerFields = 0;
    };
    /// More header fields than this in one request are refused (431).
    static constexpr size_t kMaxHeaderFields = 64;

    Service(Accounts accounts, Zone zone, AccessLog& log, Clock clock = systemMilliseconds);

    /// The nodes a login hands out, in order; the first is "best_service_node".
    void setNodes(std::vector<std::string> nodes);
    /// How far a request's timestamp may be from this server's clock, either way.
    void setWindow(std::chrono::milliseconds window);
    /// Replace the accounts / zone; requests under way finish with what they started with.
    void setAccounts(Accounts accounts);
    void setZone(Zone zone);
    /// Names outside the zone go to this DNS server (none: they have no addresses).
    void setUpstream(std::unique_ptr<Upstream> upstream);

    /// The answer to one request; `target` is path and query as received (still escaped).
    Reply answer(const std::string& method, const std::string& target,
                 const std::string& authorization) const;

    /// Answers a request and writes its access line. Any thread.
    Reply handle(const Request& request) const;

private:
    struct State;
    Reply answer(const std::string& method, const RequestTarget& target,
                 const std::string& authorization) const;
    Reply login(const State& state, const std::string& authId, const std::string& secret,
                const RequestTarget& target, const std::string& authorization) const;
    Reply resolve(const State& state, const std::string& authId, const std::string& secret,
                  const RequestTarget& target, const std::string& authorization) const;
    /// Empty when `timestamp` is a number within the window; else why not.
    std::string timestampProblem(const State& state, const std::string& timestamp) const;

    AccessLog& log_;
    const Clock clock_;
    std::unique_ptr<Upstream> upstream_;  // set before serving

    // What a request is answered with, replaced whole: a request takes one snapshot, so it
    // holds the lock once, briefly, and a reload never changes it halfway.
    struct State {
        std::shared_ptr<const Accounts> accounts;
        std::shared_ptr<const Zone> zone;
        std::vector<std::string> nodes;
        std::chrono::milliseconds window{std::chrono::minutes(5)};
    };
    std::shared_ptr<const State> snapshot() const;
    void change(const std::function<void(State&)>& edit);

    mutable std::mutex mutex_;
    std::shared_ptr<const State> state_;  // guarded by mutex_
};

}  // namespace qel::server
