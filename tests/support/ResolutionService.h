// A resolution service for end-to-end tests: the login and resolve endpoints of one account on
// a loopback server. Every request's MD5 signature is recomputed here, independently of the
// library's signer, and a mismatch is answered with "status" 403. Names resolve from a zone the
// test fills; the test can script the next answers of either endpoint (a "status", a stall
// until the client or the service gives up, a connection dropped before the body).
#pragma once

#include <nlohmann/json.hpp>

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "support/LoopbackHttpServer.h"

namespace qel::test {

class ResolutionService {
    using Lock = std::lock_guard<std::mutex>;

public:
    struct Behaviour {
        enum Kind { Answer, Status, Stall, Drop } kind = Answer;
        int status = 0;
        std::string message;
    };
    static Behaviour status(int code, std::string message = "refused") { return {Behaviour::Status, code, std::move(message)}; }
    static Behaviour stall() { return {Behaviour::Stall, 0, {}}; }
    static Behaviour drop() { return {Behaviour::Drop, 0, {}}; }

    ResolutionService(std::string authId, std::string authSecret, std::string appId);

    /// "http://127.0.0.1:<port>": the login URL, and the default resolve node.
    std::string baseUrl() const { return server_.url(""); }

    /// The answer of `host`'s lookups from now on.
    void setAddresses(const std::string& host, std::vector<std::string> ips, int ttl = 600) {
        Lock lock(mutex_);
        zone_[host] = {{"host", host}, {"ip_list", std::move(ips)}, {"ttl", ttl}};
    }
    /// The nodes a successful login hands out (default: this server, best and only node).
    void setNodes(std::string best, std::vector<std::string> list) {
        Lock lock(mutex_);
        nodes_ = {{"auth_id", authId_}, {"best_service_node", std::move(best)}, {"service_node_list", std::move(list)}};
    }
    /// Behaviours of the next login / resolve requests, in order; then normal answers again.
    void scriptLogins(std::vector<Behaviour> behaviours) { script(loginScript_, behaviours); }
    void scriptResolves(std::vector<Behaviour> behaviours) { script(resolveScript_, behaviours); }

    /// The best node a successful login hands out now.
    std::string bestNode() const { return read(nodes_)["best_service_node"]; }
    size_t logins() const { return read(logins_); }
    /// The hosts of the resolve requests received, in order of arrival.
    std::vector<std::string> resolvedHosts() const { return read(resolvedHosts_); }
    /// Requests whose signature, timestamp or app id did not check out, or that carried the secret.
    size_t badSignatures() const { return read(badSignatures_); }

private:
    template <typename T>
    T read(const T& field) const {
        Lock lock(mutex_);
        return field;
    }
    void script(std::deque<Behaviour>& script, const std::vector<Behaviour>& behaviours) {
        Lock lock(mutex_);
        script.assign(behaviours.begin(), behaviours.end());
    }
    LoopbackHttpServer::Reply answer(const LoopbackHttpServer::Request& request, std::deque<Behaviour>& script,
                                     const std::string& host, const nlohmann::json& body);

    const std::string authId_, authSecret_, appId_;

    mutable std::mutex mutex_;
    std::map<std::string, nlohmann::json> zone_;         // guarded by mutex_
    nlohmann::json nodes_;                               // guarded by mutex_
    std::deque<Behaviour> loginScript_, resolveScript_;  // guarded by mutex_
    size_t logins_ = 0, badSignatures_ = 0;              // guarded by mutex_
    std::vector<std::string> resolvedHosts_;             // guarded by mutex_
    // Last, so that it stops serving (and joins its threads) before the state its handlers
    // use is destroyed: a request may still be in flight when the service ends.
    LoopbackHttpServer server_;
};

}  // namespace qel::test
