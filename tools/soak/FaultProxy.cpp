#include "FaultProxy.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

namespace qel::soak {

namespace {

using Lock = std::lock_guard<std::mutex>;

// Set from signal handlers (lock-free atomics are safe there), read by every thread; a
// signal is the only way in from the soak's process.
std::atomic<bool> calmRequested{false};
std::atomic<bool> calm{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void onCalm(int) {
    calm = true;
    calmRequested = true;
}
void onResume(int) { calm = false; }

bool readable(int fd, int millis) {
    pollfd wanted{fd, POLLIN, 0};
    return ::poll(&wanted, 1, millis) > 0;
}

bool sendAll(int fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// Reads up to the end of an HTTP head; empty when the peer closes or stays silent for 30 s.
std::string readHead(int fd, std::string& rest) {
    char buffer[4096];
    while (rest.find("\r\n\r\n") == std::string::npos) {
        if (!readable(fd, 30000)) return {};
        const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) return {};
        rest.append(buffer, static_cast<size_t>(got));
    }
    const size_t end = rest.find("\r\n\r\n") + 4;
    std::string head = rest.substr(0, end);
    rest.erase(0, end);
    return head;
}

size_t contentLength(const std::string& head) {
    for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2)) {
        if (::strncasecmp(head.c_str() + at + 2, "Content-Length:", 15) == 0) {
            return std::strtoul(head.c_str() + at + 17, nullptr, 10);
        }
    }
    return 0;
}

int connectTo(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        return fd;
    }
    if (fd >= 0) ::close(fd);
    return -1;
}

// The close that follows sends RST instead of FIN.
void abortOnClose(int fd) {
    const linger abortive{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
}

std::string http(const std::string& status, const std::string& body,
                 const std::string& extraHeaders = "") {
    return "HTTP/1.1 " + status +
           "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n" + extraHeaders + "Connection: close\r\n\r\n" + body;
}

std::string garbage() {
    std::string bytes;
    for (int i = 0; i < 2048; ++i) bytes.push_back(static_cast<char>((i * 7919 + 13) % 251));
    return http("200 OK", bytes);
}

// A good-looking answer past the 1 MiB a client should read, without a length.
std::string oversized() {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n"
           R"({"host":"x","ip_list":["192.0.2.1"],"ttl":60})" +
           std::string((size_t{1} << 20) + 1, ' ');
}

bool isLogin(const std::string& request) { return request.find("/service?") != std::string::npos; }

int bindListener(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 128) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

uint16_t portOf(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

}  // namespace

FaultProxy::FaultProxy(int listenFd, uint16_t upstreamPort, double faultRate, uint32_t seed)
    : listenFd_(listenFd),
      upstreamPort_(upstreamPort),
      port_(portOf(listenFd)),
      faultRate_(faultRate),
      seed_(seed),
      random_(seed) {}

void FaultProxy::run() {
    ::signal(SIGUSR1, onCalm);
    ::signal(SIGUSR2, onResume);
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    ::sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    // Proxies with other seeds go down at other moments, as separate machines would.
    auto nextOutage = std::chrono::steady_clock::now() + std::chrono::seconds(3) +
                      std::chrono::milliseconds(1000 * (seed_ % 3));
    for (;;) {
        if (calmRequested) {
            calmRequested = false;
            dropConnections();
        }
        if (!calm && std::chrono::steady_clock::now() >= nextOutage) {
            goDownForAMoment();
            nextOutage = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        }
        if (!readable(listenFd_, 50)) continue;
        const int client = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        {
            Lock lock(mutex_);
            connections_.insert(client);
        }
        std::thread([this, client] { converse(client); }).detach();
    }
}

void FaultProxy::goDownForAMoment() {
    ::close(listenFd_);
    dropConnections();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (int attempt = 0; attempt < 100 && (listenFd_ = bindListener(port_)) < 0; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (listenFd_ < 0) std::_Exit(3);  // the port is gone: nothing left to prove
}

void FaultProxy::dropConnections() {
    Lock lock(mutex_);
    for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
}

void FaultProxy::converse(int client) {
    int upstream = -1;
    std::string rest;
    for (;;) {
        const std::string request = readHead(client, rest);
        if (request.empty() || !play(pick(request), client, upstream, request)) break;
    }
    if (upstream >= 0) ::close(upstream);
    Lock lock(mutex_);
    connections_.erase(client);
    ::close(client);
}

FaultProxy::Fault FaultProxy::pick(const std::string& request) {
    if (request.compare(0, 10, "GET /loop ") == 0) return Fault::RedirectLoop;  // once in, for good
    Lock lock(mutex_);
    if (calm || std::uniform_real_distribution<double>(0, 1)(random_) >= faultRate_) {
        return Fault::Pass;
    }
    auto fault = static_cast<Fault>(1 + random_() % static_cast<unsigned>(Fault::CloseAfterAnswer));
    // Each kind of answer has its own fault of content.
    if (fault == Fault::NoNodes && !isLogin(request)) fault = Fault::OtherHost;
    if (fault == Fault::OtherHost && isLogin(request)) fault = Fault::NoNodes;
    return fault;
}

std::string FaultProxy::forward(int& upstream, const std::string& request) {
    if (upstream < 0) upstream = connectTo(upstreamPort_);
    std::string rest;
    std::string head;
    if (upstream < 0 || !sendAll(upstream, request) || (head = readHead(upstream, rest)).empty()) {
        return {};
    }
    const size_t length = contentLength(head);
    char buffer[16384];
    while (rest.size() < length && readable(upstream, 30000)) {
        const ssize_t got = ::recv(upstream, buffer, sizeof buffer, 0);
        if (got <= 0) return {};
        rest.append(buffer, static_cast<size_t>(got));
    }
    return head + rest;
}

bool FaultProxy::play(Fault fault, int client, int& upstream, const std::string& request) {
    const std::string self = "http://127.0.0.1:" + std::to_string(port_);
    switch (fault) {
        case Fault::Pass: {
            const std::string answer = forward(upstream, request);
            return !answer.empty() && sendAll(client, answer);
        }
        case Fault::CloseAfterAnswer: {
            const std::string answer = forward(upstream, request);
            sendAll(client, answer);
            return false;
        }
        case Fault::ResetBeforeAnyByte: abortOnClose(client); return false;
        case Fault::ResetMidBody: {
            const std::string answer = forward(upstream, request);
            sendAll(client, answer.substr(0, answer.size() - answer.size() / 3));
            abortOnClose(client);
            return false;
        }
        case Fault::Stall:
            while (!calm && !readable(client, 100)) {}
            return false;
        case Fault::Trickle:
            for (char byte : forward(upstream, request)) {
                if (readable(client, 100) || !sendAll(client, std::string(1, byte))) break;
            }
            return false;
        case Fault::Oversized: sendAll(client, oversized()); return false;
        case Fault::Garbage: sendAll(client, garbage()); return false;
        case Fault::Html500:
            sendAll(client, http("500 Internal Server Error", "<html><body>500</body></html>"));
            return false;
        case Fault::RedirectLoop:
            sendAll(client, http("302 Found", "", "Location: " + self + "/loop\r\n"));
            return false;
        case Fault::RedirectToFile:
            sendAll(client, http("302 Found", "", "Location: file:///etc/hostname\r\n"));
            return false;
        case Fault::OtherHost:
            sendAll(client, http("200 OK", R"({"host":"other.soak.test","ip_list":["192.0.2.99"],)"
                                           R"("ttl":60})"));
            return false;
        case Fault::NoNodes:
            sendAll(client, http("200 OK", R"({"auth_id":"soak","best_service_node":"",)"
                                           R"("service_node_list":[]})"));
            return false;
    }
    return false;
}

}  // namespace qel::soak
