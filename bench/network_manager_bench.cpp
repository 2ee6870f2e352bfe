// networkAvailable sits on every lookup's path. Compared with a bare atomic load (the floor:
// what reading a published snapshot costs at best) and with one routing-table dump over
// rtnetlink (what answering from the kernel on each call would cost).
#include <benchmark/benchmark.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "BenchMain.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"

namespace {

void BM_BareAtomicLoad(benchmark::State& state) {
    static std::atomic<uint32_t> flags{2};
    for (auto _ : state) benchmark::DoNotOptimize(flags.load(std::memory_order_acquire));
}
BENCHMARK(BM_BareAtomicLoad)->ThreadRange(1, 2);

void BM_NetworkAvailable(benchmark::State& state) {
    QelDNSNetworkManager& manager = QelDNSNetworkManager::shared();
    for (auto _ : state) benchmark::DoNotOptimize(manager.networkAvailable());
}
BENCHMARK(BM_NetworkAvailable)->ThreadRange(1, 2);

// Dumps the whole routing table (both families) and counts the default routes in it.
void BM_RouteTableDump(benchmark::State& state) {
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        state.SkipWithError("no rtnetlink");
        return;
    }
    std::vector<char> buffer(64 * 1024);
    uint32_t sequence = 0;
    for (auto _ : state) {
        struct {
            nlmsghdr header;
            rtmsg body;
        } request{};
        request.header.nlmsg_len = sizeof request;
        request.header.nlmsg_type = RTM_GETROUTE;
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request.header.nlmsg_seq = ++sequence;
        ::send(fd, &request, sizeof request, 0);
        int defaults = 0;
        for (bool done = false; !done;) {
            int left = static_cast<int>(::recv(fd, buffer.data(), buffer.size(), 0));
            if (left <= 0) break;
            for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
                 NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
                if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
                    done = true;
                    break;
                }
                const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(message));
                defaults += route->rtm_dst_len == 0 && route->rtm_type == RTN_UNICAST;
            }
        }
        benchmark::DoNotOptimize(defaults);
    }
    ::close(fd);
}
BENCHMARK(BM_RouteTableDump);

}  // namespace

int main(int argc, char** argv) {
    return qel::bench::run(argc, argv, [](const qel::bench::MedianReporter& medians) {
        using qel::bench::divide;
        const auto available = medians.seconds("BM_NetworkAvailable");
        qel::bench::printRatio("networkAvailable / bare atomic load:",
                               divide(available, medians.seconds("BM_BareAtomicLoad")));
        qel::bench::printRatio("networkAvailable / bare atomic load, 2 threads:",
                               divide(medians.seconds("BM_NetworkAvailable", 2),
                                      medians.seconds("BM_BareAtomicLoad", 2)));
        qel::bench::printRatio("routing-table dump / networkAvailable:",
                               divide(medians.seconds("BM_RouteTableDump"), available));
    });
}
