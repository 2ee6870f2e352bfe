// Reachability against the real kernel. Each NetlinkReachability case moves its process into a
// network namespace of its own (before the platform thread or any netlink socket exists, so
// both inherit it; without root, inside a user namespace of its own) holding a veth pair
// v0/v1, 198.51.100.1/24 on v0 and the default route via 198.51.100.2; it changes links and
// routes there with iproute2, watches the reports, and ends by checking that no device of the
// namespace sent a packet. The kernel's refusals are made on demand by this file's own
// definitions of socket, epoll_ctl and sendto, which the library's calls reach first.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <net/if_arp.h>
#include <sched.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "QelHttpDnsSDK/Platform/Linux/NetlinkRouteMonitor.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"
#include "QelHttpDnsSDK/Reachability/QelDNSReachability.h"
#include "support/CapturingConsole.h"
#include "support/DescriptorShortage.h"

using qel::platform::EventLoop;
using qel::platform::NetlinkRouteMonitor;
using qel::platform::ReachabilitySource;
using Lines = std::vector<std::string>;
namespace flags = qel::platform::ReachabilityFlags;

namespace {

// How many of the next rtnetlink calls of each kind the kernel refuses.
struct {
    std::atomic<int> sockets{0};  // socket(AF_NETLINK, ...)
    std::atomic<int> watches{0};  // epoll_ctl(ADD) of a netlink socket
    std::atomic<int> dumps{0};    // sendto of a dump request
} refuse;

bool take(std::atomic<int>& count) {
    int left = count.load();
    while (left > 0 && !count.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
}

bool isNetlink(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    return ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
           address.ss_family == AF_NETLINK;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
    static auto* real = next<int(int, int, int)>("socket");
    if (domain == AF_NETLINK && take(refuse.sockets)) {
        errno = EMFILE;
        return -1;
    }
    return real(domain, type, protocol);
}

extern "C" int epoll_ctl(int epfd, int op, int fd, epoll_event* event) noexcept {
    static auto* real = next<int(int, int, int, epoll_event*)>("epoll_ctl");
    if (op == EPOLL_CTL_ADD && isNetlink(fd) && take(refuse.watches)) {
        errno = ENOSPC;
        return -1;
    }
    return real(epfd, op, fd, event);
}

extern "C" ssize_t sendto(int fd, const void* buffer, size_t length, int flags,
                          const sockaddr* to, socklen_t toLength) {
    static auto* real = next<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)>(
        "sendto");
    if (length >= sizeof(nlmsghdr) &&
        (static_cast<const nlmsghdr*>(buffer)->nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP &&
        isNetlink(fd) && take(refuse.dumps)) {
        errno = ENOBUFS;
        return -1;
    }
    return real(fd, buffer, length, flags, to, toLength);
}

namespace {

constexpr auto kPatience = std::chrono::seconds(20);  // generous: only a failure waits it out
constexpr const char* kAddDefault = "ip route add default via 198.51.100.2";

bool run(const std::vector<std::string>& commands) {
    for (const std::string& command : commands) {
        if (std::system((command + " 2>&1").c_str()) != 0) {
            ADD_FAILURE() << "failed: " << command;
            return false;
        }
    }
    return true;
}

// Waits until the kernel marks `device` running, which it does a little after the link is set
// up, from a deferred work item.
std::string waitUntilUp(const std::string& device) {
    return "timeout 20 sh -c 'until ip -o link show dev " + device +
           " | grep -q \"state UP\"; do sleep 0.01; done'";
}

// Fails when a device of the namespace has sent a packet: /proc/net/dev lists the reader's
// namespace, and the tenth number after a device's name counts the packets it sent.
constexpr const char* kNothingSent =
    "awk -F: 'NF == 2 { split($2, n, \" \"); sent += n[10] } END { exit sent != 0 }' /proc/net/dev";

// Values (flags or statuses) reported from the platform thread.
class Reports {
public:
    void add(int64_t value) {
        EXPECT_TRUE(EventLoop::shared().isLoopThread());
        std::lock_guard<std::mutex> lock(mutex_);
        values_.push_back(value);
        changed_.notify_all();
    }
    // Waits for the n-th report (counting from 1) and returns it; -1 when it never comes.
    int64_t nth(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, kPatience, [&] { return values_.size() >= n; })) return -1;
        return values_[n - 1];
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_.size();
    }
    // Waits for a report of `value`; false when none comes.
    bool waitFor(int64_t value) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] {
            return std::find(values_.begin(), values_.end(), value) != values_.end();
        });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<int64_t> values_;
};

// A platform source for an IPv4 address, reporting into `reports`.
std::unique_ptr<ReachabilitySource> watch(const char* address, Reports& reports) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    inet_pton(AF_INET, address, &target.sin_addr);
    auto source = qel::platform::ReachabilitySourceFactory::createWithAddress(
        reinterpret_cast<sockaddr*>(&target));
    if (!source) return nullptr;
    source->setCallback([&reports](uint32_t value) { reports.add(value); });
    source->schedule();
    return source;
}

int64_t flagsOf(ReachabilitySource& source) {
    uint32_t value = 0;
    return source.getFlags(value) ? value : -1;
}

// Returns once everything the platform thread had queued, reports included, has run.
void drainPlatformThread() {
    std::promise<void> done;
    EventLoop::shared().post([&done] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
}

bool writeFile(const char* path, const std::string& text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return written;
}

// Moves the process into a network namespace of its own: directly with CAP_SYS_ADMIN, else as
// root of a new user namespace, which the kernel grants only to a process without threads.
// Returns why it could not, or nothing.
std::optional<std::string> enterNetworkNamespace() {
    if (::unshare(CLONE_NEWNET) == 0) return std::nullopt;
    const std::string direct = std::strerror(errno);
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return "unshare(CLONE_NEWNET): " + direct + "; unshare(CLONE_NEWUSER | CLONE_NEWNET): " +
               std::strerror(errno);
    }
    // Root inside, so that iproute2 keeps its capabilities over the new network namespace.
    if (!writeFile("/proc/self/setgroups", "deny") ||
        !writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
        return std::string("cannot map the user into the new user namespace: ") +
               std::strerror(errno);
    }
    return std::nullopt;
}

void post(const char* name) { qel::platform::NotificationCenter::defaultCenter().post(name); }

class NetlinkReachability : public testing::Test {
protected:
    void SetUp() override {
        static bool entered = false;
        if (entered) GTEST_SKIP() << "one namespace case per process (ctest runs each alone)";
        if (std::optional<std::string> refused = enterNetworkNamespace()) {
            GTEST_SKIP() << "no network namespace of its own (" << *refused
                         << "): needs root, or unprivileged user namespaces "
                            "(user.max_user_namespaces) and no thread started before the test";
        }
        entered = inNamespace_ = true;
        // IPv6 off unless a case turns it on for one link: no router solicitation, no DAD.
        ASSERT_TRUE(run({"echo 1 > /proc/sys/net/ipv6/conf/all/disable_ipv6",
                         "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6",
                         "ip link add v0 type veth peer name v1",
                         "ip addr add 198.51.100.1/24 dev v0", "ip link set v0 up",
                         "ip link set v1 up", kAddDefault, waitUntilUp("v0")}));
    }
    void TearDown() override {
        if (inNamespace_) {
            EXPECT_TRUE(run({kNothingSent}));
        }
    }

    bool inNamespace_ = false;
};

}  // namespace

TEST(NetlinkRouteMonitor, RecognisesCellularModemsByNameKindDeviceTypeOrHardwareType) {
    const std::tuple<const char*, const char*, unsigned short, const char*, bool> cases[] = {
        {"wwp0s20f0u6i12", "", ARPHRD_ETHER, "", true}, {"rmnet_data0", "", ARPHRD_ETHER, "", true},
        {"ccmni1", "", ARPHRD_ETHER, "", true},         {"mbim0", "wwan", ARPHRD_NONE, "", true},
        {"usb0", "", ARPHRD_ETHER, "wwan", true},       {"qmi0", "", ARPHRD_RAWIP, "", true},
        {"wlan0", "", ARPHRD_ETHER, "wlan", false},     {"eth0", "veth", ARPHRD_ETHER, "", false},
    };
    for (const auto& [name, kind, type, deviceType, cellular] : cases) {
        EXPECT_EQ(NetlinkRouteMonitor::isCellularInterface(name, kind, type, deviceType), cellular)
            << name;
    }
}

TEST(NetlinkRouteMonitor, APlatformThreadThatCannotStartThrowsNothingAtTheApplication) {
    // Runs in a fresh process, whose platform thread has not started yet. Two descriptors are
    // left: enough for the rtnetlink sockets, not for them and the event loop.
    if (qel::test::DescriptorShortage::sanitizerNeedsDescriptors()) {
        GTEST_SKIP() << "UBSan's vptr check needs descriptors this test takes away";
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            qel::test::DescriptorShortage shortage(2);
            QelDNSNetworkManager::startMonitor();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(NetlinkReachability, RouteAndLinkChangesAreReportedOnThePlatformThreadExceptInTheBackground) {
    // A worse default route through loopback, which never counts.
    ASSERT_TRUE(run({"ip link set lo up", "ip route add default dev lo metric 10"}));
    QelDNSNetworkManager& manager = QelDNSNetworkManager::shared();
    EXPECT_EQ(manager.networkStatus(), QelDNSNetworkStatusWiFi);
    EXPECT_EQ(manager.lastNetworkStatus(), QelDNSNetworkStatusWiFi);
    Reports changes, neighbourReports, remoteReports, gatewayReports;
    manager.setNetworkStatusChangedBlock([&changes](QelDNSNetworkStatus status) { changes.add(status); });
    // Address targets ask the kernel for their own route.
    auto neighbour = watch("198.51.100.7", neighbourReports);
    auto local = watch("198.51.100.1", neighbourReports);
    auto remote = watch("203.0.113.9", remoteReports);
    ASSERT_TRUE(neighbour && local && remote);
    EXPECT_EQ(flagsOf(*neighbour), flags::Reachable | flags::IsDirect);
    EXPECT_EQ(flagsOf(*local), flags::Reachable | flags::IsLocalAddress | flags::IsDirect);
    EXPECT_EQ(flagsOf(*remote), flags::Reachable);

    ASSERT_TRUE(run({"ip route del default via 198.51.100.2"}));
    ASSERT_EQ(changes.nth(1), QelDNSNetworkStatusNotReachable);
    EXPECT_FALSE(manager.networkAvailable());
    ASSERT_EQ(remoteReports.nth(1), 0);
    drainPlatformThread();  // the handler stores the status after the block returns
    EXPECT_EQ(manager.lastNetworkStatus(), QelDNSNetworkStatusNotReachable);
    EXPECT_EQ(neighbourReports.count(), 0u) << "reports only when a target's flags change";

    // Without carrier (v1 down) the route stays in the table but carries nothing.
    const std::pair<const char*, QelDNSNetworkStatus> steps[] = {
        {kAddDefault, QelDNSNetworkStatusWiFi},
        {"ip link set v1 down", QelDNSNetworkStatusNotReachable},
        {"ip link set v1 up", QelDNSNetworkStatusWiFi},
        {"ip link set v0 down", QelDNSNetworkStatusNotReachable},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        ASSERT_TRUE(run({steps[i].first}));
        ASSERT_EQ(changes.nth(i + 2), steps[i].second) << steps[i].first;
    }
    // Down, v0 lost its default route without notice: back up, only its own prefix is reachable.
    auto gateway = watch("198.51.100.2", gatewayReports);
    ASSERT_TRUE(gateway && run({"ip link set v0 up"}));
    ASSERT_EQ(gatewayReports.nth(1), flags::Reachable | flags::IsDirect);
    EXPECT_FALSE(manager.networkAvailable());
    ASSERT_TRUE(run({kAddDefault}));
    ASSERT_EQ(changes.nth(6), QelDNSNetworkStatusWiFi);

    // No change handler runs in the background; back in the foreground, the next report is
    // compared with the status from before. A target made now is told in the same batch as the
    // manager, after it.
    Reports witness;
    auto internet = watch("0.0.0.0", witness);
    qel::test::CapturingConsole console;
    QelDNSLog::enable();
    post(qel::platform::UIApplicationDidEnterBackgroundNotification);
    ASSERT_TRUE(internet && run({"ip route del default via 198.51.100.2"}));
    ASSERT_EQ(witness.nth(1), 0);
    EXPECT_FALSE(manager.networkAvailable());
    post(qel::platform::UIApplicationWillEnterForegroundNotification);
    ASSERT_TRUE(run({kAddDefault}));
    ASSERT_EQ(witness.nth(2), flags::Reachable);
    drainPlatformThread();
    EXPECT_EQ(changes.count(), 6u);
    EXPECT_EQ(console.lines(), (Lines{"App did enter background, stopNotifier",
                                      "App did enter foreground, startNotifier",
                                      "Network changed status: WIFI, lastNetwork status: WIFI"}));
}

TEST_F(NetlinkReachability, PreferredDefaultRouteDecidesCellularAndIPv6Counts) {
    // An IPv6-only modem link without addresses (nothing is ever sent on it), whose default
    // route (metric 1024) loses to the IPv4 one (metric 0).
    ASSERT_TRUE(run({"ip link add wwan0 type veth peer name m1",
                     "ip link set wwan0 addrgenmode none", "ip link set m1 addrgenmode none",
                     "echo 0 > /proc/sys/net/ipv6/conf/wwan0/disable_ipv6", "ip link set wwan0 up",
                     "ip link set m1 up", "ip -6 route add default dev wwan0", waitUntilUp("wwan0")}));

    QelDNSNetworkManager& manager = QelDNSNetworkManager::shared();
    EXPECT_EQ(manager.networkStatus(), QelDNSNetworkStatusWiFi);
    Reports changes;
    manager.setNetworkStatusChangedBlock([&changes](QelDNSNetworkStatus status) { changes.add(status); });
    ASSERT_TRUE(run({"ip route del default"}));
    ASSERT_EQ(changes.nth(1), QelDNSNetworkStatusWWAN);
}

TEST_F(NetlinkReachability, ChangesDroppedByAnOverrunSocketAreRecoveredFromAFullDump) {
    Reports reports;
    auto internet = watch("0.0.0.0", reports);
    ASSERT_TRUE(internet);
    // Hold the platform thread while far more changes arrive than the socket can queue; the
    // default route goes last, so its notice is among the ones the kernel drops.
    std::promise<void> blocked, release;
    EventLoop::shared().post([&blocked, released = release.get_future().share()] {
        blocked.set_value();
        released.wait();
    });
    blocked.get_future().wait();
    FILE* ip = ::popen("ip -batch - >/dev/null", "w");
    for (int i = 0; ip && i < 6000; ++i) {
        std::fprintf(ip, "route add 10.%d.%d.0/24 via 198.51.100.2\n", i >> 8, i & 255);
    }
    const int status = ip ? (std::fputs("route del default\n", ip), ::pclose(ip)) : -1;
    release.set_value();
    ASSERT_EQ(status, 0);

    ASSERT_EQ(reports.nth(1), 0);
    EXPECT_GT(NetlinkRouteMonitor::shared().overrunCount(), 0u);
    EXPECT_EQ(flagsOf(*internet), 0);
}

TEST_F(NetlinkReachability, MonitoringThatFailsReportsReachableOnceAndRetriesUntilItKnowsTheRoutes) {
    qel::test::CapturingConsole console;
    ASSERT_TRUE(run({"ip route del default via 198.51.100.2"}));
    refuse.sockets = 1;
    QelDNSNetworkManager& manager = QelDNSNetworkManager::shared();
    EXPECT_TRUE(manager.networkAvailable()) << "routes not known yet count as reachable";
    Reports changes;
    manager.setNetworkStatusChangedBlock([&changes](QelDNSNetworkStatus status) { changes.add(status); });
    ASSERT_EQ(changes.nth(1), QelDNSNetworkStatusNotReachable) << "a retry read the routes";
    ASSERT_TRUE(run({kAddDefault}));
    ASSERT_EQ(changes.nth(2), QelDNSNetworkStatusWiFi);

    // The dump after v0 goes down fails, and the kernel drops v0's default route without
    // notice: the routes stay unknown until a retry reads them, so once v0 is up again the
    // stale route must not count.
    Reports internetReports, gatewayReports;
    auto internet = watch("0.0.0.0", internetReports);
    ASSERT_TRUE(internet);
    refuse.dumps = 1;
    ASSERT_TRUE(run({"ip link set v0 down"}));
    auto gateway = watch("198.51.100.2", gatewayReports);
    ASSERT_TRUE(gateway && run({"ip link set v0 up", waitUntilUp("v0")}));
    ASSERT_TRUE(gatewayReports.waitFor(flags::Reachable | flags::IsDirect));
    EXPECT_EQ(flagsOf(*internet), 0);
    EXPECT_FALSE(manager.networkAvailable());
    EXPECT_EQ(console.lines().size(), 1u) << "the first failure is said, once";
}

TEST_F(NetlinkReachability, ANotifierThatStartedReportsEvenWhenTheFirstWatchFails) {
    refuse.watches = 1;
    auto reachability = QelDNSReachability::reachabilityForInternetConnection();
    ASSERT_TRUE(reachability);
    Reports posted;
    auto& center = qel::platform::NotificationCenter::defaultCenter();
    const auto token = center.addObserver(kQelDNSReachabilityChangedNotification,
                                          [&](const qel::platform::Notification&) {
        posted.add(reachability->currentReachabilityStatus());
    });
    ASSERT_TRUE(reachability->startNotifier());
    ASSERT_TRUE(run({"ip route del default via 198.51.100.2"}));
    EXPECT_EQ(posted.nth(1), QelDNSNetworkStatusNotReachable);
    center.removeObserver(token);
}
