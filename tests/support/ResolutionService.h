// A resolution service for end-to-end tests: the login and resolve endpoints of one account on
// a real loopback HTTP server. Every request's MD5 signature is recomputed here, independently
// of the library's signer, and a mismatch is answered with "status" 403. Names resolve from a
// zone the test fills; the test can script the next answers of either endpoint (a "status",
// a stall until the server ends, a connection dropped in the middle of the body).
#pragma once

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "support/LoopbackHttpServer.h"

namespace qel::test {

class ResolutionService {
public:
    struct Behaviour {
        enum Kind { Answer, Status, Stall, Drop } kind = Answer;
        int status = 0;
        std::string message;
    };
    static Behaviour status(int code, std::string message = "refused") {
        return {Behaviour::Status, code, std::move(message)};
    }
    static Behaviour stall() { return {Behaviour::Stall, 0, {}}; }
    static Behaviour drop() { return {Behaviour::Drop, 0, {}}; }

    ResolutionService(std::string authId, std::string authSecret, std::string appId);
    /// Ends the stalls, then the server.
    ~ResolutionService();

    /// "http://127.0.0.1:<port>": the login URL, and the default resolve node.
    std::string baseUrl() const { return server_.url(""); }

    /// The answer of `host`'s lookups from now on.
    void setAddresses(const std::string& host, std::vector<std::string> ips, int ttl = 600);
    /// The nodes a successful login hands out (default: this server, best and only node).
    void setNodes(std::string best, std::vector<std::string> list);
    /// Behaviours of the next login / resolve requests, in order; then normal answers again.
    void scriptLogins(std::vector<Behaviour> behaviours);
    void scriptResolves(std::vector<Behaviour> behaviours);

    /// The best node a successful login hands out now.
    std::string bestNode() const;
    size_t logins() const;
    /// The hosts of the resolve requests received, in order of arrival.
    std::vector<std::string> resolvedHosts() const;
    /// Requests whose signature, timestamp or app id did not check out.
    size_t badSignatures() const;

private:
    void answerLogin(const httplib::Request& request, httplib::Response& response);
    void answerResolve(const httplib::Request& request, httplib::Response& response);
    Behaviour next(std::deque<Behaviour>& script);
    bool signatureMatches(const httplib::Request& request, const std::string& signedText);
    void behave(const Behaviour& behaviour, const nlohmann::json& answer, httplib::Response& response);

    const std::string authId_, authSecret_, appId_;

    mutable std::mutex mutex_;
    std::map<std::string, nlohmann::json> zone_;  // guarded by mutex_
    nlohmann::json nodes_;                        // guarded by mutex_
    std::deque<Behaviour> loginScript_, resolveScript_;  // guarded by mutex_
    size_t logins_ = 0, badSignatures_ = 0;       // guarded by mutex_
    std::vector<std::string> resolvedHosts_;      // guarded by mutex_
    bool stopping_ = false;                       // guarded by mutex_
    std::condition_variable stopped_;
    // Last, so that it stops serving (and joins its threads) before the state its handlers
    // use is destroyed: a request may still be in flight when the service ends.
    LoopbackHttpServer server_;
};

}  // namespace qel::test
