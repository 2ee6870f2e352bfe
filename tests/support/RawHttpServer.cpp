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

// A guard against a hang, not a measurement.
bool readableSoon(int fd) {
    pollfd wanted{fd, POLLIN, 0};
    return ::poll(&wanted, 1, 10000) > 0;
}

}  // namespace

RawHttpServer::RawHttpServer(bool listening) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        (listening && ::listen(fd_, 64) != 0)) {
        if (fd_ >= 0) ::close(fd_);
        throw std::runtime_error("raw server: cannot bind 127.0.0.1");
    }
    port_ = ntohs(address.sin_port);
}

RawHttpServer::~RawHttpServer() {
    for (int fd : held_) ::close(fd);
    ::close(fd_);
}

std::string RawHttpServer::url(const std::string& pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

std::future<std::string> RawHttpServer::answerNext(std::string reply, bool hold) {
    return std::async(std::launch::async, [this, reply = std::move(reply), hold] {
        const int fd = readableSoon(fd_) ? ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (fd < 0) return std::string();
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
