// Reachability against the real kernel: each case moves its process into a network namespace
// of its own (before the platform thread or any netlink socket exists, so both inherit it),
// builds links and routes there with iproute2 and watches the reports. Routes exist only in
// that namespace; the test checks at the end that no packet left the veth pair.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/EventLoop.h"
#include "QelHttpDnsSDK/Platform/NetlinkRouteMonitor.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"
#include "support/CapturingConsole.h"

using qel::platform::EventLoop;
using qel::platform::NetlinkRouteMonitor;
using qel::platform::NotificationCenter;
using qel::platform::ReachabilitySource;
using qel::platform::ReachabilitySourceFactory;
namespace flags = qel::platform::ReachabilityFlags;

namespace {

constexpr auto kPatience = std::chrono::seconds(20);  // generous: only a failure waits it out

bool namespaceEntered = false;

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    return static_cast<bool>(file.flush());
}

// Empty on success, else why the machine does not allow the test.
std::string enterFreshNetworkNamespace() {
    if (namespaceEntered) {
        return "a namespace case already ran in this process; run each case in its own process "
               "(ctest does)";
    }
    if (std::system("ip -V >/dev/null 2>&1") != 0) return "iproute2 (ip) is not installed";
    if (::unshare(CLONE_NEWNET) != 0) {
        return std::string("cannot create a network namespace (unshare: ") + std::strerror(errno) +
               "); needs root or CAP_SYS_ADMIN";
    }
    namespaceEntered = true;
    // IPv6 off unless a case turns it on for one link: no router solicitation, no DAD.
    writeFile("/proc/sys/net/ipv6/conf/all/disable_ipv6", "1");
    writeFile("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    return {};
}

#define ENTER_NAMESPACE_OR_SKIP()                                 \
    do {                                                          \
        const std::string why = enterFreshNetworkNamespace();     \
        if (!why.empty()) GTEST_SKIP() << why;                    \
    } while (0)

int run(const std::string& command) { return std::system((command + " 2>&1").c_str()); }

std::string output(const std::string& command) {
    std::string text;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return text;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
    ::pclose(pipe);
    return text;
}

nlohmann::json linkInfo(const std::string& device) {
    const auto parsed = nlohmann::json::parse(output("ip -s -j link show dev " + device), nullptr, false);
    return parsed.is_array() && !parsed.empty() ? parsed[0] : nlohmann::json::object();
}

// The kernel marks a link running (carrier and operational state) a little after it is set up,
// from a deferred work item; a case that reads the state at start waits for that first.
void waitUntilRunning(const std::string& device) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (linkInfo(device).value("operstate", "") != "UP") {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << device << " never came up";
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// A veth pair whose v0 end has 198.51.100.1/24 and the default route via 198.51.100.2.
void makeVethWithDefaultRoute() {
    ASSERT_EQ(run("ip link add v0 type veth peer name v1"), 0);
    ASSERT_EQ(run("ip addr add 198.51.100.1/24 dev v0"), 0);
    ASSERT_EQ(run("ip link set v0 up"), 0);
    ASSERT_EQ(run("ip link set v1 up"), 0);
    ASSERT_EQ(run("ip route add default via 198.51.100.2"), 0);
    waitUntilRunning("v0");
}

int64_t transmittedPackets(const std::string& device) {
    const nlohmann::json info = linkInfo(device);
    if (!info.contains("stats64")) return -1;
    return info["stats64"]["tx"]["packets"].get<int64_t>();
}

// Values reported from the platform thread, with a wait for the n-th one.
template <typename T>
class Reports {
public:
    void add(T value) {
        std::lock_guard<std::mutex> lock(mutex_);
        values_.push_back(value);
        if (!EventLoop::shared().isLoopThread()) offLoopThread_ = true;
        changed_.notify_all();
    }
    bool waitForCount(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return values_.size() >= count; });
    }
    std::vector<T> values() {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_;
    }
    bool allOnLoopThread() {
        std::lock_guard<std::mutex> lock(mutex_);
        return !offLoopThread_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<T> values_;
    bool offLoopThread_ = false;
};

// A raw platform source for `address`, reporting into `reports`.
std::unique_ptr<ReachabilitySource> watchAddress(const char* address, Reports<uint32_t>& reports) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    inet_pton(AF_INET, address, &target.sin_addr);
    auto source = ReachabilitySourceFactory::createWithAddress(reinterpret_cast<sockaddr*>(&target));
    if (!source) return nullptr;
    source->setCallback([&reports](uint32_t value) { reports.add(value); });
    source->schedule();
    return source;
}

uint32_t flagsOf(ReachabilitySource& source) {
    uint32_t value = 0xdeadbeef;
    EXPECT_TRUE(source.getFlags(value));
    return value;
}

// Returns once everything the platform thread had queued, reports included, has run.
void drainPlatformThread() {
    std::promise<void> done;
    EventLoop::shared().post([&done] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
}

}  // namespace

TEST(NetlinkReachability, RecognisesCellularModemInterfaces) {
    for (const char* name : {"wwan0", "wwp0s20f0u6i12", "rmnet_data0", "ccmni1"}) {
        EXPECT_TRUE(NetlinkRouteMonitor::isCellularInterface(name, "", ARPHRD_ETHER, "")) << name;
    }
    EXPECT_TRUE(NetlinkRouteMonitor::isCellularInterface("mbim0", "wwan", ARPHRD_NONE, ""));
    EXPECT_TRUE(NetlinkRouteMonitor::isCellularInterface("usb0", "", ARPHRD_ETHER, "wwan"));
    EXPECT_TRUE(NetlinkRouteMonitor::isCellularInterface("qmi0", "", ARPHRD_RAWIP, ""));
    for (const char* name : {"eth0", "wlan0", "wlp3s0", "enp0s31f6", "veth1", "tun0", "ppp0"}) {
        EXPECT_FALSE(NetlinkRouteMonitor::isCellularInterface(name, "veth", ARPHRD_ETHER, "")) << name;
    }
    EXPECT_FALSE(NetlinkRouteMonitor::isCellularInterface("wlan0", "", ARPHRD_ETHER, "wlan"));
}

TEST(NetlinkReachability, DefaultRouteRemovedAndRestoredIsReportedOnThePlatformThread) {
    ENTER_NAMESPACE_OR_SKIP();
    makeVethWithDefaultRoute();
    if (HasFatalFailure()) return;

    QelDNSNetworkManager& manager = QelDNSNetworkManager::shared();
    EXPECT_EQ(manager.networkStatus(), QelDNSNetworkStatusWiFi);
    EXPECT_EQ(manager.lastNetworkStatus(), QelDNSNetworkStatusWiFi);
    Reports<QelDNSNetworkStatus> changes;
    manager.setNetworkStatusChangedBlock([&changes](QelDNSNetworkStatus status) { changes.add(status); });
    // Address targets ask the kernel for their own route.
    Reports<uint32_t> neighbourReports, remoteReports;
    auto neighbour = watchAddress("198.51.100.7", neighbourReports);
    auto remote = watchAddress("203.0.113.9", remoteReports);
    ASSERT_TRUE(neighbour && remote);
    EXPECT_EQ(flagsOf(*neighbour), flags::Reachable | flags::IsDirect);
    EXPECT_EQ(flagsOf(*remote), flags::Reachable);
    auto local = watchAddress("198.51.100.1", neighbourReports);
    EXPECT_EQ(flagsOf(*local), flags::Reachable | flags::IsLocalAddress | flags::IsDirect);

    ASSERT_EQ(run("ip route del default"), 0);
    ASSERT_TRUE(changes.waitForCount(1));
    EXPECT_EQ(changes.values()[0], QelDNSNetworkStatusNotReachable);
    EXPECT_FALSE(manager.networkAvailable());
    ASSERT_TRUE(remoteReports.waitForCount(1));
    EXPECT_EQ(remoteReports.values()[0], 0u);
    drainPlatformThread();  // the handler stores the status after the block returns
    EXPECT_EQ(manager.lastNetworkStatus(), QelDNSNetworkStatusNotReachable);
    EXPECT_TRUE(neighbourReports.values().empty()) << "reports only when a target's flags change";

    ASSERT_EQ(run("ip route add default via 198.51.100.2"), 0);
    ASSERT_TRUE(changes.waitForCount(2));
    EXPECT_EQ(changes.values()[1], QelDNSNetworkStatusWiFi);
    EXPECT_TRUE(manager.networkAvailable());

    drainPlatformThread();
    EXPECT_EQ(changes.values().size(), 2u);
    EXPECT_TRUE(changes.allOnLoopThread());
    EXPECT_EQ(transmittedPackets("v0"), 0);
    EXPECT_EQ(transmittedPackets("v1"), 0);
}

TEST(NetlinkReachability, OnlyAnUpAndRunningNonLoopbackLinkCounts) {
    ENTER_NAMESPACE_OR_SKIP();
    ASSERT_EQ(run("ip link set lo up"), 0);
    ASSERT_EQ(run("ip route add default dev lo"), 0);
    Reports<uint32_t> internetReports;
    auto internet = watchAddress("0.0.0.0", internetReports);
    ASSERT_TRUE(internet);
    EXPECT_EQ(flagsOf(*internet), 0u) << "loopback alone is not a network";

    // A real link with a default route of worse metric than the loopback one.
    ASSERT_EQ(run("ip link add v0 type veth peer name v1"), 0);
    ASSERT_EQ(run("ip addr add 198.51.100.1/24 dev v0"), 0);
    ASSERT_EQ(run("ip link set v0 up"), 0);
    ASSERT_EQ(run("ip link set v1 up"), 0);
    ASSERT_EQ(run("ip route add default via 198.51.100.2 metric 10"), 0);
    ASSERT_TRUE(internetReports.waitForCount(1));
    EXPECT_EQ(internetReports.values().back(), flags::Reachable);

    // Carrier lost: the route stays in the table but carries nothing.
    ASSERT_EQ(run("ip link set v1 down"), 0);
    ASSERT_TRUE(internetReports.waitForCount(2));
    EXPECT_EQ(internetReports.values().back(), 0u);
    ASSERT_EQ(run("ip link set v1 up"), 0);
    ASSERT_TRUE(internetReports.waitForCount(3));
    EXPECT_EQ(internetReports.values().back(), flags::Reachable);

    // Administratively down: the kernel drops the default route without telling anyone, so
    // when the link comes back there is still no way out.
    Reports<uint32_t> gatewayReports;
    auto gateway = watchAddress("198.51.100.2", gatewayReports);
    ASSERT_TRUE(gateway);
    ASSERT_EQ(run("ip link set v0 down"), 0);
    ASSERT_TRUE(internetReports.waitForCount(4));
    EXPECT_EQ(internetReports.values().back(), 0u);
    ASSERT_TRUE(gatewayReports.waitForCount(1));
    ASSERT_EQ(run("ip link set v0 up"), 0);
    ASSERT_TRUE(gatewayReports.waitForCount(2));  // the link's own prefix route is back
    EXPECT_EQ(gatewayReports.values().back(), flags::Reachable | flags::IsDirect);
    drainPlatformThread();
    EXPECT_EQ(internetReports.values().size(), 4u);
    EXPECT_EQ(flagsOf(*internet), 0u);
    EXPECT_EQ(transmittedPackets("v0"), 0);
}

TEST(NetlinkReachability, PreferredDefaultRouteDecidesCellularAndIPv6Counts) {
    ENTER_NAMESPACE_OR_SKIP();
    // An IPv6-only cellular link, without addresses so nothing is ever sent on it.
    ASSERT_EQ(run("ip link add wwan0 type veth peer name m1"), 0);
    ASSERT_EQ(run("ip link set wwan0 addrgenmode none"), 0);
    ASSERT_EQ(run("ip link set m1 addrgenmode none"), 0);
    ASSERT_TRUE(writeFile("/proc/sys/net/ipv6/conf/wwan0/disable_ipv6", "0"));
    ASSERT_EQ(run("ip link set wwan0 up"), 0);
    ASSERT_EQ(run("ip link set m1 up"), 0);
    ASSERT_EQ(run("ip -6 route add default dev wwan0"), 0);
    waitUntilRunning("wwan0");
    if (HasFatalFailure()) return;

    QelDNSNetworkManager& manager = QelDNSNetworkManager::shared();
    EXPECT_EQ(manager.networkStatus(), QelDNSNetworkStatusWWAN);
    Reports<QelDNSNetworkStatus> changes;
    manager.setNetworkStatusChangedBlock([&changes](QelDNSNetworkStatus status) { changes.add(status); });

    // IPv4's default route (metric 0) is preferred over IPv6's (metric 1024).
    makeVethWithDefaultRoute();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(changes.waitForCount(1));
    EXPECT_EQ(changes.values()[0], QelDNSNetworkStatusWiFi);

    ASSERT_EQ(run("ip route del default"), 0);
    ASSERT_TRUE(changes.waitForCount(2));
    EXPECT_EQ(changes.values()[1], QelDNSNetworkStatusWWAN);
    EXPECT_EQ(transmittedPackets("wwan0"), 0);
}

TEST(NetlinkReachability, NoChangeHandlerRunsBetweenBackgroundAndForeground) {
    ENTER_NAMESPACE_OR_SKIP();
    makeVethWithDefaultRoute();
    if (HasFatalFailure()) return;
    qel::test::CapturingConsole console;
    QelDNSLog::enable();
    QelDNSNetworkManager& manager = QelDNSNetworkManager::shared();
    // A second target of its own sees the same kernel changes in the same batch, so once it has
    // reported and the platform thread is drained, the manager's report would have run too.
    Reports<uint32_t> witness;
    auto internet = watchAddress("0.0.0.0", witness);
    ASSERT_TRUE(internet);

    NotificationCenter::defaultCenter().post(qel::platform::UIApplicationDidEnterBackgroundNotification);
    ASSERT_EQ(run("ip route del default"), 0);
    ASSERT_TRUE(witness.waitForCount(1));
    drainPlatformThread();
    EXPECT_EQ(console.lines(), std::vector<std::string>{"App did enter background, stopNotifier"});
    EXPECT_FALSE(manager.networkAvailable());
    EXPECT_EQ(manager.lastNetworkStatus(), QelDNSNetworkStatusWiFi);

    NotificationCenter::defaultCenter().post(qel::platform::UIApplicationWillEnterForegroundNotification);
    ASSERT_EQ(run("ip route add default via 198.51.100.2"), 0);
    ASSERT_TRUE(witness.waitForCount(2));
    drainPlatformThread();
    // Compared with the status from before the background, not refreshed on return.
    EXPECT_EQ(console.lines(), (std::vector<std::string>{
                                   "App did enter background, stopNotifier",
                                   "App did enter foreground, startNotifier",
                                   "Network changed status: WIFI, lastNetwork status: WIFI"}));
}

TEST(NetlinkReachability, ChangesDroppedByAnOverrunSocketAreRecoveredFromAFullDump) {
    ENTER_NAMESPACE_OR_SKIP();
    makeVethWithDefaultRoute();
    if (HasFatalFailure()) return;
    Reports<uint32_t> reports;
    auto internet = watchAddress("0.0.0.0", reports);
    ASSERT_TRUE(internet);
    NetlinkRouteMonitor* monitor = NetlinkRouteMonitor::shared();
    ASSERT_TRUE(monitor);
    EXPECT_EQ(monitor->overrunCount(), 0u);

    // Hold the platform thread while far more changes arrive than the socket can queue; the
    // default route goes last, so its notice is among the ones the kernel drops.
    std::promise<void> blocked, release;
    std::shared_future<void> released = release.get_future().share();
    EventLoop::shared().post([&blocked, released] {
        blocked.set_value();
        released.wait();
    });
    blocked.get_future().wait();
    const std::string batch = testing::TempDir() + "qel_routes_" + std::to_string(::getpid());
    {
        std::ofstream file(batch);
        for (int i = 0; i < 6000; ++i) {
            file << "route add 10." << (i >> 8 & 255) << '.' << (i & 255) << ".0/24 via 198.51.100.2\n";
        }
        file << "route del default\n";
    }
    const int status = run("ip -batch " + batch + " >/dev/null");
    std::remove(batch.c_str());
    release.set_value();
    ASSERT_EQ(status, 0);

    ASSERT_TRUE(reports.waitForCount(1));
    EXPECT_EQ(reports.values()[0], 0u);
    EXPECT_GT(monitor->overrunCount(), 0u);
    EXPECT_EQ(flagsOf(*internet), 0u);
}
