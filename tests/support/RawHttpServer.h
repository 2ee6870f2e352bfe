// A loopback TCP endpoint for what an HTTP library will not do on purpose: answer with
// hand-made bytes, cut an answer short, reset, stall, trickle, or refuse connections
// altogether, and go down and come back on the same port.
#pragma once

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace qel::test {

/// A socket bound to 127.0.0.1 (kernel-chosen port) for the life of the object. Listening, it
/// accepts connections only through `answerNext` (the others wait, unanswered, in the backlog);
/// not listening, it refuses every connection.
class RawHttpServer {
public:
    explicit RawHttpServer(bool listening = true);
    ~RawHttpServer();
    RawHttpServer(const RawHttpServer&) = delete;
    RawHttpServer& operator=(const RawHttpServer&) = delete;

    std::string url(const std::string& pathAndQuery) const;

    /// On another thread: accepts the next connection, reads one request (head and a
    /// Content-Length body), writes `reply`, then closes the connection or, with `hold`, leaves
    /// it open and silent until the server ends. The future holds the request byte for byte
    /// (empty if none came within ten seconds). One call at a time.
    std::future<std::string> answerNext(std::string reply, bool hold = false);

    /// What `serve` does with one request, once it has read it.
    struct Reply {
        enum Kind {
            Write,    // writes `bytes`, then closes, or with `keepOpen` reads the next request
            Reset,    // writes `bytes`, then resets the connection (RST, no FIN)
            Stall,    // writes nothing and waits until the client or the server ends
            Trickle,  // writes `bytes`, then `trickled` one byte per 100 ms, then closes
        } kind = Write;
        std::string bytes;
        std::string trickled;
        bool keepOpen = false;
    };

    /// From now on, on threads of its own: accepts every connection and gives the i-th request
    /// received `script[min(i, size - 1)]`. Not to be mixed with `answerNext`.
    void serve(std::vector<Reply> script);
    /// Requests read in full by `serve` so far.
    size_t requestsServed() const;
    /// Connections `serve` holds open now.
    size_t openConnections() const;
    /// Goes down: closes every connection and the listening socket, and refuses connections
    /// on the same port until `start`.
    void stop();
    /// Listens on the same port again, serving the rest of the script.
    void start();

    /// The header lines of a request that start with one of `prefixes` (compared without
    /// regard to case), in the order they were sent.
    static std::vector<std::string> headerLines(const std::string& request,
                                                const std::vector<std::string>& prefixes);

private:
    void bindSocket(bool listening);
    void acceptLoop();
    void converse(int fd);
    void play(int fd, const Reply& reply, bool& open);
    void finish(int fd);
    void joinAll();

    int fd_ = -1;
    int port_ = 0;
    std::vector<int> held_;  // touched by one answering thread at a time

    mutable std::mutex mutex_;
    std::vector<Reply> script_;        // guarded by mutex_
    size_t served_ = 0;                // guarded by mutex_
    std::set<int> connections_;        // guarded by mutex_; closed only under it
    std::vector<std::thread> workers_;  // guarded by mutex_
    std::atomic<bool> accepting_{false};
    std::thread acceptor_;
};

}  // namespace qel::test
