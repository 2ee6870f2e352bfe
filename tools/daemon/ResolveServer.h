// The daemon's Unix socket: one request and one answer per connection (qel_resolve_protocol.h).
// The thread that accepts a connection reads what has arrived of its request without waiting;
// a request there whole and answered at once by the resolver (a cached name) is answered on that
// thread. Any other connection goes to a thread of its own (an idle one kept from an earlier
// request, or a new one) that reads the rest of the request within a deadline, waits for the
// resolver and answers. Bounded: QEL_MAX_REQUEST bytes per request, `maxPerPeer` requests of one
// process at once and `kMaxWorkers` in all (past them the caller gets QEL_STATUS_BUSY at once);
// a malformed request gets QEL_STATUS_BAD_REQUEST. Each request's line in the log names the
// caller by its SO_PEERCRED (pid, uid, gid).
//
// The socket is made 0666: any program of the machine may resolve, as with nscd's socket; the
// answers hold only addresses, never the account or the secret.
//
// Threads: `start` and `stop` from one thread; the resolver and the log are called from the
// accepting thread and the workers, concurrently.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ResolveMessage.h"
#include "Resolution.h"

namespace qel::daemon {

class ResolveServer {
public:
    /// Begins resolving a request; must not block.
    using Resolver = std::function<std::unique_ptr<Resolution>(const ResolveRequest& request)>;
    using Log = std::function<void(const std::string& line)>;

    static constexpr size_t kMaxWorkers = 256;
    static constexpr int kReadDeadlineMillis = 2000;
    static constexpr std::chrono::seconds kThreadLinger{10};  // an idle thread waits this long

    ResolveServer(Resolver resolver, Log log) : resolver_(std::move(resolver)), log_(std::move(log)) {}
    ~ResolveServer() { stop(); }
    ResolveServer(const ResolveServer&) = delete;
    ResolveServer& operator=(const ResolveServer&) = delete;

    /// Listens on `path` (a socket file left there by an earlier run is replaced; any other
    /// file is not) and starts accepting. False, with `error` set, when it cannot.
    bool start(const std::string& path, size_t maxPerPeer, std::string& error);
    /// Stops accepting, waits for the workers under way, removes the socket file.
    void stop();
    void setMaxPerPeer(size_t maxPerPeer) { maxPerPeer_.store(maxPerPeer); }

private:
    // A connection admitted: its caller, the request's bytes read so far and, once the request
    // is whole, its resolution.
    struct Job {
        int fd = -1;
        ucred peer{};
        std::chrono::steady_clock::time_point start;
        std::vector<uint8_t> bytes;
        std::optional<ResolveRequest> request;
        std::unique_ptr<Resolution> resolution;
        bool malformed = false;
    };
    void acceptLoop();
    void acceptOne();
    bool readRequest(Job& job, bool wait);
    void dispatch(Job job);
    void runThread();
    void serve(Job& job);
    void finish(Job& job, const ResolveAnswer& answer);
    bool admit(pid_t pid);
    void release(pid_t pid);

    const Resolver resolver_;
    const Log log_;
    std::string path_;
    int listenFd_ = -1;
    int stopFd_ = -1;
    std::thread acceptor_;
    std::atomic<size_t> maxPerPeer_{16};

    std::mutex mutex_;  // guards what follows
    std::condition_variable idle_;  // a request or a thread ended
    std::condition_variable work_;  // a request for an idle thread, or the stop
    std::map<pid_t, size_t> perPeer_;
    size_t workers_ = 0;  // requests admitted and not yet answered
    std::deque<Job> jobs_;
    size_t threads_ = 0;      // threads running requests or waiting for one
    size_t idleThreads_ = 0;  // of those, waiting for a request
    bool stopping_ = false;
};

}  // namespace qel::daemon
