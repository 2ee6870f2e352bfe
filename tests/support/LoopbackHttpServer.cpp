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
        Handler found;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back({request.method, request.target, request.headers, request.body,
                                 request.remote_port});
            if (routes_.count(request.path)) found = routes_[request.path];
        }
        if (found) {
            found(request, response);
        } else {
            response.status = 404;
        }
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

}  // namespace qel::test
