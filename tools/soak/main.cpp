// qel-soak: runs the SDK for a bounded time against the reference resolution service, through
// a proxy that injects faults at random, with lookups from several threads, cache clears and
// network-change reports. It checks that every lookup is answered exactly once and that the
// process's descriptors and resident memory stay flat, and exits non-zero when one of these
// fails.
//
//   qel-soak [--seconds N] [--threads N] [--fault-rate R] [--memory-slack MiB] [--server PATH]
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
        } else {
            std::fprintf(
                stderr,
                "usage: %s [--seconds N] [--threads N] [--fault-rate R] [--memory-slack MiB]"
                " [--server PATH]\n",
                argv[0]);
            std::exit(2);
        }
    }
    return options;
}

// What the lookups got, from every thread.
struct Tally {
    std::atomic<uint64_t> issued{0}, answered{0}, repeated{0}, withAddresses{0};
    std::mutex mutex;
    std::map<std::pair<int64_t, std::string>, uint64_t> errors;  // guarded by mutex
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

pid_t startProxy(uint16_t servicePort, double faultRate, int& proxyPort) {
    const int listener = listenOnLoopback();
    proxyPort = portOf(listener);
    // The proxy's signals stay blocked until it has its handlers: their default would kill it.
    sigset_t signals, previous;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    ::sigprocmask(SIG_BLOCK, &signals, &previous);
    const pid_t child = ::fork();  // before the SDK starts any thread
    if (child == 0) qel::soak::FaultProxy(listener, servicePort, faultRate, 20261122).run();
    ::sigprocmask(SIG_SETMASK, &previous, nullptr);
    ::close(listener);
    return child;
}

pid_t startService(const Options& options, const qel::test::ScratchDirectory& scratch,
                   uint16_t port, int proxyPort) {
    std::ofstream(scratch.file("accounts")) << kAuthId << " " << kSecret << "\n";
    std::ofstream zone(scratch.file("zone"));
    for (size_t i = 0; i + 1 < kHosts.size(); ++i) {  // the last name stays unknown
        zone << kHosts[i] << ". 60 IN A 192.0.2." << i + 1 << "\n"
             << kHosts[i] << ". 60 IN AAAA 2001:db8::" << i + 1 << "\n";
    }
    zone.close();
    const std::string listen = "127.0.0.1:" + std::to_string(port);
    const std::string node = "http://127.0.0.1:" + std::to_string(proxyPort);
    const std::string accounts = scratch.file("accounts"), zoneFile = scratch.file("zone");
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl(options.server.c_str(), options.server.c_str(), "--accounts", accounts.c_str(),
                "--zone", zoneFile.c_str(), "--listen", listen.c_str(), "--advertise", node.c_str(),
                "--access-log", "/dev/null", static_cast<char*>(nullptr));
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
    QelHttpDnsManager::shared().getIPByDomain(
        host, type, [&tally, pending](std::optional<QelDNSError> error, Ips ips) {
            if (pending->calls.fetch_add(1) != 0) {
                tally.repeated.fetch_add(1);
                return;
            }
            if (error) {
                std::lock_guard<std::mutex> lock(tally.mutex);
                ++tally.errors[{error->code(), error->localizedDescription()}];
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
void settle(Tally& tally, pid_t proxy) {
    for (int round = 0; round < 2; ++round) {
        ::kill(proxy, SIGUSR1);
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
    int proxyPort = 0;
    const pid_t proxy = startProxy(servicePort, options.faultRate, proxyPort);
    const pid_t service = startService(options, scratch, servicePort, proxyPort);

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
    dns.customServerUrl("http://127.0.0.1:" + std::to_string(proxyPort));
    ::kill(proxy, SIGUSR1);  // the first login goes through, so no lookup meets status 0
    dns.registerAuthId(std::string(kAuthId), std::string(kSecret));
    for (int i = 0; i < 500 && dns.initStatus() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ::kill(proxy, SIGUSR2);

    load(tally, network, options.threads, std::max(2.0, options.seconds / 10));  // warm-up
    drained(tally);
    settle(tally, proxy);
    const size_t descriptorsAtStart = openDescriptors();
    const long residentAtStart = residentKiB();
    ::kill(proxy, SIGUSR2);

    load(tally, network, options.threads, options.seconds);
    const bool allAnswered = drained(tally);
    std::this_thread::sleep_for(std::chrono::seconds(1));  // room for a second call
    settle(tally, proxy);
    const size_t descriptorsAtEnd = openDescriptors();
    const long residentAtEnd = residentKiB();
    stopChild(proxy);
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
    std::printf("descriptors        %zu at start, %zu at end\n", descriptorsAtStart,
                descriptorsAtEnd);
    std::printf("resident KiB       %ld at start, %ld at end\n", residentAtStart, residentAtEnd);

    // Flat memory: the allocator keeps some of what the load freed, so allow a little.
    const long residentSlackKiB = options.memorySlackMiB * 1024;
    const bool ok = allAnswered && unanswered == 0 && tally.repeated.load() == 0 &&
                    descriptorsAtEnd == descriptorsAtStart &&
                    residentAtEnd <= residentAtStart + residentSlackKiB;
    std::printf("%s\n", ok ? "OK" : "FAILED");
    std::fflush(stdout);
    return ok ? 0 : 1;
}
