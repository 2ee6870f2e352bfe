#include "support/LoopbackHttpServer.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>

// The packaged cpp-httplib is not built with ThreadSanitizer. Its first-use initialisation of
// shared objects (function-local statics) is published through inline atomics that TSan cannot
// see, so reads of them by another server thread are reported as races inside the library.
// Only reports with a frame in that library are suppressed; our own code stays checked.
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }

namespace qel::test {

namespace {

// Shuts down every accepted connection of the server on `port` in this process. The server
// serves a kept-alive connection until the client closes it or its keep-alive timeout ends;
// the shared session never closes its connections, so without this every stop would wait.
void shutDownAcceptedConnections(int port) {
    DIR* fds = ::opendir("/proc/self/fd");
    if (!fds) return;
    while (dirent* entry = ::readdir(fds)) {
        const int fd = std::atoi(entry->d_name);
        if (fd <= 2 || fd == ::dirfd(fds)) continue;
        sockaddr_in local{};
        socklen_t length = sizeof local;
        int listening = 0;
        socklen_t flagLength = sizeof listening;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0 ||
            local.sin_family != AF_INET || ntohs(local.sin_port) != port ||
            ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &flagLength) != 0 ||
            listening) {
            continue;
        }
        ::shutdown(fd, SHUT_RDWR);
    }
    ::closedir(fds);
}

}  // namespace

LoopbackHttpServer::LoopbackHttpServer(size_t threads) {
    server_.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    // Without TCP_NODELAY a kept-alive connection waits for the peer's delayed ACK on every
    // answer; the default of the library build is off.
    server_.set_tcp_nodelay(true);
    server_.set_keep_alive_max_count(1000000);
    auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        dispatch(request, response);
    };
    server_.Get(".*", handler);
    server_.Post(".*", handler);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("loopback server: cannot bind 127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() is a no-op until the accept loop runs; a test that ends before then would
    // otherwise leave the destructor joining a thread blocked in accept().
    for (int waited = 0; !server_.is_running() && waited < 10000; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

LoopbackHttpServer::~LoopbackHttpServer() {
    releaseHeld();
    server_.stop();
    shutDownAcceptedConnections(port_);
    thread_.join();
}

std::string LoopbackHttpServer::url(const std::string& pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

void LoopbackHttpServer::route(const std::string& path, Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    routes_[path] = std::move(handler);
}

void LoopbackHttpServer::respond(const std::string& path, int status, const std::string& body) {
    route(path, [status, body](const httplib::Request&, httplib::Response& response) {
        response.status = status;
        if (!body.empty()) response.set_content(body, "application/json");
    });
}

void LoopbackHttpServer::hold(const std::string& path, const std::string& body) {
    route(path, [this, body](const httplib::Request&, httplib::Response& response) {
        std::unique_lock<std::mutex> lock(mutex_);
        ++held_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return released_; });
        --held_;
        response.set_content(body, "application/json");
    });
}

void LoopbackHttpServer::releaseHeld() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    changed_.notify_all();
}

size_t LoopbackHttpServer::heldNow() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return held_;
}

bool LoopbackHttpServer::waitUntilHeld(size_t count, std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return held_ >= count; });
}

std::vector<LoopbackHttpServer::Request> LoopbackHttpServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void LoopbackHttpServer::dispatch(const httplib::Request& request, httplib::Response& response) {
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(
            {request.method, request.target, request.headers, request.body, request.remote_port});
        auto found = routes_.find(request.path);
        if (found != routes_.end()) handler = found->second;
    }
    if (handler) {
        handler(request, response);
    } else {
        response.status = 404;
    }
}

}  // namespace qel::test
