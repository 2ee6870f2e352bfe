// A loopback TCP endpoint for what an HTTP library will not do on purpose: answer with
// hand-made bytes, cut an answer short, stay silent, or refuse connections altogether.
#pragma once

#include <future>
#include <string>
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

    /// The header lines of a request that start with one of `prefixes` (compared without
    /// regard to case), in the order they were sent.
    static std::vector<std::string> headerLines(const std::string& request,
                                                const std::vector<std::string>& prefixes);

private:
    int fd_ = -1;
    int port_ = 0;
    std::vector<int> held_;  // touched by one answering thread at a time
};

}  // namespace qel::test
