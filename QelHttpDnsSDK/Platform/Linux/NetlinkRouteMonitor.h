// The process's view of the kernel's links and default routes, kept up to date from one
// rtnetlink (NETLINK_ROUTE) socket subscribed to link, address and route changes for IPv4 and
// IPv6. It answers the internet-as-a-whole question from a snapshot (one atomic load, so it
// can sit on every lookup's path) and asks the kernel for the route to a given address.
//
// Until the monitor has read the routes, and whenever it cannot be sure of them (a socket, a
// watch or a dump the kernel refused), the routes are unknown and the internet counts as
// reachable: a lookup then fails on the transport if it really is not, instead of being
// refused for the life of the process. Each such failure is retried on the platform thread,
// 0.5 s after it and then twice as long each time up to 30 s, until the routes are read
// again; the first failure is written once to the `Console`.
//
// Threads: `shared()` tries to read the state on the calling thread, then watches the socket
// on the platform thread (`EventLoop::shared()`), where every later change and every retry is
// applied and listeners are told. Readers may call from any thread. The sockets belong to the
// network namespace of the thread that first calls `shared()`.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"

struct nlmsghdr;

namespace qel::platform {

class NetlinkRouteMonitor {
public:
    /// Told on the platform thread after each batch of kernel changes has been applied.
    class Listener {
    public:
        virtual ~Listener() = default;
        virtual void routesChanged() = 0;
    };

    /// The process-wide monitor, started on first use and never destroyed; a forked child
    /// starts its own on first use (see ProcessFork.h).
    static NetlinkRouteMonitor& shared();

    /// `ReachabilityFlags` of the internet as a whole: Reachable when an IPv4 or IPv6 unicast
    /// default route leads through an interface that is up and running and is not loopback;
    /// IsWWAN too when the preferred such route (lowest metric, IPv4 first) uses a cellular
    /// modem. Reachable alone while the routes are unknown. Lock-free.
    uint32_t internetFlags() const { return internetFlags_.load(std::memory_order_acquire); }

    /// False until the routes have been read, and after a failure until a retry reads them.
    bool routesKnown() const { return known_.load(std::memory_order_acquire); }

    /// Grows by one after every applied batch of changes (any link, address or route).
    uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

    /// How many times the state was rebuilt from full dumps after the kernel dropped events
    /// (socket overrun), since start.
    uint64_t overrunCount() const { return overruns_.load(std::memory_order_relaxed); }

    /// Asks the kernel for the route to `address` (AF_INET or AF_INET6) and turns the answer
    /// into `ReachabilityFlags`: none when there is no route through an up, running,
    /// non-loopback link (addresses of this host excepted); else Reachable, plus IsDirect
    /// without a gateway, IsLocalAddress for an address of this host, IsWWAN over a cellular
    /// modem. False when the kernel could not be asked.
    bool routeFlags(const sockaddr* address, uint32_t& flags);

    /// The network the preferred default route (as for `internetFlags`) leads to, as
    /// "<interface> via <gateway>" ("wlan0 via 192.168.1.1"), or the interface alone without a
    /// gateway; "" while there is none or the routes are unknown. Takes a lock.
    std::string networkIdentity() const;

    /// Adds a listener; expired ones are dropped on the way.
    void addListener(std::weak_ptr<Listener> listener);

    /// Whether an interface is a cellular modem: the kernel's `wwan` link kind or device type,
    /// the raw-IP hardware type modems use, or the usual modem names (ww*, rmnet*, ccmni*).
    static bool isCellularInterface(const std::string& name, const std::string& kind,
                                    unsigned short hardwareType, const std::string& deviceType);

    NetlinkRouteMonitor(const NetlinkRouteMonitor&) = delete;
    NetlinkRouteMonitor& operator=(const NetlinkRouteMonitor&) = delete;

private:
    struct Link {
        bool usable = false;  // administratively up and running (carrier)
        bool adminUp = false;
        bool loopback = false;
        bool cellular = false;
        std::string name;
    };
    // A route as rtnetlink describes it; the state keeps the default unicast ones.
    struct Route {
        uint8_t family = 0;
        uint8_t dstLength = 0;
        uint8_t tos = 0;
        uint8_t type = 0;
        uint32_t table = 0;
        uint32_t priority = 0;
        uint32_t flags = 0;
        int oif = 0;
        std::string gateway;          // raw address bytes; empty without a gateway
        std::vector<int> interfaces;  // oif, or every next hop of a multipath route

        bool isDefaultUnicast() const;
    };
    using MessageHandler = std::function<void(const nlmsghdr& message)>;
    enum class Outcome { Answered, Refused, Interrupted, Failed };

    explicit NetlinkRouteMonitor(EventLoop& loop) : loop_(loop) {}
    // The first attempt, on the calling thread; the watch and any retry follow on the loop.
    void start();
    bool openSockets();
    void leaveBehind();   // in a forked child, for the parent's monitor
    void closeSockets();  // loop thread
    bool watch();         // loop thread
    // Reads everything that is missing (sockets, watch, state); on the loop thread.
    void retry();
    // The routes are unknown again: say so once, report them reachable, retry later.
    void fail(const std::string& what);  // loop thread
    static Link makeLink(int index, unsigned flags, unsigned short hardwareType,
                         const std::string& name, const std::string& kind);
    static std::optional<Route> parseRoute(const nlmsghdr& message);

    // Sends one request on the request socket and hands each answer of it to `onMessage`.
    // Refused: the kernel answered with an error; Interrupted: a dump changed while it was
    // read; Failed: the socket failed or the kernel did not answer in time.
    Outcome transact(nlmsghdr& request, const MessageHandler& onMessage);
    // Replaces links and default routes with fresh dumps.
    bool resync();
    void onReadable();
    // Returns true when the routing table may have changed without notice and must be dumped
    // again: the kernel drops IPv4 routes silently when a link goes down or an address goes.
    bool applyLink(const nlmsghdr& message);
    void applyRoute(const nlmsghdr& message);
    void publish();
    void notifyListeners();
    // Also names the network of the preferred route in `identity` ("" when none).
    uint32_t computeInternetFlags(std::string& identity) const QEL_REQUIRES(stateMutex_);
    static std::string describeNetwork(const std::string& interface, const Route& route);

    EventLoop& loop_;
    int eventFd_ = -1;  // subscribed; loop thread only, once `start` posted to it
    int requestFd_ QEL_GUARDED_BY(requestMutex_) = -1;  // dumps and route queries
    EventLoop::WatchId watch_ = 0;                      // of eventFd_; loop thread only
    EventLoop::TimerId retry_ = 0;                      // the pending retry; loop thread only
    double retryDelay_ = 0;                             // loop thread only
    bool failureSaid_ = false;                          // loop thread only

    qel::platform::Mutex requestMutex_;
    uint32_t sequence_ QEL_GUARDED_BY(requestMutex_) = 0;
    std::vector<char> requestBuffer_ QEL_GUARDED_BY(requestMutex_);
    std::vector<char> eventBuffer_;  // platform thread only

    mutable qel::platform::Mutex stateMutex_;
    std::unordered_map<int, Link> links_ QEL_GUARDED_BY(stateMutex_);  // by interface index
    std::vector<Route> routes_ QEL_GUARDED_BY(stateMutex_);            // default unicast only
    std::string identity_ QEL_GUARDED_BY(stateMutex_);                 // see networkIdentity

    std::atomic<bool> known_{false};
    std::atomic<uint32_t> internetFlags_{ReachabilityFlags::Reachable};
    std::atomic<uint64_t> generation_{0};
    std::atomic<uint64_t> overruns_{0};

    qel::platform::Mutex listenersMutex_;
    std::vector<std::weak_ptr<Listener>> listeners_ QEL_GUARDED_BY(listenersMutex_);
};

}  // namespace qel::platform
