#include "ResolveServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace qel::daemon {

namespace {

using Clock = std::chrono::steady_clock;

enum class Read { Some, NoneYet, Failed };

// Appends to `out` what has arrived, at most `room` bytes; with `wait`, waits for something
// until `deadline`. Failed when the peer closed or failed, or (waiting) the deadline passed.
Read readSome(int fd, size_t room, std::vector<uint8_t>& out, bool wait, Clock::time_point deadline) {
    for (;;) {
        if (wait) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd ready{fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) return Read::Failed;
        }
        uint8_t buffer[QEL_MAX_REQUEST];
        const ssize_t got = ::recv(fd, buffer, std::min(room, sizeof buffer), wait ? 0 : MSG_DONTWAIT);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && !wait && (errno == EAGAIN || errno == EWOULDBLOCK)) return Read::NoneYet;
        if (got <= 0) return Read::Failed;
        out.insert(out.end(), buffer, buffer + got);
        return Read::Some;
    }
}

void sendAnswer(int fd, const ResolveAnswer& answer) {
    const std::vector<uint8_t> bytes = encodeAnswer(answer);
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t wrote = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return;  // the caller is gone
        sent += static_cast<size_t>(wrote);
    }
}

ResolveAnswer refusal(int status, const std::string& message) {
    ResolveAnswer answer;
    answer.status = status;
    answer.message = message;
    return answer;
}

const char* familyName(int family) {
    return family == QEL_FAMILY_V4 ? "IPv4" : family == QEL_FAMILY_V6 ? "IPv6" : "IPv4+IPv6";
}

const char* statusName(int status) {
    switch (status) {
        case QEL_STATUS_ANSWERED: return "answered";
        case QEL_STATUS_NOT_FOUND: return "not found";
        case QEL_STATUS_UNAVAILABLE: return "unavailable";
        case QEL_STATUS_BAD_REQUEST: return "bad request";
        default: return "busy";
    }
}

}  // namespace

bool ResolveServer::start(const std::string& path, size_t maxPerPeer, std::string& error) {
    maxPerPeer_.store(maxPerPeer);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "socket path \"" + path + "\" is empty or too long";
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode)) {
            error = path + " exists and is not a socket";
            return false;
        }
        ::unlink(path.c_str());  // left by an earlier run
    }
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    stopFd_ = ::eventfd(0, EFD_CLOEXEC);
    if (listenFd_ < 0 || stopFd_ < 0 ||
        ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(path.c_str(), 0666) != 0 || ::listen(listenFd_, 128) != 0) {
        error = "cannot listen on " + path + ": " + std::strerror(errno);
        return false;
    }
    path_ = path;
    acceptor_ = std::thread([this] { acceptLoop(); });
    return true;
}

void ResolveServer::stop() {
    if (acceptor_.joinable()) {
        const uint64_t one = 1;
        if (::write(stopFd_, &one, sizeof one) < 0) {
        }
        acceptor_.join();
        std::unique_lock<std::mutex> lock(mutex_);
        idle_.wait(lock, [this] { return workers_ == 0; });
        stopping_ = true;
        work_.notify_all();
        idle_.wait(lock, [this] { return threads_ == 0; });
        stopping_ = false;
    }
    if (listenFd_ >= 0) ::close(listenFd_);
    if (stopFd_ >= 0) ::close(stopFd_);
    listenFd_ = stopFd_ = -1;
    if (!path_.empty()) ::unlink(path_.c_str());
    path_.clear();
}

void ResolveServer::acceptLoop() {
    for (;;) {
        pollfd ready[2] = {{listenFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
        if (::poll(ready, 2, -1) < 0 && errno != EINTR) return;
        if (ready[1].revents) return;
        if (ready[0].revents & POLLIN) acceptOne();
    }
}

// A cached name is answered here: handing it to a worker would cost a thread's wake-up, several
// times the lookup itself.
void ResolveServer::acceptOne() {
    Job job;
    job.fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (job.fd < 0) return;  // EMFILE and the like: the caller retries or falls back
    job.start = Clock::now();
    socklen_t length = sizeof job.peer;
    if (::getsockopt(job.fd, SOL_SOCKET, SO_PEERCRED, &job.peer, &length) != 0) job.peer = ucred{-1, 0, 0};
    if (!admit(job.peer.pid)) {
        sendAnswer(job.fd, refusal(QEL_STATUS_BUSY, "too many requests at once"));
        log_("pid " + std::to_string(job.peer.pid) + " uid " + std::to_string(job.peer.uid) +
             ": busy, request refused");
        ::close(job.fd);
        return;
    }
    if (readRequest(job, false)) {
        if (job.request) job.resolution = resolver_(*job.request);
        if (job.malformed || job.resolution->ready()) return serve(job);
    }
    dispatch(std::move(job));
}

// Reads the request, decoding it once the bytes its header announces are there. Each read takes
// all that has arrived (a caller sends its request at once): one system call for most requests,
// and bytes after the request, which no caller should send, are read and ignored. False while
// bytes are missing (only without `wait`); true once it is decoded or found malformed.
bool ResolveServer::readRequest(Job& job, bool wait) {
    const auto deadline = job.start + std::chrono::milliseconds(kReadDeadlineMillis);
    std::vector<uint8_t>& bytes = job.bytes;
    for (;;) {
        std::optional<size_t> size;
        if (bytes.size() >= QEL_REQUEST_HEADER) {
            size = requestSize(bytes.data());
            if (!size) break;
            if (bytes.size() >= *size) {
                bytes.resize(*size);
                job.request = decodeRequest(bytes);
                break;
            }
        }
        const Read read = readSome(job.fd, QEL_MAX_REQUEST - bytes.size(), bytes, wait, deadline);
        if (read == Read::NoneYet) return false;
        if (read == Read::Failed) break;
    }
    job.malformed = !job.request;
    return true;
}

// A thread that finished a request waits a while for the next one: creating a thread costs more
// than waiting for a lookup. A request never waits for a busy thread: without an idle one, a new
// one starts (the workers stay within kMaxWorkers, see admit).
void ResolveServer::dispatch(Job job) {
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(std::move(job));
    // Every waiting thread takes one queued request: a new thread only when they are fewer.
    if (idleThreads_ >= jobs_.size()) {
        work_.notify_one();
        return;
    }
    ++threads_;
    std::thread([this] { runThread(); }).detach();
}

// A thread counts itself idle only while it waits, so the count is always the threads that
// will take a queued request; one that waited kThreadLinger for nothing ends.
void ResolveServer::runThread() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        bool lingered = false;
        while (jobs_.empty() && !stopping_ && !lingered) {
            ++idleThreads_;
            lingered = work_.wait_for(lock, kThreadLinger) == std::cv_status::timeout;
            --idleThreads_;
        }
        if (jobs_.empty()) break;  // lingered long enough, or stopping
        Job job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        serve(job);
        lock.lock();
    }
    if (--threads_ == 0) idle_.notify_all();
}

bool ResolveServer::admit(pid_t pid) {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t& mine = perPeer_[pid];
    if (workers_ >= kMaxWorkers || mine >= maxPerPeer_.load()) {
        if (mine == 0) perPeer_.erase(pid);
        return false;
    }
    ++mine;
    ++workers_;
    return true;
}

void ResolveServer::release(pid_t pid) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--perPeer_[pid] == 0) perPeer_.erase(pid);
    --workers_;
    idle_.notify_all();
}

// Reads what is missing of the request, waits for its answer and answers.
void ResolveServer::serve(Job& job) {
    if (!job.malformed && !job.request) {
        readRequest(job, true);
        if (job.request) job.resolution = resolver_(*job.request);
    }
    finish(job, job.malformed ? refusal(QEL_STATUS_BAD_REQUEST, "malformed request")
                              : job.resolution->answer());
}

void ResolveServer::finish(Job& job, const ResolveAnswer& answer) {
    sendAnswer(job.fd, answer);
    // Counted out before the caller can see the end of its answer, so that its next request
    // never finds this one still counted.
    release(job.peer.pid);
    ::close(job.fd);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - job.start);
    std::string line = "pid " + std::to_string(job.peer.pid) + " uid " + std::to_string(job.peer.uid) +
                       " gid " + std::to_string(job.peer.gid) + ": ";
    line += job.request ? job.request->name + " " + familyName(job.request->family) : std::string("?");
    line += ": " + std::string(statusName(answer.status));
    if (answer.status == QEL_STATUS_ANSWERED) {
        line += ", " + std::to_string(answer.addresses.size()) + " address(es)";
    } else if (!answer.message.empty()) {
        line += " (" + std::to_string(answer.code) + " " + answer.message + ")";
    }
    line += ", " + std::to_string(micros.count()) + " us";
    log_(line);
}

}  // namespace qel::daemon
