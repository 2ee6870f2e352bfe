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

    int port() const { return port_; }
    /// "http://127.0.0.1:<port>" followed by `pathAndQuery`.
    std::string url(const std::string& pathAndQuery) const {
        return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
    }

    /// Answers requests for `path` (exact, decoded, without query), any method.
    void route(const std::string& path, Handler handler) {
        std::lock_guard<std::mutex> lock(mutex_);
        routes_[path] = std::move(handler);
    }
    /// Answers `path` with `status`, `body` and the content type application/json.
    void respond(const std::string& path, int status, const std::string& body) {
        route(path, [status, body](const httplib::Request&, httplib::Response& response) {
            response.status = status;
            if (!body.empty()) response.set_content(body, "application/json");
        });
    }
    /// Holds requests for `path` unanswered until `releaseHeld()` (or the end of the server),
    /// then answers 200 with `body`.
    void hold(const std::string& path, const std::string& body = "{}") {
        route(path, [this, body](const httplib::Request&, httplib::Response& response) {
            std::unique_lock<std::mutex> lock(mutex_);
            ++held_;
            changed_.notify_all();
            changed_.wait(lock, [this] { return released_; });
            --held_;
            response.set_content(body, "application/json");
        });
    }
    void releaseHeld() {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    /// Waits until `count` requests are held at once; false if that did not happen in time.
    bool waitUntilHeld(size_t count, std::chrono::seconds limit = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return held_ >= count; });
    }

    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

private:
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
