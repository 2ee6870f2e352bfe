#include "support/RawHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace qel::test {

namespace {

int boundLoopbackSocket(int& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("raw server: socket failed");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        throw std::runtime_error("raw server: cannot bind 127.0.0.1");
    }
    port = ntohs(address.sin_port);
    return fd;
}

// Content-Length of a request head, 0 when there is none.
size_t contentLength(const std::string& head) {
    size_t at = 0;
    while ((at = head.find("\r\n", at)) != std::string::npos) {
        at += 2;
        if (::strncasecmp(head.c_str() + at, "Content-Length:", 15) == 0) {
            return std::strtoul(head.c_str() + at + 15, nullptr, 10);
        }
    }
    return 0;
}

}  // namespace

RawHttpServer::RawHttpServer(Script script) : script_(std::move(script)) {
    listenFd_ = boundLoopbackSocket(port_);
    if (::listen(listenFd_, 64) != 0 || ::pipe2(stopPipe_, O_CLOEXEC) != 0) {
        ::close(listenFd_);
        throw std::runtime_error("raw server: cannot listen");
    }
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

RawHttpServer::~RawHttpServer() {
    release();
    ::close(stopPipe_[1]);  // wakes every poll on the read end
    acceptThread_.join();
    for (auto& connection : connections_) connection.join();
    ::close(stopPipe_[0]);
    ::close(listenFd_);
}

std::string RawHttpServer::url(const std::string& pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

std::vector<std::string> RawHttpServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void RawHttpServer::holdUntilReleased() {
    std::unique_lock<std::mutex> lock(mutex_);
    releasedChanged_.wait(lock, [this] { return released_; });
}

void RawHttpServer::release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    releasedChanged_.notify_all();
}

void RawHttpServer::writeAll(int fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        sent += static_cast<size_t>(n);
    }
}

void RawHttpServer::acceptLoop() {
    for (;;) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents) return;
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) connections_.emplace_back([this, fd] { serve(fd); });
    }
}

void RawHttpServer::serve(int fd) {
    std::string request;
    if (readRequest(fd, request)) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request);
        }
        script_(*this, fd, request);
    }
    ::close(fd);
}

bool RawHttpServer::readRequest(int fd, std::string& request) {
    size_t wanted = std::string::npos;  // total length, known once the head is complete
    char buffer[4096];
    while (request.size() < wanted) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (fds[1].revents) return false;
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) return false;
        request.append(buffer, static_cast<size_t>(n));
        const size_t headEnd = request.find("\r\n\r\n");
        if (wanted == std::string::npos && headEnd != std::string::npos) {
            wanted = headEnd + 4 + contentLength(request.substr(0, headEnd));
        }
    }
    return true;
}

RefusingPort::RefusingPort() { fd_ = boundLoopbackSocket(port_); }

RefusingPort::~RefusingPort() { ::close(fd_); }

std::string RefusingPort::url(const std::string& pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

}  // namespace qel::test
