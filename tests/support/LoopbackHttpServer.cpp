#include "support/LoopbackHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <utility>

namespace qel::test {

namespace {

using Lock = std::lock_guard<std::mutex>;

// The head and a Content-Length body, or what came of it before the peer closed.
std::string readRequest(int fd) {
    std::string request;
    size_t wanted = std::string::npos;  // known once the head is complete
    char buffer[4096];
    for (ssize_t got; request.size() < wanted && (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
        request.append(buffer, static_cast<size_t>(got));
        const size_t headEnd = request.find("\r\n\r\n"), length = request.find("\r\nContent-Length: ");
        if (wanted == std::string::npos && headEnd != std::string::npos) {
            wanted = headEnd + 4 + (length < headEnd ? std::strtoul(&request[length + 18], nullptr, 10) : 0);
        }
    }
    return request;
}

// False once the peer is gone.
bool sendAll(int fd, const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// Readable means the client closed, or the server shut the connection down.
bool readableWithin(int fd, int millis) {
    pollfd wanted{fd, POLLIN, 0};
    return ::poll(&wanted, 1, millis) > 0;
}

}  // namespace

std::string LoopbackHttpServer::Request::target() const {
    const size_t start = raw.find(' ') + 1;
    return raw.substr(start, raw.find(' ', start) - start);
}

std::string LoopbackHttpServer::Request::param(const std::string& name) const {
    const std::string query = target(), key = name + "=";
    for (size_t at = query.find('?'); at != std::string::npos; at = query.find('&', at + 1)) {
        if (query.compare(at + 1, key.size(), key) != 0) continue;
        std::string decoded;
        for (size_t i = at + 1 + key.size(); i < query.size() && query[i] != '&'; ++i) {
            const bool escaped = query[i] == '%' && i + 2 < query.size();
            decoded.push_back(escaped ? static_cast<char>(std::stoi(query.substr(i + 1, 2), nullptr, 16)) : query[i]);
            if (escaped) i += 2;
        }
        return decoded;
    }
    return "";
}

std::string LoopbackHttpServer::Request::header(const std::string& name) const {
    const auto lines = headerLines({name + ":"});
    return lines.empty() ? "" : lines[0].substr(lines[0].find_first_not_of(' ', name.size() + 1));
}

std::vector<std::string> LoopbackHttpServer::Request::headerLines(const std::vector<std::string>& prefixes) const {
    std::vector<std::string> lines;
    for (size_t at = raw.find("\r\n"), end; at < raw.find("\r\n\r\n"); at = end) {
        end = raw.find("\r\n", at + 2);
        const std::string line = raw.substr(at + 2, end - at - 2);
        const auto starts = [&](const std::string& prefix) {
            return ::strncasecmp(line.c_str(), prefix.c_str(), prefix.size()) == 0;
        };
        if (std::any_of(prefixes.begin(), prefixes.end(), starts)) lines.push_back(line);
    }
    return lines;
}

LoopbackHttpServer::Reply LoopbackHttpServer::http(int status, const std::string& body, const std::string& extraHeaders,
                                                   bool close, const std::string& contentType) {
    // An empty reason phrase is valid, and no client reads it.
    return {Reply::Write,
            "HTTP/1.1 " + std::to_string(status) + " \r\nContent-Type: " + contentType + "\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n" + extraHeaders + (close ? "Connection: close\r\n" : "") + "\r\n" + body,
            !close};
}

LoopbackHttpServer::LoopbackHttpServer(int port) : port_(port) {
    bindSocket();
    start();
}

LoopbackHttpServer::~LoopbackHttpServer() {
    shutDown();
    ::close(fd_);
}

// Binds port_ (0: any) without listening, so that connections to it are refused.
void LoopbackHttpServer::bindSocket() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port_)), {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    if (::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd_);
        throw std::runtime_error("loopback server: cannot bind 127.0.0.1:" + std::to_string(port_));
    }
    port_ = ntohs(address.sin_port);
}

void LoopbackHttpServer::start() {
    if (accepting_) return;
    if (::listen(fd_, 64) != 0) throw std::runtime_error("loopback server: cannot listen");
    accepting_ = true;
    acceptor_ = std::thread([this] {
        while (accepting_) {
            // A blocked accept() holds the number of the descriptor it will return: waiting in
            // poll() first leaves the numbers free for tests that count them.
            if (!readableWithin(fd_, 100)) continue;
            const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            const int on = 1;  // without it a kept-alive answer waits for the peer's delayed ACK
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            Lock lock(mutex_);
            connections_.insert(fd);
            workers_.emplace_back([this, fd] { converse(fd); });
        }
    });
}

void LoopbackHttpServer::stop() {
    shutDown();
    ::close(fd_);
    bindSocket();
}

void LoopbackHttpServer::shutDown() {
    accepting_ = false;
    ::shutdown(fd_, SHUT_RDWR);  // wakes the acceptor
    if (acceptor_.joinable()) acceptor_.join();
    std::vector<std::thread> workers = locked([this] {
        for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
        return std::exchange(workers_, {});
    });
    for (auto& worker : workers) worker.join();
}

void LoopbackHttpServer::converse(int fd) {
    for (bool open = true; open;) {
        const Request request{readRequest(fd)};
        if (request.raw.find("\r\n\r\n") == std::string::npos) break;
        const Handler handler = locked([&] {
            requests_.push_back(request);
            const std::string target = request.target();
            const auto found = routes_.find(target.substr(0, target.find('?')));
            return found != routes_.end() ? found->second : fallback_;
        });
        const Reply reply = handler ? handler(request) : http(404, "");
        const bool sent = sendAll(fd, reply.bytes);
        open = sent && reply.kind == Reply::Write && reply.keepOpen;
        if (reply.kind == Reply::Stall) readableWithin(fd, -1);
    }
    locked([&] {  // closed under the lock, so that shutDown() never shuts a reused number
        connections_.erase(fd);
        ::close(fd);
    });
}

void LoopbackHttpServer::route(const std::string& path, Handler handler) {
    locked([&] { return routes_[path] = std::move(handler); });
}

void LoopbackHttpServer::serve(std::vector<Reply> script) {
    auto next = std::make_shared<std::atomic<size_t>>(0);
    Lock lock(mutex_);
    fallback_ = [script = std::move(script), next](const Request&) {
        return script[std::min(next->fetch_add(1), script.size() - 1)];
    };
}

}  // namespace qel::test
