// Closes connections whose request head does not arrive whole in time. An idle timeout alone
// lets a client that sends one byte every few seconds hold a connection for ever; this counts
// from the moment a connection starts waiting for a head (accepted, or its previous answer
// sent) and ends the connection when the deadline passes, however many bytes trickled in.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace qel::server {

class HeadDeadlines {
public:
    /// Starts the thread that watches the deadlines.
    explicit HeadDeadlines(std::chrono::milliseconds limit);
    /// Stops the thread; the connections still listed are left as they are.
    ~HeadDeadlines();
    HeadDeadlines(const HeadDeadlines&) = delete;
    HeadDeadlines& operator=(const HeadDeadlines&) = delete;

    /// A new connection on socket `fd` waits for its first head from now on.
    void accepted(const void* connection, int fd);
    /// Its request head arrived whole: no deadline until `waiting`.
    void arrived(const void* connection);
    /// Its answer is done: it waits for the next head from now on. Ignored for a connection
    /// that is not listed (already closed).
    void waiting(const void* connection);
    /// The connection is about to close: forgotten before its socket can be reused. Any thread.
    void closed(const void* connection);

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        int fd;
        Clock::time_point since;
        bool pending;  // waiting for a head, under the deadline
    };
    void watch();

    const std::chrono::milliseconds limit_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;                           // guarded by mutex_
    std::unordered_map<const void*, Entry> entries_;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace qel::server
