// Loopback TCP servers for what an HTTP library will not do on purpose: answer with hand-made
// bytes, cut a connection in the middle of an answer, hold a connection silently, or refuse
// connections altogether.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qel::test {

/// Accepts connections on 127.0.0.1 (kernel-chosen port). For each one, on its own thread, it
/// reads one request (head and a Content-Length body), records its bytes as received, runs
/// the script with the server and the socket, then closes the socket.
class RawHttpServer {
public:
    using Script = std::function<void(RawHttpServer& server, int fd, const std::string& request)>;

    explicit RawHttpServer(Script script);
    /// Releases held connections, stops accepting, joins every thread.
    ~RawHttpServer();
    RawHttpServer(const RawHttpServer&) = delete;
    RawHttpServer& operator=(const RawHttpServer&) = delete;

    int port() const { return port_; }
    std::string url(const std::string& pathAndQuery) const;
    /// Every request received so far, byte for byte.
    std::vector<std::string> requests() const;

    /// For scripts: blocks until `release()` or the end of the server.
    void holdUntilReleased();
    void release();

    /// Writes all of `bytes` (ignoring a peer that went away).
    static void writeAll(int fd, const std::string& bytes);

private:
    void acceptLoop();
    void serve(int fd);
    bool readRequest(int fd, std::string& request);

    Script script_;
    int listenFd_ = -1;
    int stopPipe_[2] = {-1, -1};
    int port_ = 0;
    std::thread acceptThread_;

    mutable std::mutex mutex_;
    std::condition_variable releasedChanged_;
    bool released_ = false;                   // guarded by mutex_
    std::vector<std::string> requests_;       // guarded by mutex_
    std::vector<std::thread> connections_;    // touched by the accept thread, then the destructor
};

/// A port on 127.0.0.1 that refuses every connection: bound for the life of the object (so
/// nobody else takes it) but not listening.
class RefusingPort {
public:
    RefusingPort();
    ~RefusingPort();
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    std::string url(const std::string& pathAndQuery) const;

private:
    int fd_ = -1;
    int port_ = 0;
};

}  // namespace qel::test
