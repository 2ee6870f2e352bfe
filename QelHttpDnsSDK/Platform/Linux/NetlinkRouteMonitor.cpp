#include "QelHttpDnsSDK/Platform/Linux/NetlinkRouteMonitor.h"

// net/if.h before the kernel headers, which then leave its definitions alone.
#include <arpa/inet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <tuple>

#include "QelHttpDnsSDK/Platform/ProcessFork.h"
#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"

namespace qel::platform {

namespace {

// A dump of every object of one kind, all families (the zeroed body means AF_UNSPEC).
template <typename Body>
struct DumpRequest {
    nlmsghdr header;
    Body body;
};

template <typename Body>
DumpRequest<Body> dumpRequest(uint16_t type) {
    DumpRequest<Body> request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    return request;
}

constexpr size_t kBufferSize = 64 * 1024;  // larger than any single rtnetlink datagram
constexpr int kResyncAttempts = 3;
constexpr double kFirstRetryDelay = 0.5;  // seconds; doubles after each failed retry
constexpr double kLastRetryDelay = 30.0;

template <typename T>
const T* payload(const nlmsghdr& message) {
    if (message.nlmsg_len < NLMSG_LENGTH(sizeof(T))) return nullptr;
    return static_cast<const T*>(NLMSG_DATA(&message));
}

// Calls `visit(type, data, length)` for each attribute in [attr, attr + length).
template <typename Visit>
void forEachAttribute(const rtattr* attr, int length, Visit visit) {
    for (; RTA_OK(attr, length); attr = RTA_NEXT(attr, length)) {
        visit(attr->rta_type, RTA_DATA(attr), static_cast<size_t>(RTA_PAYLOAD(attr)));
    }
}

uint32_t readU32(const void* data, size_t length) {
    uint32_t value = 0;
    if (length >= sizeof value) std::memcpy(&value, data, sizeof value);
    return value;
}

std::string readString(const void* data, size_t length) {
    const char* text = static_cast<const char*>(data);
    return std::string(text, strnlen(text, length));
}

std::string readFirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// The DEVTYPE of a network device from sysfs, when sysfs shows this very device (sysfs may
// belong to another network namespace, where the same name is another device).
std::string sysfsDeviceType(const std::string& name, int index) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
        return {};
    }
    const std::string dir = "/sys/class/net/" + name + "/";
    if (readFirstLine(dir + "ifindex") != std::to_string(index)) return {};
    std::ifstream uevent(dir + "uevent");
    for (std::string line; std::getline(uevent, line);) {
        if (line.rfind("DEVTYPE=", 0) == 0) return line.substr(8);
    }
    return {};
}

// Index, flags, name and kind of a link message; `deviceType` is read from sysfs when asked.
struct ParsedLink {
    int index = 0;
    unsigned flags = 0;
    unsigned short hardwareType = 0;
    std::string name;
    std::string kind;
};

std::optional<ParsedLink> parseLink(const nlmsghdr& message) {
    const ifinfomsg* info = payload<ifinfomsg>(message);
    if (!info) return std::nullopt;
    ParsedLink link;
    link.index = info->ifi_index;
    link.flags = info->ifi_flags;
    link.hardwareType = info->ifi_type;
    forEachAttribute(
        IFLA_RTA(info), static_cast<int>(IFLA_PAYLOAD(&message)),
        [&](unsigned short type, const void* data, size_t length) {
            if (type == IFLA_IFNAME) link.name = readString(data, length);
            if (type == IFLA_LINKINFO) {
                forEachAttribute(
                    static_cast<const rtattr*>(data), static_cast<int>(length),
                    [&](unsigned short inner, const void* innerData, size_t innerLength) {
                        if (inner == IFLA_INFO_KIND) link.kind = readString(innerData, innerLength);
                    });
            }
        });
    return link;
}

}  // namespace

NetlinkRouteMonitor& NetlinkRouteMonitor::shared() {
    static auto* const monitors = new PerProcess<NetlinkRouteMonitor>();
    return monitors->get(
        [] {
            auto* made = new NetlinkRouteMonitor(EventLoop::shared());
            made->start();
            return made;
        },
        [](NetlinkRouteMonitor& parents) { parents.leaveBehind(); });
}

// In a forked child: the sockets are the parent's too, and the parent's loop thread, which
// alone uses them, does not exist here.
void NetlinkRouteMonitor::leaveBehind() QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (eventFd_ >= 0) ::close(eventFd_);
    if (requestFd_ >= 0) ::close(requestFd_);
}

bool NetlinkRouteMonitor::isCellularInterface(const std::string& name, const std::string& kind,
                                              unsigned short hardwareType,
                                              const std::string& deviceType) {
    if (kind == "wwan" || deviceType == "wwan" || hardwareType == ARPHRD_RAWIP) return true;
    for (const char* prefix : {"ww", "rmnet", "ccmni"}) {
        if (name.rfind(prefix, 0) == 0) return true;
    }
    return false;
}

void NetlinkRouteMonitor::start() {
    {
        qel::platform::MutexLock lock(requestMutex_);
        requestBuffer_.resize(kBufferSize);
    }
    eventBuffer_.resize(kBufferSize);
    // Read on the calling thread, so that the first answers already know the routes; the
    // loop thread takes over the sockets with the posted task.
    std::optional<std::string> failure;
    if (!openSockets()) {
        failure = "cannot open rtnetlink (" + std::string(std::strerror(errno)) + ")";
    } else if (!resync()) {
        failure = "cannot dump the routes";
    } else {
        known_.store(true, std::memory_order_release);
        publish();
    }
    loop_.post([this, failure] {
        if (failure) {
            fail(*failure);
        } else if (!watch()) {
            fail("cannot watch the rtnetlink socket (" + std::string(std::strerror(errno)) + ")");
        }
    });
}

bool NetlinkRouteMonitor::openSockets() {
    const int events = ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    const int requests = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    // Subscribed before the dump, so nothing that changes after the dump is missed; changes
    // already in the dump are applied twice, which leaves the same state.
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE |
                      RTMGRP_IPV6_ROUTE;
    if (events < 0 || requests < 0 ||
        ::bind(events, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        const int error = errno;
        if (events >= 0) ::close(events);
        if (requests >= 0) ::close(requests);
        errno = error;
        return false;
    }
    // A kernel that never answers must not hang the platform thread.
    timeval timeout{2, 0};
    ::setsockopt(requests, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    eventFd_ = events;
    qel::platform::MutexLock lock(requestMutex_);
    requestFd_ = requests;
    return true;
}

void NetlinkRouteMonitor::closeSockets() {
    if (watch_ != 0) loop_.unwatchFd(watch_);
    watch_ = 0;
    if (eventFd_ >= 0) ::close(eventFd_);
    eventFd_ = -1;
    qel::platform::MutexLock lock(requestMutex_);
    if (requestFd_ >= 0) ::close(requestFd_);
    requestFd_ = -1;
}

bool NetlinkRouteMonitor::watch() {
    watch_ = loop_.watchFd(eventFd_, EPOLLIN, [this](uint32_t) { onReadable(); });
    return watch_ != 0;
}

void NetlinkRouteMonitor::retry() {
    retry_ = 0;
    if (eventFd_ < 0 && !openSockets()) {
        return fail("cannot open rtnetlink (" + std::string(std::strerror(errno)) + ")");
    }
    if (watch_ == 0 && !watch()) {
        return fail("cannot watch the rtnetlink socket (" + std::string(std::strerror(errno)) +
                    ")");
    }
    if (!resync()) return fail("cannot dump the routes");
    retryDelay_ = 0;
    known_.store(true, std::memory_order_release);
    publish();
    notifyListeners();
}

void NetlinkRouteMonitor::fail(const std::string& what) {
    known_.store(false, std::memory_order_release);
    publish();
    notifyListeners();
    if (!failureSaid_) {
        failureSaid_ = true;
        Console::log("reachability: " + what +
                     "; the network counts as reachable until the routes are read (retrying)");
    }
    if (retry_ != 0) return;
    retryDelay_ = retryDelay_ == 0 ? kFirstRetryDelay : std::min(retryDelay_ * 2, kLastRetryDelay);
    retry_ = loop_.runAfter(retryDelay_, [this] { retry(); });
}

NetlinkRouteMonitor::Outcome NetlinkRouteMonitor::transact(nlmsghdr& request,
                                                           const MessageHandler& onMessage) {
    qel::platform::MutexLock lock(requestMutex_);
    request.nlmsg_seq = ++sequence_;
    request.nlmsg_pid = 0;
    const bool dump = (request.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    ssize_t sent;
    do {
        sent = ::sendto(requestFd_, &request, request.nlmsg_len, 0,
                        reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) return Outcome::Failed;

    bool interrupted = false;
    for (;;) {
        const ssize_t received =
            ::recv(requestFd_, requestBuffer_.data(), requestBuffer_.size(), 0);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) return Outcome::Failed;  // includes the receive time-out
        int left = static_cast<int>(received);
        for (auto* message = reinterpret_cast<const nlmsghdr*>(requestBuffer_.data());
             NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
            // Answers to an earlier request that timed out are still queued: skip them.
            if (message->nlmsg_seq != request.nlmsg_seq) continue;
            if (message->nlmsg_type == NLMSG_DONE) {
                return interrupted ? Outcome::Interrupted : Outcome::Answered;
            }
            if (message->nlmsg_type == NLMSG_ERROR) {
                const nlmsgerr* error = payload<nlmsgerr>(*message);
                return !error || error->error == 0 ? Outcome::Answered : Outcome::Refused;
            }
            if (message->nlmsg_flags & NLM_F_DUMP_INTR) interrupted = true;
            onMessage(*message);
            if (!dump) return Outcome::Answered;
        }
    }
}

bool NetlinkRouteMonitor::resync() {
    for (int attempt = 0; attempt < kResyncAttempts; ++attempt) {
        std::unordered_map<int, Link> links;
        std::vector<Route> routes;

        auto linkRequest = dumpRequest<ifinfomsg>(RTM_GETLINK);
        Outcome outcome = transact(linkRequest.header, [&](const nlmsghdr& message) {
            if (message.nlmsg_type != RTM_NEWLINK) return;
            if (std::optional<ParsedLink> parsed = parseLink(message)) {
                links[parsed->index] = makeLink(parsed->index, parsed->flags, parsed->hardwareType,
                                                parsed->name, parsed->kind);
            }
        });
        if (outcome == Outcome::Interrupted) continue;
        if (outcome != Outcome::Answered) return false;

        auto routeRequest = dumpRequest<rtmsg>(RTM_GETROUTE);
        outcome = transact(routeRequest.header, [&](const nlmsghdr& message) {
            if (message.nlmsg_type != RTM_NEWROUTE) return;
            std::optional<Route> route = parseRoute(message);
            if (route && route->isDefaultUnicast()) routes.push_back(std::move(*route));
        });
        if (outcome == Outcome::Interrupted) continue;
        if (outcome != Outcome::Answered) return false;

        qel::platform::MutexLock lock(stateMutex_);
        links_.swap(links);
        routes_.swap(routes);
        return true;
    }
    return false;
}

std::optional<NetlinkRouteMonitor::Route> NetlinkRouteMonitor::parseRoute(const nlmsghdr& message) {
    const rtmsg* header = payload<rtmsg>(message);
    if (!header) return std::nullopt;
    Route route;
    route.family = header->rtm_family;
    route.dstLength = header->rtm_dst_len;
    route.tos = header->rtm_tos;
    route.type = header->rtm_type;
    route.table = header->rtm_table;
    route.flags = header->rtm_flags;
    forEachAttribute(RTM_RTA(header), static_cast<int>(RTM_PAYLOAD(&message)),
                     [&](unsigned short type, const void* data, size_t length) {
                         switch (type) {
                             case RTA_TABLE: route.table = readU32(data, length); break;
                             case RTA_PRIORITY: route.priority = readU32(data, length); break;
                             case RTA_OIF:
                                 route.oif = static_cast<int>(readU32(data, length));
                                 break;
                             case RTA_GATEWAY:
                                 route.gateway.assign(static_cast<const char*>(data), length);
                                 break;
                             case RTA_MULTIPATH: {
                                 auto* hop = static_cast<const rtnexthop*>(data);
                                 int left = static_cast<int>(length);
                                 while (RTNH_OK(hop, left)) {
                                     route.interfaces.push_back(hop->rtnh_ifindex);
                                     left -= static_cast<int>(RTNH_ALIGN(hop->rtnh_len));
                                     hop = RTNH_NEXT(hop);
                                 }
                                 break;
                             }
                             default: break;
                         }
                     });
    if (route.oif != 0) route.interfaces.push_back(route.oif);
    return route;
}

bool NetlinkRouteMonitor::Route::isDefaultUnicast() const {
    return (family == AF_INET || family == AF_INET6) && dstLength == 0 && type == RTN_UNICAST &&
           (flags & RTM_F_CLONED) == 0;
}

NetlinkRouteMonitor::Link NetlinkRouteMonitor::makeLink(int index, unsigned flags,
                                                        unsigned short hardwareType,
                                                        const std::string& name,
                                                        const std::string& kind) {
    Link link;
    link.adminUp = (flags & IFF_UP) != 0;
    // IFF_RUNNING: the kernel sees a carrier; a link without one carries no traffic even
    // though its routes stay in the table.
    link.usable = link.adminUp && (flags & IFF_RUNNING) != 0;
    link.loopback = (flags & IFF_LOOPBACK) != 0;
    link.cellular = isCellularInterface(name, kind, hardwareType, sysfsDeviceType(name, index));
    link.name = name;
    return link;
}

void NetlinkRouteMonitor::onReadable() {
    bool changed = false;
    bool mustResync = false;
    for (;;) {
        const ssize_t received =
            ::recv(eventFd_, eventBuffer_.data(), eventBuffer_.size(), MSG_DONTWAIT);
        if (received < 0) {
            if (errno == EINTR) continue;
            if (errno == ENOBUFS) {
                // The kernel dropped changes it could not queue: only a full dump is right now.
                overruns_.fetch_add(1, std::memory_order_relaxed);
                changed = mustResync = true;
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                // The socket is broken: start over with new ones.
                const std::string what =
                    "rtnetlink read failed (" + std::string(std::strerror(errno)) + ")";
                closeSockets();
                return fail(what);
            }
            break;
        }
        int left = static_cast<int>(received);
        for (auto* message = reinterpret_cast<const nlmsghdr*>(eventBuffer_.data());
             NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
            switch (message->nlmsg_type) {
                case RTM_NEWLINK:
                case RTM_DELLINK:
                    if (applyLink(*message)) mustResync = true;
                    break;
                case RTM_DELADDR: mustResync = true; break;
                case RTM_NEWROUTE:
                case RTM_DELROUTE: applyRoute(*message); break;
                default: break;
            }
            changed = true;
        }
    }
    // A failed dump leaves the routes unknown; a change may be missing from them.
    if (mustResync && !resync()) return fail("cannot dump the routes");
    if (changed) {
        publish();
        notifyListeners();
    }
}

bool NetlinkRouteMonitor::applyLink(const nlmsghdr& message) {
    std::optional<ParsedLink> parsed = parseLink(message);
    if (!parsed) return false;
    if (message.nlmsg_type == RTM_DELLINK) {
        qel::platform::MutexLock lock(stateMutex_);
        links_.erase(parsed->index);
        return true;
    }
    Link link =
        makeLink(parsed->index, parsed->flags, parsed->hardwareType, parsed->name, parsed->kind);
    qel::platform::MutexLock lock(stateMutex_);
    auto it = links_.find(parsed->index);
    const bool wentDown = it != links_.end() && it->second.adminUp && !link.adminUp;
    links_[parsed->index] = std::move(link);
    return wentDown;
}

void NetlinkRouteMonitor::applyRoute(const nlmsghdr& message) {
    std::optional<Route> parsed = parseRoute(message);
    if (!parsed || !parsed->isDefaultUnicast()) return;
    Route& route = *parsed;
    auto sameSlot = [&route](const Route& other) {
        return std::tie(other.family, other.table, other.priority, other.tos) ==
               std::tie(route.family, route.table, route.priority, route.tos);
    };
    auto sameRoute = [&](const Route& other) {
        return sameSlot(other) && other.oif == route.oif && other.gateway == route.gateway;
    };
    qel::platform::MutexLock lock(stateMutex_);
    if (message.nlmsg_type == RTM_NEWROUTE && (message.nlmsg_flags & NLM_F_REPLACE)) {
        routes_.erase(std::remove_if(routes_.begin(), routes_.end(), sameSlot), routes_.end());
    }
    routes_.erase(std::remove_if(routes_.begin(), routes_.end(), sameRoute), routes_.end());
    if (message.nlmsg_type == RTM_NEWROUTE) routes_.push_back(std::move(route));
}

uint32_t NetlinkRouteMonitor::computeInternetFlags(std::string& identity) const {
    bool found = false;
    std::tuple<uint32_t, bool> best{};  // (metric, is IPv6): lowest wins, IPv4 before IPv6
    bool bestCellular = false;
    identity.clear();
    for (const Route& route : routes_) {
        for (int index : route.interfaces) {
            auto link = links_.find(index);
            if (link == links_.end() || !link->second.usable || link->second.loopback) continue;
            const std::tuple<uint32_t, bool> rank{route.priority, route.family == AF_INET6};
            if (!found || rank < best) {
                found = true;
                best = rank;
                bestCellular = link->second.cellular;
                identity = describeNetwork(link->second.name, route);
            }
        }
    }
    if (!found) return 0;
    return ReachabilityFlags::Reachable | (bestCellular ? ReachabilityFlags::IsWWAN : 0u);
}

void NetlinkRouteMonitor::publish() {
    uint32_t flags = ReachabilityFlags::Reachable;
    {
        qel::platform::MutexLock lock(stateMutex_);
        if (known_.load(std::memory_order_acquire)) {
            flags = computeInternetFlags(identity_);
        } else {
            identity_.clear();
        }
    }
    internetFlags_.store(flags, std::memory_order_release);
    generation_.fetch_add(1, std::memory_order_acq_rel);
}

std::string NetlinkRouteMonitor::networkIdentity() const {
    qel::platform::MutexLock lock(stateMutex_);
    return identity_;
}

// "<interface> via <gateway>", or the interface alone for a route without a gateway.
std::string NetlinkRouteMonitor::describeNetwork(const std::string& interface, const Route& route) {
    char text[INET6_ADDRSTRLEN] = "";
    const bool v4 = route.family == AF_INET && route.gateway.size() == 4;
    const bool v6 = route.family == AF_INET6 && route.gateway.size() == 16;
    if (!(v4 || v6) || !inet_ntop(route.family, route.gateway.data(), text, sizeof text)) {
        return interface;
    }
    return interface + " via " + text;
}

void NetlinkRouteMonitor::addListener(std::weak_ptr<Listener> listener) {
    qel::platform::MutexLock lock(listenersMutex_);
    listeners_.push_back(std::move(listener));
}

void NetlinkRouteMonitor::notifyListeners() {
    std::vector<std::shared_ptr<Listener>> alive;
    {
        qel::platform::MutexLock lock(listenersMutex_);
        auto gone = [&alive](const std::weak_ptr<Listener>& weak) {
            std::shared_ptr<Listener> listener = weak.lock();
            if (!listener) return true;
            alive.push_back(std::move(listener));
            return false;
        };
        listeners_.erase(std::remove_if(listeners_.begin(), listeners_.end(), gone),
                         listeners_.end());
    }
    for (const auto& listener : alive) listener->routesChanged();
}

bool NetlinkRouteMonitor::routeFlags(const sockaddr* address, uint32_t& flags) {
    struct {
        nlmsghdr header;
        rtmsg body;
        char attributes[64];
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    auto addAttribute = [&request](unsigned short type, const void* data, size_t length) {
        auto* attr = reinterpret_cast<rtattr*>(reinterpret_cast<char*>(&request) +
                                               NLMSG_ALIGN(request.header.nlmsg_len));
        attr->rta_type = type;
        attr->rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
        std::memcpy(RTA_DATA(attr), data, length);
        request.header.nlmsg_len = NLMSG_ALIGN(request.header.nlmsg_len) + RTA_ALIGN(attr->rta_len);
    };
    if (address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        request.body.rtm_family = AF_INET;
        request.body.rtm_dst_len = 32;
        addAttribute(RTA_DST, &v4->sin_addr, sizeof v4->sin_addr);
    } else if (address->sa_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
        request.body.rtm_family = AF_INET6;
        request.body.rtm_dst_len = 128;
        addAttribute(RTA_DST, &v6->sin6_addr, sizeof v6->sin6_addr);
        if (v6->sin6_scope_id != 0) {
            const uint32_t oif = v6->sin6_scope_id;
            addAttribute(RTA_OIF, &oif, sizeof oif);
        }
    } else {
        return false;
    }

    std::optional<Route> answer;
    const Outcome outcome = transact(request.header, [&answer](const nlmsghdr& message) {
        if (message.nlmsg_type == RTM_NEWROUTE) answer = parseRoute(message);
    });
    if (outcome == Outcome::Failed || outcome == Outcome::Interrupted) return false;
    flags = 0;
    // A refusal (unreachable network or host, blackhole, prohibited) means no route.
    if (outcome == Outcome::Refused || !answer) return true;
    if (answer->type == RTN_LOCAL) {
        flags = ReachabilityFlags::Reachable | ReachabilityFlags::IsLocalAddress |
                ReachabilityFlags::IsDirect;
        return true;
    }
    if (answer->type != RTN_UNICAST) return true;
    bool cellular = false;
    {
        qel::platform::MutexLock lock(stateMutex_);
        auto link = links_.find(answer->oif);
        // A link not seen yet is one the kernel just made; its route is the better witness.
        // Loopback carries only this host's own addresses, which are RTN_LOCAL above.
        if (link != links_.end()) {
            if (!link->second.usable || link->second.loopback) return true;
            cellular = link->second.cellular;
        }
    }
    flags = ReachabilityFlags::Reachable |
            (answer->gateway.empty() ? ReachabilityFlags::IsDirect : 0u) |
            (cellular ? ReachabilityFlags::IsWWAN : 0u);
    return true;
}

}  // namespace qel::platform
