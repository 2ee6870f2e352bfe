// What a program pays to resolve through the daemon: getaddrinfo through the name-service
// module and qel-httpdnsd (the name in the daemon's cache) against getaddrinfo answered from
// /etc/hosts by glibc's "files" source, in the same run; and the module's share, the socket
// exchange of the protocol alone, against the same exchange with a bare server (a process that
// accepts, reads and answers with canned bytes: the floor of one connection per request). The
// reference service, the daemon and the bare server run as child processes on loopback; the
// ratios are printed after the table, with what the table cannot show: the mean and the p99 of
// single lookups, the daemon's resident memory with 100 000 names cached, and the requests the
// service gets when 50 processes ask the daemon for one new name at once.
//
//   build/release/bench/daemon_lookup_bench
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <netdb.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchMain.h"
#include "ResolveMessage.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/ScratchDirectory.h"

extern "C" int __nss_configure_lookup(const char* database, const char* service);

namespace {

using qel::test::ChildProcess;
using qel::test::TempFile;

sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// A forked process that answers every connection on `path` with `answer` once it has read a
// request, and does nothing else.
pid_t startBareServer(const std::string& path, const std::vector<uint8_t>& answer) {
    const sockaddr_un address = unixAddress(path);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 128) != 0) {
        return -1;
    }
    const pid_t pid = ::fork();
    if (pid != 0) {
        ::close(listener);
        return pid;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // not left behind by a benchmark that dies
    for (;;) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        uint8_t request[QEL_MAX_REQUEST];
        if (fd >= 0 && ::recv(fd, request, sizeof request, 0) > 0) {
            (void)!::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        if (fd >= 0) ::close(fd);
    }
}

constexpr int kManyNames = 100000;
const char* const kBurstName = "burst.bench.test";

std::string manyName(int i) { return "n" + std::to_string(i) + ".bench.test"; }

// www.example.test, kManyNames names for the memory row and the name of the burst.
std::string zoneText() {
    std::string text = "www.example.test 600 A 192.0.2.10\n" + std::string(kBurstName) + " 600 A 192.0.2.11\n";
    for (int i = 0; i < kManyNames; ++i) {
        text += manyName(i) + " 600 A 10." + std::to_string(i >> 16) + "." + std::to_string((i >> 8) & 255) + "." +
                std::to_string(i & 255) + "\n";
    }
    return text;
}

struct Fixture {
    qel::test::ScratchDirectory scratch;
    TempFile accounts{"acct-7 s3cr3t\n"}, zone{zoneText()}, secret{"s3cr3t\n"}, config, accessLog;
    const int port = qel::test::freePort(SOCK_STREAM);
    const std::string socket = scratch.file("resolve.sock");
    std::unique_ptr<ChildProcess> service, daemon;

    Fixture() {
        service = std::make_unique<ChildProcess>(
            QEL_SERVER_BINARY, std::vector<std::string>{"--accounts", accounts.path(), "--zone", zone.path(), "--listen",
                                                        "127.0.0.1:" + std::to_string(port), "--access-log", accessLog.path()});
        qel::test::eventually([&] { return service->errors().find("listening on") != std::string::npos; });
        ::chmod(secret.path().c_str(), 0600);
        config.write("service_url = http://127.0.0.1:" + std::to_string(port) + "\nauth_id = acct-7\nauth_secret_file = " +
                     secret.path() + "\nsocket = " + socket + "\nstore =\n");
        daemon = std::make_unique<ChildProcess>(QEL_DAEMON_BINARY, std::vector<std::string>{"--config", config.path()});
        qel::test::eventually([&] { return daemon->errors().find("answering on") != std::string::npos; });
        dlopen(NSS_MODULE, RTLD_NOW);
        ::setenv("QEL_HTTPDNS_SOCKET", socket.c_str(), 1);
        // The daemon's own answer, so that both exchanges move the same bytes.
        qel::daemon::ResolveAnswer answer;
        answer.status = QEL_STATUS_ANSWERED;
        answer.addresses.push_back({QEL_FAMILY_V4, 600, std::string("\xc0\x00\x02\x0a", 4)});
        bareServer = startBareServer(bareSocket, qel::daemon::encodeAnswer(answer));
    }
    ~Fixture() {
        if (bareServer > 0) ::kill(bareServer, SIGKILL), ::waitpid(bareServer, nullptr, 0);
    }

    const std::string bareSocket = scratch.file("bare.sock");
    pid_t bareServer = -1;
};

// Destroyed at exit, which stops the child processes.
Fixture& fixture() {
    static Fixture instance;
    return instance;
}

void lookUp(benchmark::State& state, const char* source, const char* name) {
    fixture();
    __nss_configure_lookup("hosts", source);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    for (auto _ : state) {
        addrinfo* found = nullptr;
        if (::getaddrinfo(name, nullptr, &hints, &found) != 0) {
            state.SkipWithError("not resolved");
            break;
        }
        ::freeaddrinfo(found);
    }
}

void BM_Getaddrinfo_Daemon(benchmark::State& state) { lookUp(state, "qelhttpdns", "www.example.test"); }
void BM_Getaddrinfo_Files(benchmark::State& state) { lookUp(state, "files", "localhost"); }

// The protocol's exchange, as the module makes it: connect, send, read to the end.
std::optional<qel::daemon::ResolveAnswer> askOnce(const sockaddr_un& address, const std::vector<uint8_t>& request) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    uint8_t answer[QEL_MAX_ANSWER];
    size_t got = 0;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
        for (ssize_t n; (n = ::recv(fd, answer + got, sizeof answer - got, 0)) > 0;) got += static_cast<size_t>(n);
    }
    ::close(fd);
    return qel::daemon::decodeAnswer(std::vector<uint8_t>(answer, answer + got));
}

std::vector<uint8_t> requestFor(const std::string& name) {
    return qel::daemon::encodeRequest({QEL_FAMILY_V4, 5000, name});
}

void exchange(benchmark::State& state, const std::string& path) {
    const std::vector<uint8_t> request = requestFor("www.example.test");
    const sockaddr_un address = unixAddress(path);
    for (auto _ : state) {
        if (!askOnce(address, request)) {
            state.SkipWithError("no answer");
            break;
        }
    }
}

void BM_SocketExchange(benchmark::State& state) { exchange(state, fixture().socket); }
void BM_BareServerExchange(benchmark::State& state) { exchange(state, fixture().bareSocket); }

BENCHMARK(BM_Getaddrinfo_Daemon)->UseRealTime();
BENCHMARK(BM_Getaddrinfo_Files)->UseRealTime();
BENCHMARK(BM_SocketExchange)->UseRealTime();
BENCHMARK(BM_BareServerExchange)->UseRealTime();

// ---------------------------------------------------------------------- beyond the table

struct Spread {
    double mean = 0, p99 = 0;  // microseconds
};

// Single getaddrinfo calls timed one by one: the table's means hide the tail.
Spread timeLookups(const char* source, const char* name) {
    __nss_configure_lookup("hosts", source);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    std::vector<double> micros;
    for (int i = 0; i < 5000; ++i) {
        const auto start = std::chrono::steady_clock::now();
        addrinfo* found = nullptr;
        if (::getaddrinfo(name, nullptr, &hints, &found) == 0) ::freeaddrinfo(found);
        micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    Spread spread;
    for (double m : micros) spread.mean += m / static_cast<double>(micros.size());
    std::sort(micros.begin(), micros.end());
    spread.p99 = micros[micros.size() * 99 / 100];
    return spread;
}

long residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

// Asks for every one of the kManyNames names from 8 threads (the daemon's per-process bound is
// 16); returns how many were answered.
int askManyNames(const sockaddr_un& address) {
    std::atomic<int> next{0}, answered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i; (i = next++) < kManyNames;) {
                const auto answer = askOnce(address, requestFor(manyName(i)));
                answered += answer && answer->status == QEL_STATUS_ANSWERED;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    return answered.load();
}

// 50 processes, released at once through a pipe, each asking for kBurstName; returns how many
// were answered.
int burstOfProcesses(const sockaddr_un& address) {
    int gate[2];
    if (::pipe(gate) != 0) return 0;
    std::vector<pid_t> children;
    for (int i = 0; i < 50; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(gate[1]);
            char byte;
            (void)!::read(gate[0], &byte, 1);  // returns at the close of the write end
            const auto answer = askOnce(address, requestFor(kBurstName));
            ::_exit(answer && answer->status == QEL_STATUS_ANSWERED ? 0 : 1);
        }
        children.push_back(pid);
    }
    ::close(gate[0]);
    ::close(gate[1]);
    int answered = 0;
    for (pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        answered += WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return answered;
}

int accessLinesFor(const std::string& log, const std::string& name) {
    int lines = 0;
    for (size_t at = 0; (at = log.find("host=" + name + " ", at)) != std::string::npos; ++at) ++lines;
    return lines;
}

void reportBeyondTheTable() {
    Fixture& f = fixture();
    const Spread daemon = timeLookups("qelhttpdns", "www.example.test");
    const Spread files = timeLookups("files", "localhost");
    std::printf("getaddrinfo one by one, mean and p99: through the daemon %.1f us, %.1f us;"
                " from /etc/hosts %.1f us, %.1f us\n", daemon.mean, daemon.p99, files.mean, files.p99);
    qel::bench::printRatio("getaddrinfo through the daemon / from /etc/hosts, means:", daemon.mean / files.mean,
                           "<= 3x");
    std::printf("%-58s %8.1f us  (target < 200 us)\n", "getaddrinfo through the daemon, p99:", daemon.p99);

    const sockaddr_un address = unixAddress(f.socket);
    const long before = residentKiB(f.daemon->pid);
    const int answered = askManyNames(address);
    const long after = residentKiB(f.daemon->pid);
    std::printf("daemon resident memory: %ld KiB, then %ld KiB with %d names cached (%.0f B per name)\n", before,
                after, answered, answered ? (after - before) * 1024.0 / answered : 0.0);

    const int burst = burstOfProcesses(address);
    std::printf("50 processes asking for one new name at once: %d answered, %d request(s) to the service"
                "  (target: 1)\n", burst, accessLinesFor(f.accessLog.read(), kBurstName));
}

void report(const qel::bench::MedianReporter& medians) {
    using qel::bench::divide;
    const auto files = medians.seconds("BM_Getaddrinfo_Files");
    qel::bench::printRatio("getaddrinfo through the daemon / from /etc/hosts:",
                           divide(medians.seconds("BM_Getaddrinfo_Daemon"), files));
    qel::bench::printRatio("the socket exchange alone / getaddrinfo from /etc/hosts:",
                           divide(medians.seconds("BM_SocketExchange"), files));
    qel::bench::printRatio("the socket exchange with the daemon / with a bare server:",
                           divide(medians.seconds("BM_SocketExchange"), medians.seconds("BM_BareServerExchange")));
    reportBeyondTheTable();
}

}  // namespace

int main(int argc, char** argv) { return qel::bench::run(argc, argv, report, 5); }
