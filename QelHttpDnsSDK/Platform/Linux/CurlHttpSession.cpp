#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"

#include <curl/curl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <future>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/OpenSslLifetime.h"
#include "QelHttpDnsSDK/Platform/ProcessFork.h"
#include "QelHttpDnsSDK/Platform/TransportSettings.h"

namespace qel::platform {

namespace {

// Timeouts this long are no bound in practice; beyond them the millisecond arithmetic of the
// timers would overflow.
constexpr double kLongestTimeoutMillis = 2147483647.0;  // about 24.8 days
// curl re-arms its timer whenever it is due, so a far-away deadline can be slept in slices.
constexpr double kLongestTimerSleepSeconds = 3600.0;

void initialiseCurlOnce() {
    static const bool initialised = [] {
        keepOpenSslUntilExit();
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            Console::log("http session: curl_global_init failed");
            return false;
        }
        return true;
    }();
    (void)initialised;
}

long curlTimeoutMillis(double seconds) {
    if (std::isnan(seconds) || seconds <= 0.0) return 1;  // 0 would mean "no bound" to curl
    const double millis = std::ceil(seconds * 1000.0);
    if (millis > kLongestTimeoutMillis) return 0;  // +inf and its practical equivalents
    return static_cast<long>(millis);
}

bool hasHttpScheme(const std::string& url) {
    return ::strncasecmp(url.c_str(), "http://", 7) == 0 ||
           ::strncasecmp(url.c_str(), "https://", 8) == 0;
}

bool isSafeHeader(const std::string& name, const std::string& value) {
    if (name.empty() || name.find_first_of(std::string(":\r\n \t\0", 6)) != std::string::npos) {
        return false;
    }
    return value.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

bool namesHeader(const std::string& name, const char* wanted) {
    return ::strcasecmp(name.c_str(), wanted) == 0;
}

void runCompletion(const HttpSession::Completion& completion, HttpResponse response) {
    // A throwing completion must not stop the ones after it: more may be waiting in the same
    // batch of finished transfers, and nothing else would pick them up.
    try {
        if (completion) completion(std::move(response));
    } catch (const std::exception& error) {
        Console::log(std::string("http session: a completion threw: ") + error.what());
    } catch (...) {
        Console::log("http session: a completion threw a non-standard exception");
    }
}

}  // namespace

// Easy handles of finished transfers, kept for the next requests. A new handle costs a dozen
// allocations (some large) on the sending thread; a kept one only needs the options of its
// next request, since the options every request shares stay set (curl keeps options across
// transfers of a handle). Those include the transport settings (proxy, CA file, pin): a handle
// prepared under settings that have changed since is not reused.
class EasyHandlePool {
public:
    using Settings = std::shared_ptr<const TransportSettings::Values>;

    // The handles write bodies with `writeBody`, and close the sockets of the connections
    // they open with `closeSocket` (given `closeData`).
    EasyHandlePool(curl_write_callback writeBody, curl_closesocket_callback closeSocket,
                   void* closeData)
        : writeBody_(writeBody), closeSocket_(closeSocket), closeData_(closeData) {}

    ~EasyHandlePool() {
        for (const Idle& idle : idle_) curl_easy_cleanup(idle.easy);
    }

    // A handle prepared under the settings in force, which `settings` receives.
    CURL* take(Settings& settings) {
        settings = TransportSettings::current();
        std::vector<CURL*> stale;
        CURL* easy = nullptr;
        {
            qel::platform::MutexLock lock(mutex_);
            while (!easy && !idle_.empty()) {
                const Idle idle = std::move(idle_.back());
                idle_.pop_back();
                (idle.settings == settings ? easy : stale.emplace_back()) = idle.easy;
            }
        }
        for (CURL* handle : stale) curl_easy_cleanup(handle);
        if (easy) return easy;
        easy = curl_easy_init();
        if (easy) setSharedOptions(easy, *settings);
        return easy;
    }

    void give(CURL* easy, Settings settings) {
        // Leave no pointer into the finished transfer behind.
        curl_easy_setopt(easy, CURLOPT_PRIVATE, nullptr);
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, nullptr);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, nullptr);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
        {
            qel::platform::MutexLock lock(mutex_);
            if (idle_.size() < kMaxIdle && settings == TransportSettings::current()) {
                idle_.push_back({easy, std::move(settings)});
                return;
            }
        }
        curl_easy_cleanup(easy);
    }

private:
    struct Idle {
        CURL* easy;
        Settings settings;  // what it was prepared under
    };
    void setSharedOptions(CURL* easy, const TransportSettings::Values& settings) const;

    static constexpr size_t kMaxIdle = 16;
    const curl_write_callback writeBody_;
    const curl_closesocket_callback closeSocket_;
    void* const closeData_;
    qel::platform::Mutex mutex_;
    std::vector<Idle> idle_ QEL_GUARDED_BY(mutex_);
};

struct CurlHttpSession::Transfer {
    std::shared_ptr<EasyHandlePool> pool;
    CURL* easy = nullptr;
    EasyHandlePool::Settings settings;  // the transport settings `easy` was prepared under
    curl_slist* headerList = nullptr;
    std::string requestBody;
    std::string responseBody;
    bool bodyTooLarge = false;
    std::optional<std::string> refusal;  // set when the request is failed without being sent
    char errorBuffer[CURL_ERROR_SIZE] = {};
    long timeoutMillis = 0;  // 0: no bound
    EventLoop::TimerId deadline = 0;
    Completion completion;

    ~Transfer() {
        if (easy) pool->give(easy, std::move(settings));
        curl_slist_free_all(headerList);
    }

    static size_t onBody(char* data, size_t size, size_t count, void* user) {
        auto* transfer = static_cast<Transfer*>(user);
        const size_t length = size * count;
        const size_t room = kMaxResponseBodyBytes - transfer->responseBody.size();
        if (length > room) {
            transfer->bodyTooLarge = true;
            return 0;  // a short count makes curl end the transfer with CURLE_WRITE_ERROR
        }
        transfer->responseBody.append(data, length);
        return length;
    }

    // Configures the easy handle for this request. Runs on the sending thread: an easy handle
    // that is not in a multi handle belongs to whoever holds it.
    void configure(HttpRequest& request) {
        if (!hasHttpScheme(request.url)) {
            refusal = "unsupported URL: only http:// and https:// are fetched";
            return;
        }
        easy = pool->take(settings);
        if (!easy) {
            refusal = "out of memory for a transfer";
            return;
        }
        requestBody = std::move(request.body);
        curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
        curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
        timeoutMillis = curlTimeoutMillis(request.timeoutSeconds);
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeoutMillis);

        bool callerSetExpect = false;
        for (const auto& [name, value] : request.headers) {
            if (!isSafeHeader(name, value)) continue;
            callerSetExpect = callerSetExpect || namesHeader(name, "Expect");
            // "Name:" would tell curl to drop the header; "Name;" sends it with an empty value.
            const std::string line = value.empty() ? name + ";" : name + ": " + value;
            headerList = curl_slist_append(headerList, line.c_str());
        }
        if (!callerSetExpect) headerList = curl_slist_append(headerList, "Expect:");
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList);

        if (request.method == HttpMethod::Post) {
            curl_easy_setopt(easy, CURLOPT_POST, 1L);
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(requestBody.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, requestBody.data());
        } else {
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        }
    }

    HttpResponse finish(CURLcode result) {
        HttpResponse response;
        long status = 0;
        if (easy) curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
        response.statusCode = static_cast<int>(status);
        response.body = std::move(responseBody);
        if (refusal) {
            response.error = *refusal;
        } else if (bodyTooLarge || result == CURLE_FILESIZE_EXCEEDED) {
            response.error =
                "response body larger than " + std::to_string(kMaxResponseBodyBytes) + " bytes";
        } else if (result != CURLE_OK) {
            response.error =
                errorBuffer[0] ? std::string(errorBuffer) : std::string(curl_easy_strerror(result));
        }
        return response;
    }
};

void EasyHandlePool::setSharedOptions(CURL* easy, const TransportSettings::Values& settings) const {
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, writeBody_);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, closeSocket_);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, closeData_);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    // The path goes out as given: curl would otherwise resolve "/./" and "/../", and an AuthId
    // of ".." would send "<base>/../service" to "<base>/service".
    curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, CurlHttpSession::kMaxRedirects);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    // Without a proxy of its own, curl reads the environment's, as the system session does.
    if (settings.proxy) curl_easy_setopt(easy, CURLOPT_PROXY, settings.proxy->c_str());
    if (!settings.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, settings.caFile.c_str());
    if (!settings.pinnedPublicKey.empty()) {
        curl_easy_setopt(easy, CURLOPT_PINNEDPUBLICKEY, settings.pinnedPublicKey.c_str());
    }
    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(CurlHttpSession::kMaxResponseBodyBytes));
}

// The multi handle and its bookkeeping. All members are loop-thread state, except that the
// constructor runs on the thread that makes the session (before the loop sees the object).
// Tasks posted to the loop hold a shared reference, so a task that runs after the session is
// gone finds a closed core rather than freed memory.
class CurlHttpSession::Core {
public:
    explicit Core(EventLoop& loop) : loop_(loop) {
        initialiseCurlOnce();
        multi_ = curl_multi_init();
        if (!multi_) return;
        curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &Core::onSocket);
        curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
        curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &Core::onTimer);
        curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
        curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
        // Idle connections kept for reuse, across all hosts.
        curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 4 * kMaxConnectionsPerHost);
    }

    EventLoop& loop() { return loop_; }
    const std::shared_ptr<EasyHandlePool>& handlePool() const { return pool_; }

    void start(const std::shared_ptr<Transfer>& transfer) {
        if (closed_ || !multi_ || transfer->refusal) {
            if (!transfer->refusal) transfer->refusal = closed_ ? "session closed" : "no session";
            runCompletion(transfer->completion, transfer->finish(CURLE_OK));
            return;
        }
        const CURLMcode added = curl_multi_add_handle(multi_, transfer->easy);
        if (added != CURLM_OK) {
            transfer->refusal = curl_multi_strerror(added);
            runCompletion(transfer->completion, transfer->finish(CURLE_OK));
            return;
        }
        active_.emplace(transfer.get(), transfer);
        if (transfer->timeoutMillis > 0) {
            // curl applies the bound too, but in socket mode it can lose the deadline of a
            // transfer whose time runs out while it connects; this timer makes sure.
            Transfer* raw = transfer.get();
            transfer->deadline = loop_.runAfter(transfer->timeoutMillis / 1000.0, [this, raw] {
                raw->deadline = 0;
                complete(raw, CURLE_OPERATION_TIMEDOUT);
            });
        }
        // Let curl start at once (a reused connection gets its request written now) rather
        // than one loop turn later through the zero timeout it has just asked for.
        act(CURL_SOCKET_TIMEOUT, 0);
    }

    void close() {
        if (closed_) return;
        closed_ = true;
        if (timer_) loop_.cancelTimer(timer_);
        timer_ = 0;
        std::vector<std::shared_ptr<Transfer>> pending;
        for (auto& entry : active_) {
            curl_multi_remove_handle(multi_, entry.first->easy);
            if (entry.first->deadline) loop_.cancelTimer(entry.first->deadline);
            pending.push_back(entry.second);
        }
        active_.clear();
        if (multi_) curl_multi_cleanup(multi_);  // closes its connections through onCloseSocket
        multi_ = nullptr;
        for (auto& entry : sockets_) {
            if (entry.second.id) loop_.unwatchFd(entry.second.id);
        }
        sockets_.clear();
        for (auto& transfer : pending) {
            transfer->refusal = "session closed";
            runCompletion(transfer->completion, transfer->finish(CURLE_OK));
        }
    }

private:
    // curl stops asking about a kept-alive connection between requests (CURL_POLL_REMOVE) and
    // asks again for the next one. The descriptor stays registered with the loop meanwhile
    // ("parked"), which saves two epoll_ctl calls per request; a parked descriptor that
    // becomes ready (the server closed the idle connection) is unregistered then. curl closes
    // its sockets through onCloseSocket, so no registration outlives its descriptor.
    static int onSocket(CURL*, curl_socket_t socket, int what, void* user, void*) {
        auto* core = static_cast<Core*>(user);
        auto found = core->sockets_.find(socket);
        if (what == CURL_POLL_REMOVE) {
            if (found != core->sockets_.end()) found->second.parked = true;
            return 0;
        }
        uint32_t events = 0;
        if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) events |= EPOLLIN;
        if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) events |= EPOLLOUT;
        if (found == core->sockets_.end()) {
            found = core->sockets_.emplace(socket, SocketWatch{}).first;
        }
        SocketWatch& watch = found->second;
        watch.parked = false;
        if (watch.id && watch.events == events) return 0;
        if (watch.id && core->loop_.updateFd(watch.id, events)) {
            watch.events = events;
            return 0;
        }
        if (watch.id) core->loop_.unwatchFd(watch.id);
        watch.id = core->loop_.watchFd(
            socket, events, [core, socket](uint32_t fired) { core->onReady(socket, fired); });
        watch.events = events;
        if (watch.id == 0) {
            core->sockets_.erase(found);
            Console::log("http session: cannot watch socket " + std::to_string(socket));
            return -1;  // curl fails the transfers on this socket
        }
        return 0;
    }

    static int onCloseSocket(void* user, curl_socket_t socket) {
        auto* core = static_cast<Core*>(user);
        auto found = core->sockets_.find(socket);
        if (found != core->sockets_.end()) {
            if (found->second.id) core->loop_.unwatchFd(found->second.id);
            core->sockets_.erase(found);
        }
        return ::close(socket);
    }

    static int onTimer(CURLM*, long timeoutMillis, void* user) {
        static_cast<Core*>(user)->armTimer(timeoutMillis);
        return 0;
    }

    void armTimer(long timeoutMillis) {
        if (timer_) loop_.cancelTimer(timer_);
        timer_ = 0;
        if (timeoutMillis < 0) return;  // no timer wanted
        const double seconds = std::min(timeoutMillis / 1000.0, kLongestTimerSleepSeconds);
        timer_ = loop_.runAfter(seconds, [this] {
            timer_ = 0;
            act(CURL_SOCKET_TIMEOUT, 0);
            // curl reports its deadline in whole milliseconds and calls back only when the
            // deadline changes. A timer that fired a fraction of a millisecond before curl's
            // own deadline leaves curl with nothing to do and no new timer, so ask again.
            long left = -1;
            if (!timer_ && multi_ && curl_multi_timeout(multi_, &left) == CURLM_OK && left >= 0) {
                armTimer(std::max(left, 1L));
            }
        });
    }

    void onReady(curl_socket_t socket, uint32_t fired) {
        auto found = sockets_.find(socket);
        if (found == sockets_.end()) return;
        if (found->second.parked) {
            loop_.unwatchFd(found->second.id);
            found->second.id = 0;
            return;
        }
        int mask = 0;
        if (fired & EPOLLIN) mask |= CURL_CSELECT_IN;
        if (fired & EPOLLOUT) mask |= CURL_CSELECT_OUT;
        // On a hang-up or a socket error, let curl read and write: that is where it finds the
        // end of the body or the error, whichever direction it was waiting on.
        if (fired & (EPOLLERR | EPOLLHUP)) mask |= CURL_CSELECT_IN | CURL_CSELECT_OUT;
        act(socket, mask);
    }

    void act(curl_socket_t socket, int mask) {
        if (!multi_) return;
        int running = 0;
        curl_multi_socket_action(multi_, socket, mask, &running);
        deliverFinished();
    }

    void deliverFinished() {
        int queued = 0;
        while (multi_) {
            CURLMsg* message = curl_multi_info_read(multi_, &queued);
            if (!message) break;
            if (message->msg != CURLMSG_DONE) continue;
            Transfer* raw = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &raw);
            complete(raw, message->data.result);
        }
    }

    // Ends an active transfer and runs its completion.
    void complete(Transfer* raw, CURLcode result) {
        auto found = active_.find(raw);
        if (found == active_.end()) return;
        std::shared_ptr<Transfer> transfer = std::move(found->second);
        active_.erase(found);
        curl_multi_remove_handle(multi_, transfer->easy);
        if (transfer->deadline) loop_.cancelTimer(transfer->deadline);
        if (result == CURLE_OPERATION_TIMEDOUT && !transfer->errorBuffer[0]) {
            std::snprintf(transfer->errorBuffer, sizeof transfer->errorBuffer,
                          "timed out after %ld ms", transfer->timeoutMillis);
        }
        // The handle goes back to the pool after the completion: its answer comes first.
        runCompletion(transfer->completion, transfer->finish(result));
    }

    EventLoop& loop_;
    std::shared_ptr<EasyHandlePool> pool_ =
        std::make_shared<EasyHandlePool>(&Transfer::onBody, &Core::onCloseSocket, this);
    CURLM* multi_ = nullptr;
    bool closed_ = false;
    EventLoop::TimerId timer_ = 0;
    struct SocketWatch {
        EventLoop::WatchId id = 0;  // 0: not registered with the loop
        uint32_t events = 0;
        bool parked = false;  // curl is not interested in it now
    };
    std::unordered_map<curl_socket_t, SocketWatch> sockets_;
    std::unordered_map<Transfer*, std::shared_ptr<Transfer>> active_;
};

CurlHttpSession::CurlHttpSession(EventLoop& loop) : core_(std::make_shared<Core>(loop)) {}

CurlHttpSession::~CurlHttpSession() {
    if (!core_) return;
    EventLoop& loop = core_->loop();
    if (loop.isLoopThread()) {
        core_->close();
        return;
    }
    std::promise<void> closed;
    loop.post([core = core_, &closed] {
        core->close();
        closed.set_value();
    });
    closed.get_future().wait();
}

CurlHttpSession& CurlHttpSession::shared() {
    static auto* const sessions = new PerProcess<CurlHttpSession>();
    try {
        // A forked child makes its own on its own loop. The parent's idle connections stay
        // open in the child, unused: closing them would need the parent's loop thread.
        return sessions->get([] { return new CurlHttpSession(EventLoop::shared()); },
                             [](CurlHttpSession&) {});
    } catch (const std::exception& error) {
        // The platform thread cannot start (no descriptor or thread left). The application
        // must not see that as an exception: until the next call starts it, requests go to a
        // session without a loop, which fails each of them at once.
        static CurlHttpSession* const unstarted = [&error] {
            Console::log(std::string("http session: the platform thread cannot start (") +
                         error.what() + "); requests fail until it can");
            return new CurlHttpSession();
        }();
        return *unstarted;
    }
}

void CurlHttpSession::send(HttpRequest request, Completion completion) {
    if (!core_) {
        HttpResponse response;
        response.error = "no platform thread to run the request on";
        runCompletion(completion, std::move(response));
        return;
    }
    auto transfer = std::make_shared<Transfer>();
    transfer->pool = core_->handlePool();
    transfer->completion = std::move(completion);
    transfer->configure(request);
    core_->loop().post([core = core_, transfer = std::move(transfer)] { core->start(transfer); });
}

}  // namespace qel::platform
