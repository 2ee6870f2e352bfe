// qel-soak: runs the SDK for a bounded time against the reference resolution service, through
// a proxy that injects faults at random, with lookups from several threads, cache clears and
// network-change reports. It checks that every lookup is answered exactly once and that the
// process's descriptors and resident memory stay flat, and exits non-zero when one of these
// fails.
//
//   qel-soak [--seconds N] [--threads N] [--fault-rate R] [--memory-slack MiB] [--server PATH]
//            [--resilient DEADLINE] [--nodes N] [--stop-node 1]
//
// --resilient turns the SDK's resilience profile on with that deadline per lookup, and the
// report then gives the largest lateness past it and the requests per lookup. --nodes puts N
// fault proxies in front of the service, each a resolve node of the login; --stop-node 1 then
// runs the load a second time with the preferred node stopped, and reports the share answered
// and the 99th percentile latency of both runs.
//
// The service (qel-httpdns-server) and the proxy run as child processes, so the figures are
// those of the SDK's process alone.
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FaultProxy.h"
#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSResilience.h"
#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/FakeReachability.h"
#include "support/ScratchDirectory.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ips = std::optional<std::vector<std::string>>;
namespace flags = qel::platform::ReachabilityFlags;

constexpr char kAuthId[] = "soak";
constexpr char kSecret[] = "soak-secret";
const std::vector<std::string> kHosts{"a.soak.test", "b.soak.test", "c.soak.test", "d.soak.test",
                                      "missing.soak.test"};
// A lookup not answered by then is counted as never answered (it is retried by no one).
constexpr auto kAnswerGuard = std::chrono::seconds(30);

struct Options {
    double seconds = 60;
    int threads = 4;
    double faultRate = 0.25;
    long memorySlackMiB = 8;  // sanitizer builds grow shadow memory: give them more
    std::string server = QEL_SERVER_BINARY;
    double resilientDeadline = 0;  // 0: the profile is off
    int nodes = 1;
    bool stopNode = false;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--seconds") {
            options.seconds = std::atof(argv[i + 1]);
        } else if (name == "--threads") {
            options.threads = std::max(1, std::atoi(argv[i + 1]));
        } else if (name == "--fault-rate") {
            options.faultRate = std::atof(argv[i + 1]);
        } else if (name == "--memory-slack") {
            options.memorySlackMiB = std::atol(argv[i + 1]);
        } else if (name == "--server") {
            options.server = argv[i + 1];
        } else if (name == "--resilient") {
            options.resilientDeadline = std::atof(argv[i + 1]);
        } else if (name == "--nodes") {
            options.nodes = std::clamp(std::atoi(argv[i + 1]), 1, 8);
        } else if (name == "--stop-node") {
            options.stopNode = std::atoi(argv[i + 1]) != 0;
        } else {
            std::fprintf(
                stderr,
                "usage: %s [--seconds N] [--threads N] [--fault-rate R] [--memory-slack MiB]"
                " [--server PATH] [--resilient DEADLINE] [--nodes N] [--stop-node 1]\n",
                argv[0]);
            std::exit(2);
        }
    }
    return options;
}

// What the lookups got, from every thread.
struct Tally {
    std::atomic<uint64_t> issued{0}, answered{0}, repeated{0}, withAddresses{0};
    std::atomic<uint64_t> traced{0}, requests{0}, mostRequests{0};
    std::mutex mutex;
    std::map<std::pair<int64_t, std::string>, uint64_t> errors;  // guarded by mutex
    std::vector<double> latencies;                               // guarded by mutex, seconds

    // A point of the run; what came after it is a phase.
    struct Phase {
        uint64_t issued = 0, withAddresses = 0;
        size_t latencies = 0;
    };
    Phase mark() {
        std::lock_guard<std::mutex> lock(mutex);
        return {issued.load(), withAddresses.load(), latencies.size()};
    }
    // The latency at `percentile` (1.0: the slowest) of the lookups answered since `from`.
    double latencyAt(const Phase& from, double percentile) {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<double> since(latencies.begin() + static_cast<long>(from.latencies),
                                  latencies.end());
        if (since.empty()) return 0;
        const size_t at =
            std::min(since.size() - 1, static_cast<size_t>(percentile * since.size()));
        std::nth_element(since.begin(), since.begin() + static_cast<long>(at), since.end());
        return since[at];
    }
};

// One lookup's calls, shared by its callback and the thread waiting for it.
struct Pending {
    std::atomic<int> calls{0};
    std::atomic<bool> failed{false};
    std::mutex mutex;
    std::condition_variable answered;
};

size_t openDescriptors() {
    size_t count = 0;
    DIR* directory = ::opendir("/proc/self/fd");
    while (directory && ::readdir(directory)) ++count;

    if (directory) ::closedir(directory);
    return count;
}

long residentKiB() {
    long pages = 0, resident = 0;
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm && std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    if (statm) std::fclose(statm);
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

int listenOnLoopback() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 128) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("qel-soak: loopback socket");
        std::exit(2);
    }
    return fd;
}

uint16_t portOf(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

bool accepting(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool connected =
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

// Each proxy draws its own faults (`seed`): nodes that fail together would be one node.
pid_t startProxy(uint16_t servicePort, double faultRate, uint32_t seed, int& proxyPort) {
    const int listener = listenOnLoopback();
    proxyPort = portOf(listener);
    // The proxy's signals stay blocked until it has its handlers: their default would kill it.
    sigset_t signals, previous;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    ::sigprocmask(SIG_BLOCK, &signals, &previous);
    const pid_t child = ::fork();  // before the SDK starts any thread
    if (child == 0) qel::soak::FaultProxy(listener, servicePort, faultRate, seed).run();
    ::sigprocmask(SIG_SETMASK, &previous, nullptr);
    ::close(listener);
    return child;
}

pid_t startService(const Options& options, const qel::test::ScratchDirectory& scratch,
                   uint16_t port, const std::vector<int>& proxyPorts) {
    std::ofstream(scratch.file("accounts")) << kAuthId << " " << kSecret << "\n";
    std::ofstream zone(scratch.file("zone"));
    for (size_t i = 0; i + 1 < kHosts.size(); ++i) {  // the last name stays unknown
        zone << kHosts[i] << ". 60 IN A 192.0.2." << i + 1 << "\n"
             << kHosts[i] << ". 60 IN AAAA 2001:db8::" << i + 1 << "\n";
    }
    zone.close();
    std::vector<std::string> arguments{options.server,
                                       "--accounts",
                                       scratch.file("accounts"),
                                       "--zone",
                                       scratch.file("zone"),
                                       "--listen",
                                       "127.0.0.1:" + std::to_string(port),
                                       "--access-log",
                                       "/dev/null"};
    for (int proxyPort : proxyPorts) {  // each proxy is a node; the first is the login's choice
        arguments.push_back("--advertise");
        arguments.push_back("http://127.0.0.1:" + std::to_string(proxyPort));
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::execv(options.server.c_str(), argv.data());
        std::perror("qel-soak: cannot run the service");
        std::_Exit(2);
    }
    for (int i = 0; i < 500 && !accepting(port); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return child;
}

uint16_t freePort() {
    const int fd = listenOnLoopback();
    const uint16_t port = portOf(fd);
    ::close(fd);
    return port;
}

// Issues one lookup and waits for its first answer (bounded); the callback counts every call.
// True when the lookup was refused before the call returned (no network, or a registration
// left without one).
bool lookUp(Tally& tally, const std::string& host, int64_t type) {
    auto pending = std::make_shared<Pending>();
    tally.issued.fetch_add(1);
    const auto start = Clock::now();
    QelHttpDnsManager::shared().getIPByDomain(
        host, type, [&tally, pending, start](std::optional<QelDNSError> error, Ips ips) {
            if (pending->calls.fetch_add(1) != 0) {
                tally.repeated.fetch_add(1);
                return;
            }
            {
                std::lock_guard<std::mutex> lock(tally.mutex);
                tally.latencies.push_back(
                    std::chrono::duration<double>(Clock::now() - start).count());
                if (error) ++tally.errors[{error->code(), error->localizedDescription()}];
            }
            if (error) {
                pending->failed = true;
            } else if (ips) {
                tally.withAddresses.fetch_add(1);
            }
            tally.answered.fetch_add(1);
            std::lock_guard<std::mutex> lock(pending->mutex);
            pending->answered.notify_all();
        });
    const bool refusedAtOnce = pending->calls.load() > 0 && pending->failed.load();
    std::unique_lock<std::mutex> lock(pending->mutex);
    pending->answered.wait_for(lock, kAnswerGuard, [&] { return pending->calls.load() > 0; });
    return refusedAtOnce;
}

// Lookups from `threads` threads, and cache clears and network changes from one more, for
// `seconds`.
void load(Tally& tally, qel::test::FakeReachabilityFactory& network, int threads, double seconds) {
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            std::mt19937 random(static_cast<uint32_t>(t + 1));
            while (Clock::now() < end) {
                // Refusals come back at once: pace them.
                if (lookUp(tally, kHosts[random() % kHosts.size()], 1 + random() % 2)) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                }
            }
        });
    }
    workers.emplace_back([&] {
        std::mt19937 random(99);
        QelHttpDnsManager& dns = QelHttpDnsManager::shared();
        for (int tick = 0; Clock::now() < end; ++tick) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            dns.cleanAllCache();
            // Logins go through the faults too: a failed one leaves status 3 (or 1 offline),
            // and the lookups then log in again themselves.
            if (tick % 20 == 0) dns.registerAuthId(std::string(kAuthId), std::string(kSecret));
            if (tick % 7 == 0) {
                const uint32_t choice = random() % 10;
                network.setFlags(choice == 0  ? 0
                                 : choice < 4 ? flags::Reachable | flags::IsWWAN
                                              : flags::Reachable);
                network.fire();
            }
        }
        network.setFlags(flags::Reachable);
        network.fire();
        dns.registerAuthId(std::string(kAuthId), std::string(kSecret));
    });
    for (auto& worker : workers) worker.join();
}

// Brings the SDK to the same state before each measurement: every connection it keeps is
// dropped by the calmed proxy, and once curl may look for dead connections again (it does so
// at most once a second), one lookup clears them out and leaves one live connection. Twice:
// the first round also lets the requests still under way (network-change refreshes retry
// without end) finish, possibly on connections of their own.
void settle(Tally& tally, const std::vector<pid_t>& proxies) {
    for (int round = 0; round < 2; ++round) {
        for (pid_t proxy : proxies) ::kill(proxy, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        QelHttpDnsManager::shared().cleanAllCache();
        lookUp(tally, kHosts[0], 1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
}

bool drained(const Tally& tally) {
    for (int i = 0; i < 300 && tally.answered.load() < tally.issued.load(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return tally.answered.load() == tally.issued.load();
}

void stopChild(pid_t child) {
    ::kill(child, SIGTERM);
    int status = 0;
    ::waitpid(child, &status, 0);
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    ::signal(SIGPIPE, SIG_IGN);
    qel::test::ScratchDirectory scratch;
    const uint16_t servicePort = freePort();
    std::vector<int> proxyPorts(options.nodes);
    std::vector<pid_t> proxies;
    for (int& port : proxyPorts) {
        const uint32_t seed = 20261122 + static_cast<uint32_t>(proxies.size());
        proxies.push_back(startProxy(servicePort, options.faultRate, seed, port));
    }
    const pid_t service = startService(options, scratch, servicePort, proxyPorts);
    const auto signalProxies = [&proxies](int signal) {
        for (pid_t proxy : proxies) ::kill(proxy, signal);
    };

    // These outlive main (made once, never destroyed, like the SDK's own managers): those
    // managers hold the network's sources, and a late second answer would still be counted.
    static auto& network = *new qel::test::FakeReachabilityFactory(flags::Reachable);
    static auto& tally = *new Tally;
    // Request and answer lines are counted; anything else (a platform fault) is shown.
    static auto& consoleLines = *new std::atomic<uint64_t>(0);
    qel::platform::Console::setSink([](const std::string& line) {
        consoleLines.fetch_add(1);
        if (line.rfind("request ", 0) != 0 && line.rfind("response ", 0) != 0 &&
            line.rfind("###", 0) != 0) {
            std::fprintf(stderr, "console: %s\n", line.c_str());
        }
    });
    qel::platform::MainBundle::setIdentifier("com.example.soak");
    qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.setTimeout(1.0);
    dns.enableCacheIP(true);
    // Logins go through the last proxy, which --stop-node leaves running.
    dns.customServerUrl("http://127.0.0.1:" + std::to_string(proxyPorts.back()));
    if (options.resilientDeadline > 0) {
        QelDNSResilienceOptions resilience;
        resilience.deadline = options.resilientDeadline;
        QelDNSResilience::enable(resilience);
    }
    QelDNSTraceObserver::install([](const QelDNSLookupTrace& trace) {
        tally.traced.fetch_add(1);
        const uint64_t attempts = static_cast<uint64_t>(std::max(trace.attempts, 0));
        tally.requests.fetch_add(attempts);
        uint64_t most = tally.mostRequests.load();
        while (attempts > most && !tally.mostRequests.compare_exchange_weak(most, attempts)) {}
    });
    signalProxies(SIGUSR1);  // the first login goes through, so no lookup meets status 0
    dns.registerAuthId(std::string(kAuthId), std::string(kSecret));
    for (int i = 0; i < 500 && dns.initStatus() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    signalProxies(SIGUSR2);

    load(tally, network, options.threads, std::max(2.0, options.seconds / 10));  // warm-up
    drained(tally);
    settle(tally, proxies);
    const size_t descriptorsAtStart = openDescriptors();
    const long residentAtStart = residentKiB();
    signalProxies(SIGUSR2);

    const Tally::Phase allUp = tally.mark();
    load(tally, network, options.threads, options.seconds);
    bool allAnswered = drained(tally);
    const Tally::Phase oneDown = tally.mark();
    if (options.stopNode && proxies.size() > 1) {
        stopChild(proxies.front());
        load(tally, network, options.threads, options.seconds);
        allAnswered = drained(tally) && allAnswered;
    }
    const Tally::Phase end = tally.mark();
    std::this_thread::sleep_for(std::chrono::seconds(1));  // room for a second call
    settle(tally, proxies);
    const size_t descriptorsAtEnd = openDescriptors();
    const long residentAtEnd = residentKiB();
    for (pid_t proxy : proxies) stopChild(proxy);
    stopChild(service);

    const uint64_t unanswered = tally.issued.load() - tally.answered.load();
    std::printf("seconds            %.0f (+ warm-up), %d lookup threads, fault rate %.2f\n",
                options.seconds, options.threads, options.faultRate);
    std::printf("lookups issued     %llu\n", static_cast<unsigned long long>(tally.issued.load()));
    std::printf("lookups answered   %llu (%llu with addresses)\n",
                static_cast<unsigned long long>(tally.answered.load()),
                static_cast<unsigned long long>(tally.withAddresses.load()));
    std::printf("never answered     %llu\n", static_cast<unsigned long long>(unanswered));
    std::printf("answered twice+    %llu\n",
                static_cast<unsigned long long>(tally.repeated.load()));
    for (const auto& [error, count] : tally.errors) {
        std::printf("error %6lld %-40s %llu\n", static_cast<long long>(error.first),
                    ("\"" + error.second + "\"").c_str(), static_cast<unsigned long long>(count));
    }
    std::printf("console lines      %llu\n", static_cast<unsigned long long>(consoleLines.load()));
    std::printf(
        "requests/lookup    %.2f on average, %llu at most\n",
        tally.traced.load() ? double(tally.requests.load()) / double(tally.traced.load()) : 0.0,
        static_cast<unsigned long long>(tally.mostRequests.load()));
    const auto phase = [&](const char* name, const Tally::Phase& from, const Tally::Phase& to) {
        const uint64_t issued = to.issued - from.issued;
        std::printf(
            "%-18s %.1f%% answered with addresses, p99 latency %.1f ms, slowest %.1f ms\n", name,
            issued ? 100.0 * double(to.withAddresses - from.withAddresses) / double(issued) : 0.0,
            tally.latencyAt(from, 0.99) * 1e3, tally.latencyAt(from, 1.0) * 1e3);
    };
    phase(options.nodes > 1 ? "all nodes up" : "load", allUp, oneDown);
    if (options.stopNode && proxies.size() > 1) phase("first node stopped", oneDown, end);
    // Past the deadline by more than the platform thread's scheduling: a lookup that did not end.
    const double lateness = tally.latencyAt(allUp, 1.0) - options.resilientDeadline;
    if (options.resilientDeadline > 0)
        std::printf("largest lateness   %.1f ms past the deadline\n", lateness * 1e3);
    std::printf("descriptors        %zu at start, %zu at end\n", descriptorsAtStart,
                descriptorsAtEnd);
    std::printf("resident KiB       %ld at start, %ld at end\n", residentAtStart, residentAtEnd);

    // Flat memory: the allocator keeps some of what the load freed, so allow a little.
    const long residentSlackKiB = options.memorySlackMiB * 1024;
    const bool ok = allAnswered && unanswered == 0 && tally.repeated.load() == 0 &&
                    (options.resilientDeadline <= 0 || lateness < 0.5) &&
                    descriptorsAtEnd == descriptorsAtStart &&
                    residentAtEnd <= residentAtStart + residentSlackKiB;
    std::printf("%s\n", ok ? "OK" : "FAILED");
    std::fflush(stdout);
    return ok ? 0 : 1;
}
