#include "Listener.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace qel::server {

namespace {

// Why binding `endpoint` fails, found by trying it the way the HTTP library does: the library
// reports only that it failed.
std::string bindFailure(const Endpoint& endpoint) {
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    const int status =
        getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
    if (status != 0) return gai_strerror(status);
    std::string reason = "unknown failure";
    for (addrinfo* at = found; at; at = at->ai_next) {
        const int fd = socket(at->ai_family, at->ai_socktype, at->ai_protocol);
        if (fd < 0) {
            reason = std::strerror(errno);
            continue;
        }
        const int yes = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (bind(fd, at->ai_addr, at->ai_addrlen) != 0 || listen(fd, 1) != 0) reason = std::strerror(errno);
        close(fd);
    }
    freeaddrinfo(found);
    return reason;
}

// The port a socket is bound or connected to locally, or 0 when it is no TCP socket.
int localPort(int fd) {
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
    if (local.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in&>(local).sin_port);
    if (local.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6&>(local).sin6_port);
    return 0;
}

// Ends the reading side of every accepted connection on one of `ports`. A connection waiting
// for its next request sees the end and closes; one whose answer is being made still sends it.
// The HTTP library offers no hook on accepted connections, so they are found among the
// process's descriptors.
void endReading(const std::vector<int>& ports) {
    DIR* fds = opendir("/proc/self/fd");
    if (!fds) return;
    while (dirent* entry = readdir(fds)) {
        const int fd = std::atoi(entry->d_name);
        if (fd <= 2 || fd == dirfd(fds)) continue;
        const int port = localPort(fd);
        int listening = 0;
        socklen_t size = sizeof listening;
        if (port == 0 || std::find(ports.begin(), ports.end(), port) == ports.end() ||
            getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || listening) {
            continue;
        }
        shutdown(fd, SHUT_RD);
    }
    closedir(fds);
}

}  // namespace

Listener::Listener(const Service& service, const std::vector<Endpoint>& endpoints, size_t threads) {
    for (const Endpoint& endpoint : endpoints) {
        auto server = std::make_unique<httplib::Server>();
        server->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
        // Without it a kept-alive connection waits for the peer's delayed ACK on every answer.
        // Set on the listening socket, accepted connections inherit it.
        server->set_tcp_nodelay(true);
        server->set_keep_alive_max_count(1000000);
        // The library's default adds SO_REUSEPORT, with which a second server would share a
        // busy port instead of failing to bind it.
        server->set_socket_options([](int fd) {
            const int yes = 1;
            setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        server->set_pre_routing_handler([&service](const httplib::Request& request, httplib::Response& response) {
            service.handle(request, response);
            return httplib::Server::HandlerResponse::Handled;
        });
        Endpoint bound = endpoint;
        const bool ok = endpoint.port == 0
                            ? (bound.port = server->bind_to_any_port(endpoint.host)) > 0
                            : server->bind_to_port(endpoint.host, endpoint.port);
        if (!ok) {
            servers_.clear();
            throw ListenError("cannot listen on " + endpoint.text() + ": " + bindFailure(endpoint));
        }
        servers_.push_back(std::move(server));
        bound_.push_back(bound);
    }
}

Listener::~Listener() { stop(); }

void Listener::start() {
    std::vector<std::shared_ptr<std::atomic<bool>>> ended;
    for (auto& server : servers_) {
        ended.push_back(std::make_shared<std::atomic<bool>>(false));
        threads_.emplace_back([raw = server.get(), done = ended.back()] {
            raw->listen_after_bind();
            *done = true;
        });
    }
    // stop() does nothing to a server whose accept loop has not begun.
    for (size_t i = 0; i < servers_.size(); ++i) {
        while (!servers_[i]->is_running() && !*ended[i]) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void Listener::stop() {
    if (threads_.empty()) return;
    for (auto& server : servers_) server->stop();
    std::vector<int> ports;
    for (const Endpoint& endpoint : bound_) ports.push_back(endpoint.port);
    // Connections accepted just before the stop may start after a first pass: repeat until
    // every server's workers are done.
    std::atomic<size_t> finished{0};
    std::vector<std::thread> joiners;
    for (auto& thread : threads_) {
        joiners.emplace_back([&thread, &finished] {
            thread.join();
            ++finished;
        });
    }
    while (finished < joiners.size()) {
        endReading(ports);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (auto& joiner : joiners) joiner.join();
    threads_.clear();
}

}  // namespace qel::server
