// A real HTTP server (cpp-httplib) on 127.0.0.1 and a port the kernel picks, running on its
// own threads for the life of the object. It records every request it receives, answers by
// path with handlers the test installs (404 with an empty body otherwise), and can hold
// requests unanswered until the test releases them. Keep-alive is on, TCP_NODELAY is on.
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qel::test {

class LoopbackHttpServer {
public:
    struct Request {
        std::string method;
        std::string target;  // as sent: path and query, still percent-encoded
        httplib::Headers headers;
        std::string body;
        int remotePort = 0;  // tells connections apart
    };
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    /// `threads` bounds the connections served at once (a kept-alive connection holds one).
    explicit LoopbackHttpServer(size_t threads = 16);
    /// Releases held requests, stops the server and joins its threads.
    ~LoopbackHttpServer();
    LoopbackHttpServer(const LoopbackHttpServer&) = delete;
    LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

    int port() const { return port_; }
    /// "http://127.0.0.1:<port>" followed by `pathAndQuery`.
    std::string url(const std::string& pathAndQuery) const;

    /// Answers requests for `path` (exact, decoded, without query), any method.
    void route(const std::string& path, Handler handler);
    /// Answers `path` with `status`, `body` and the content type application/json.
    void respond(const std::string& path, int status, const std::string& body);
    /// Holds requests for `path` unanswered until `releaseHeld()` (or the end of the server),
    /// then answers 200 with `body`.
    void hold(const std::string& path, const std::string& body = "{}");
    void releaseHeld();
    /// Requests currently held.
    size_t heldNow() const;
    /// Waits until `count` requests are held at once; false if that did not happen in time.
    bool waitUntilHeld(size_t count, std::chrono::seconds limit = std::chrono::seconds(10));

    std::vector<Request> requests() const;

private:
    void dispatch(const httplib::Request& request, httplib::Response& response);

    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Handler> routes_;  // guarded by mutex_
    std::vector<Request> requests_;          // guarded by mutex_
    size_t held_ = 0;                        // guarded by mutex_
    bool released_ = false;                  // guarded by mutex_
};

}  // namespace qel::test
