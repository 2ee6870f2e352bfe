// Reachability against the real kernel. The case moves its process into a
// network namespace of its own (before the platform thread or any netlink socket exists, so
// both inherit it) holding a veth pair v0/v1, 198.51.100.1/24 on v0 and the default route via
// 198.51.100.2; it changes links and routes there with iproute2, checks what the manager and
// platform sources then say, and ends by checking that no device of the namespace sent a packet.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <cstring>
#include <future>
#include <map>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/Eventually.h"

using qel::platform::EventLoop;
using qel::platform::ReachabilitySource;
namespace flags = qel::platform::ReachabilityFlags;
using Flags = qel::test::CallRecorder<uint32_t>;

namespace {

constexpr auto kPatience = std::chrono::seconds(20);  // generous: only a failure waits it out
const std::string kAddDefault = "ip route add default via 198.51.100.2";
const std::string kDelDefault = "ip route del default via 198.51.100.2";

bool run(const std::string& command) {
    const bool ok = std::system((command + " 2>&1").c_str()) == 0;
    if (!ok) ADD_FAILURE() << "failed: " << command;
    return ok;
}

// Waits until the kernel marks `device` running, a little after the link is set up.
std::string waitUntilUp(const std::string& device) {
    return "timeout 20 sh -c 'until ip -o link show dev " + device + " | grep -q \"state UP\"; do sleep 0.01; done'";
}

// The values (flags or statuses) a recorder heard, each told on the platform thread.
template <typename Recorder>
std::vector<int64_t> said(const Recorder& recorder) {
    std::vector<int64_t> values;
    for (const auto& call : recorder.calls()) {
        EXPECT_TRUE(call.onPlatformThread);
        values.push_back(std::get<0>(call.arguments));
    }
    return values;
}

// A platform source watching an IPv4 address, reporting into `reports`.
std::unique_ptr<ReachabilitySource> watch(const std::string& address, Flags& reports) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    inet_pton(AF_INET, address.c_str(), &target.sin_addr);
    auto source = qel::platform::ReachabilitySourceFactory::createWithAddress(reinterpret_cast<sockaddr*>(&target));
    if (!source) return nullptr;
    source->setCallback(reports.callback());
    source->schedule();
    return source;
}

// What a step expects once its command ran: the manager's status; the next status its change
// block hears; that the block heard nothing more; the flags a source watching `target` reads
// and, once it reported, last reported; the name of the network (`target`).
enum class Expect { Status, Change, Quiet, Flags, Network };

struct Step {
    std::string command;  // a shell command, background or foreground; empty for none
    Expect expect;
    int64_t value = 0;
    std::string target = {};
};

constexpr int64_t kDirect = flags::Reachable | flags::IsDirect;
constexpr int64_t kNotReachable = QelDNSNetworkStatusNotReachable;
constexpr int64_t kWiFi = QelDNSNetworkStatusWiFi;

// The manager starts with the first step that is not Flags.
const std::vector<Step> kSteps = {
    // A worse default route through loopback, which never counts.
    {"ip link set lo up && ip route add default dev lo metric 10", Expect::Status, kWiFi},
    {"", Expect::Flags, kDirect | flags::IsLocalAddress, "198.51.100.1"},
    {"", Expect::Network, 0, "v0 via 198.51.100.2"},
    {kDelDefault, Expect::Change, kNotReachable},
    {kAddDefault, Expect::Change, kWiFi},
    // Without carrier (v1 down) the route stays in the table but carries nothing.
    {"ip link set v1 down", Expect::Change, kNotReachable},
    {"ip link set v1 up", Expect::Change, kWiFi},
    {"ip link set v0 down", Expect::Change, kNotReachable},
    // Down, v0 lost its default route without notice: up, only its own prefix is reached.
    {"ip link set v0 up", Expect::Flags, kDirect, "198.51.100.2"},
    {"", Expect::Status, kNotReachable},
    {"", Expect::Network, 0, ""},
    {kAddDefault, Expect::Change, kWiFi},
    // No change is heard in the background; in the foreground the next report is
    // compared with the status from before.
    {"background", Expect::Flags, flags::Reachable, "0.0.0.0"},
    {kDelDefault, Expect::Flags, 0, "0.0.0.0"},
    {"", Expect::Status, kNotReachable},
    {"foreground", Expect::Quiet},
    {kAddDefault, Expect::Flags, flags::Reachable, "0.0.0.0"},
    {"", Expect::Quiet},
    // An IPv6-only modem link without addresses (nothing is ever sent on it), whose
    // default route (metric 1024) loses to the IPv4 one (metric 0).
    {"ip link add wwan0 type veth peer name m1 && ip link set wwan0 addrgenmode none && "
     "ip link set m1 addrgenmode none && "
     "echo 0 > /proc/sys/net/ipv6/conf/wwan0/disable_ipv6 && ip link set wwan0 up && "
     "ip link set m1 up && ip -6 route add default dev wwan0 && " +
         waitUntilUp("wwan0"),
     Expect::Status, kWiFi},
    {"ip route del default", Expect::Change, QelDNSNetworkStatusWWAN},
    {"", Expect::Network, 0, "wwan0"},
    {"ip route add default via 198.51.100.3", Expect::Network, 0, "v0 via 198.51.100.3"},
};

class NetlinkReachability : public testing::Test {
protected:
    void SetUp() override {
        if (::unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "needs CAP_SYS_ADMIN for a network namespace of its own: " << std::strerror(errno);
        }
        inNamespace_ = true;
        // IPv6 off unless a case turns it on for one link: no router solicitation, no DAD.
        ASSERT_TRUE(
            run("echo 1 > /proc/sys/net/ipv6/conf/all/disable_ipv6 && "
                "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6 && "
                "ip link add v0 type veth peer name v1 && "
                "ip addr add 198.51.100.1/24 dev v0 && ip link set v0 up && "
                "ip link set v1 up && " +
                kAddDefault + " && " + waitUntilUp("v0")));
    }
    // /proc/net/dev lists the reader's namespace; the tenth number after a name counts the
    // packets the device sent.
    void TearDown() override {
        if (inNamespace_) {
            EXPECT_TRUE(
                run("awk -F: 'NF == 2 { split($2, n, \" \"); sent += n[10] } "
                    "END { exit sent != 0 }' /proc/net/dev"));
        }
    }

    bool act(const std::string& command) {
        if (command.empty()) return true;
        using namespace qel::platform;
        const bool background = command == "background";
        if (!background && command != "foreground") return run(command);
        NotificationCenter::defaultCenter().post(background ? UIApplicationDidEnterBackgroundNotification
                                                            : UIApplicationWillEnterForegroundNotification);
        return true;
    }

    bool inNamespace_ = false;
};

}  // namespace

TEST_F(NetlinkReachability, RoutesLinksAndTheirKindDecideTheStatusAndWhatEachTargetReaches) {
    qel::test::CapturingConsole console;
    QelDNSNetworkManager* manager = nullptr;
    qel::test::CallRecorder<QelDNSNetworkStatus> changes;
    size_t heard = 0;
    std::map<std::string, std::pair<std::unique_ptr<ReachabilitySource>, Flags>> targets;
    for (const Step& step : kSteps) {
        SCOPED_TRACE(step.command + " " + step.target);
        ASSERT_TRUE(act(step.command));
        if (step.expect == Expect::Network) {
            EXPECT_TRUE(qel::test::eventually(
                [&] { return qel::platform::ReachabilitySourceFactory::networkIdentity() == step.target; }))
                << qel::platform::ReachabilitySourceFactory::networkIdentity();
            continue;
        }
        if (step.expect == Expect::Flags) {
            auto& [source, reports] = targets[step.target];
            if (!source) source = watch(step.target, reports);
            ASSERT_TRUE(source);
            // A source reports a change once, and only a change.
            EXPECT_TRUE(qel::test::eventually([&, &source = source, &reports = reports] {
                uint32_t flags = 0;
                const auto heardFlags = said(reports);
                return source->getFlags(flags) && flags == step.value && (heardFlags.empty() || heardFlags.back() == step.value);
            })) << step.value;
            const auto heardFlags = said(reports);
            for (size_t i = 1; i < heardFlags.size(); ++i) EXPECT_NE(heardFlags[i], heardFlags[i - 1]);
            continue;
        }
        if (!manager) {
            manager = &QelDNSNetworkManager::shared();
            manager->setNetworkStatusChangedBlock(changes.callback());
        }
        if (step.expect == Expect::Status) {
            EXPECT_TRUE(qel::test::eventually([&] { return manager->networkStatus() == step.value; }));
        } else if (step.expect == Expect::Change) {
            ++heard;
            ASSERT_TRUE(changes.waitFor(heard));
            EXPECT_EQ(said(changes)[heard - 1], step.value);
        } else {
            std::promise<void> drained;  // everything queued before it ran, reports included
            EventLoop::shared().post([&drained] { drained.set_value(); });
            ASSERT_EQ(drained.get_future().wait_for(kPatience), std::future_status::ready);
            EXPECT_EQ(changes.count(), heard);
        }
    }
    if (manager) manager->setNetworkStatusChangedBlock(nullptr);
    EXPECT_EQ(console.lines(), std::vector<std::string>{}) << "nothing failed";
}
