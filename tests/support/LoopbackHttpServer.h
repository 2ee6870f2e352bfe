// A real HTTP/1.1 server on 127.0.0.1 and a port the kernel picks, on raw sockets so that the
// test decides every byte of an answer. It records every request, answers by path with
// handlers (404 otherwise) or plays a script of replies, can cut or stall an answer, and go down and come back on the same port
// (refusing connections while down). One thread per connection; kept-alive connections are served until the client closes them or
// the server stops.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace qel::test {

class LoopbackHttpServer {
    // Runs `run` under mutex_, which guards the state the server threads share.
    template <typename F>
    auto locked(F run) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return run();
    }

public:
    /// One request, byte for byte as received: its head and a Content-Length body.
    struct Request {
        std::string raw;

        /// As sent: path and query, still percent-encoded.
        std::string target() const;
        /// The value of query parameter `name`, decoded; empty if absent.
        std::string param(const std::string& name) const;
        /// The value of the first header called `name` (any case); empty if absent.
        std::string header(const std::string& name) const;
        std::string body() const { return raw.substr(raw.find("\r\n\r\n") + 4); }
        /// The header lines that start with one of `prefixes` (any case), in the order sent.
        std::vector<std::string> headerLines(const std::vector<std::string>& prefixes) const;
    };

    /// What the server does with one request once it has read it.
    struct Reply {
        enum Kind {
            Write,  // writes `bytes`, then closes, or with `keepOpen` reads the next request
            Stall,  // writes `bytes`, then nothing until the client or the server ends
        } kind = Write;
        std::string bytes;
        bool keepOpen = false;
    };
    /// A whole answer with its length; the connection stays open for the next request unless
    /// `close`, which also says so in a header.
    static Reply http(int status, const std::string& body, const std::string& extraHeaders = "", bool close = false,
                      const std::string& contentType = "application/json");
    using Handler = std::function<Reply(const Request&)>;

    /// Listens on `port`, or on a port the kernel picks; throws if it cannot bind it.
    explicit LoopbackHttpServer(int port = 0);
    /// Ends every connection and joins the server's threads.
    ~LoopbackHttpServer();

    int port() const { return port_; }
    /// "http://127.0.0.1:<port>" followed by `pathAndQuery`.
    std::string url(const std::string& pathAndQuery) const { return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery; }

    /// Answers requests for `path` (exact, without query), any method.
    void route(const std::string& path, Handler handler);
    void respond(const std::string& path, int status, const std::string& body) {
        route(path, [=](const Request&) { return http(status, body); });
    }
    /// Answers every request no route takes: the i-th with `script[min(i, size - 1)]`.
    void serve(std::vector<Reply> script);

    std::vector<Request> requests() const {
        return locked([this] { return requests_; });
    }
    /// Connections open now.
    size_t openConnections() const {
        return locked([this] { return connections_.size(); });
    }
    /// Goes down: closes every connection and refuses new ones on the same port until `start`.
    void stop();
    void start();

private:
    void bindSocket();
    void converse(int fd);
    void shutDown();

    int fd_ = -1, port_ = 0;
    std::thread acceptor_;
    std::atomic<bool> accepting_{false};

    mutable std::mutex mutex_;
    std::map<std::string, Handler> routes_;  // guarded by mutex_
    Handler fallback_;                       // guarded by mutex_
    std::vector<Request> requests_;          // guarded by mutex_
    std::set<int> connections_;              // guarded by mutex_; closed only under it
    std::vector<std::thread> workers_;       // guarded by mutex_
};

}  // namespace qel::test
