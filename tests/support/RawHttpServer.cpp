#include "support/RawHttpServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace qel::test {

namespace {

using Lock = std::lock_guard<std::mutex>;

// A guard against a hang, not a measurement.
bool readableWithin(int fd, int millis) {
    pollfd wanted{fd, POLLIN, 0};
    return ::poll(&wanted, 1, millis) > 0;
}

bool readableSoon(int fd) { return readableWithin(fd, 10000); }

// One request: its head and a Content-Length body, or what came of it before the peer closed
// or went silent.
std::string readRequest(int fd) {
    std::string request;
    size_t wanted = std::string::npos;  // known once the head is complete
    char buffer[4096];
    ssize_t got = 0;
    while (request.size() < wanted && readableSoon(fd) &&
           (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0) {
        request.append(buffer, static_cast<size_t>(got));
        const size_t headEnd = request.find("\r\n\r\n");
        const size_t length = request.find("\r\nContent-Length: ");
        if (wanted == std::string::npos && headEnd != std::string::npos) {
            wanted = headEnd + 4 +
                     (length < headEnd ? std::strtoul(&request[length + 18], nullptr, 10) : 0);
        }
    }
    return request;
}

// False once the peer is gone.
bool sendAll(int fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

RawHttpServer::RawHttpServer(bool listening) { bindSocket(listening); }

void RawHttpServer::bindSocket(bool listening) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port_));  // 0 the first time: any port
    socklen_t length = sizeof address;
    if (fd_ < 0 || ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        (listening && ::listen(fd_, 64) != 0)) {
        if (fd_ >= 0) ::close(fd_);
        throw std::runtime_error("raw server: cannot bind 127.0.0.1");
    }
    port_ = ntohs(address.sin_port);
}

RawHttpServer::~RawHttpServer() {
    accepting_ = false;
    if (acceptor_.joinable()) acceptor_.join();
    {
        Lock lock(mutex_);
        for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
    }
    joinAll();
    for (int fd : held_) ::close(fd);
    ::close(fd_);
}

void RawHttpServer::serve(std::vector<Reply> script) {
    {
        Lock lock(mutex_);
        script_ = std::move(script);
    }
    start();
}

size_t RawHttpServer::requestsServed() const {
    Lock lock(mutex_);
    return served_;
}

size_t RawHttpServer::openConnections() const {
    Lock lock(mutex_);
    return connections_.size();
}

void RawHttpServer::stop() {
    accepting_ = false;
    if (acceptor_.joinable()) acceptor_.join();
    {
        Lock lock(mutex_);
        for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
    }
    joinAll();
    ::close(fd_);
    bindSocket(/*listening=*/false);  // keeps the port, refusing
}

void RawHttpServer::start() {
    if (accepting_) return;
    if (::listen(fd_, 64) != 0) throw std::runtime_error("raw server: cannot listen");
    accepting_ = true;
    acceptor_ = std::thread([this] { acceptLoop(); });
}

void RawHttpServer::acceptLoop() {
    while (accepting_) {
        if (!readableWithin(fd_, 50)) continue;
        const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        Lock lock(mutex_);
        connections_.insert(fd);
        workers_.emplace_back([this, fd] { converse(fd); });
    }
}

void RawHttpServer::converse(int fd) {
    bool open = true;
    while (open) {
        if (readRequest(fd).find("\r\n\r\n") == std::string::npos) break;
        Reply reply;
        {
            Lock lock(mutex_);
            if (!script_.empty()) reply = script_[std::min(served_, script_.size() - 1)];
            ++served_;
        }
        play(fd, reply, open);
    }
    finish(fd);
}

void RawHttpServer::play(int fd, const Reply& reply, bool& open) {
    open = false;
    switch (reply.kind) {
        case Reply::Write:
            open = sendAll(fd, reply.bytes) && reply.keepOpen;
            return;
        case Reply::Reset: {
            sendAll(fd, reply.bytes);
            const linger abortive{1, 0};  // closing now sends RST instead of FIN
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
            return;
        }
        case Reply::Stall:
            // Readable only once the client gives up or the server shuts the connection.
            while (!readableWithin(fd, 100)) {
            }
            return;
        case Reply::Trickle:
            if (!sendAll(fd, reply.bytes)) return;
            for (char byte : reply.trickled) {
                if (readableWithin(fd, 100) || !sendAll(fd, std::string(1, byte))) return;
            }
            return;
    }
}

void RawHttpServer::finish(int fd) {
    Lock lock(mutex_);
    connections_.erase(fd);
    ::close(fd);
}

void RawHttpServer::joinAll() {
    std::vector<std::thread> workers;
    {
        Lock lock(mutex_);
        workers.swap(workers_);
    }
    for (auto& worker : workers) worker.join();
}

std::string RawHttpServer::url(const std::string& pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

std::future<std::string> RawHttpServer::answerNext(std::string reply, bool hold) {
    return std::async(std::launch::async, [this, reply = std::move(reply), hold] {
        const int fd = readableSoon(fd_) ? ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (fd < 0) return std::string();
        std::string request = readRequest(fd);
        ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);  // small: one call writes it all
        if (hold) {
            held_.push_back(fd);
        } else {
            ::close(fd);
        }
        return request;
    });
}

std::vector<std::string> RawHttpServer::headerLines(const std::string& request,
                                                    const std::vector<std::string>& prefixes) {
    std::vector<std::string> lines;
    std::istringstream head(request.substr(0, request.find("\r\n\r\n") + 2));
    std::string line;
    std::getline(head, line);  // the request line
    while (std::getline(head, line)) {
        line.pop_back();  // '\r'
        if (std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& prefix) {
                return ::strncasecmp(line.c_str(), prefix.c_str(), prefix.size()) == 0;
            })) {
            lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace qel::test
