#include "HeadDeadlines.h"

#include <sys/socket.h>

#include <algorithm>

namespace qel::server {

HeadDeadlines::HeadDeadlines(std::chrono::milliseconds limit)
    : limit_(limit), thread_([this] { watch(); }) {}

HeadDeadlines::~HeadDeadlines() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void HeadDeadlines::accepted(const void* connection, int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_[connection] = {fd, Clock::now(), true};
}

void HeadDeadlines::arrived(const void* connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = entries_.find(connection);
    if (entry != entries_.end()) entry->second.pending = false;
}

void HeadDeadlines::waiting(const void* connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = entries_.find(connection);
    if (entry == entries_.end()) return;
    entry->second.since = Clock::now();
    entry->second.pending = true;
}

void HeadDeadlines::closed(const void* connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.erase(connection);
}

void HeadDeadlines::watch() {
    // A tenth of the limit, within bounds: a late cut costs little, a busy scan costs more.
    const auto period =
        std::clamp(limit_ / 10, std::chrono::milliseconds(20), std::chrono::milliseconds(500));
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, period, [this] { return stopping_; })) {
        const Clock::time_point now = Clock::now();
        for (auto& [connection, entry] : entries_) {
            if (!entry.pending || now - entry.since < limit_) continue;
            // The server's own event loop sees the end of the socket and closes it; the socket
            // stays open until closed() has removed the entry, so it is never another one's.
            shutdown(entry.fd, SHUT_RDWR);
            entry.pending = false;
        }
    }
}

}  // namespace qel::server
