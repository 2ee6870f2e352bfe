// What a program pays to resolve through the daemon: getaddrinfo through the name-service
// module and qel-httpdnsd (the name in the daemon's cache) against getaddrinfo answered from
// /etc/hosts by glibc's "files" source, in the same run; and the module's share, the socket
// exchange of the protocol alone, against the same exchange with a bare server (a process that
// accepts, reads and answers with canned bytes: the floor of one connection per request). The
// reference service, the daemon and the bare server run as child processes on loopback; the
// ratios are printed after the table.
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

#include <csignal>

#include <cstring>
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

struct Fixture {
    qel::test::ScratchDirectory scratch;
    TempFile accounts{"acct-7 s3cr3t\n"}, zone{"www.example.test 600 A 192.0.2.10\n"}, secret{"s3cr3t\n"}, config;
    const int port = qel::test::freePort(SOCK_STREAM);
    const std::string socket = scratch.file("resolve.sock");
    std::unique_ptr<ChildProcess> service, daemon;

    Fixture() {
        service = std::make_unique<ChildProcess>(
            QEL_SERVER_BINARY, std::vector<std::string>{"--accounts", accounts.path(), "--zone", zone.path(), "--listen",
                                                        "127.0.0.1:" + std::to_string(port), "--access-log", "/dev/null"});
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
void exchange(benchmark::State& state, const std::string& path) {
    const std::vector<uint8_t> request = qel::daemon::encodeRequest({QEL_FAMILY_V4, 5000, "www.example.test"});
    const sockaddr_un address = unixAddress(path);
    for (auto _ : state) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        uint8_t answer[QEL_MAX_ANSWER];
        size_t got = 0;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
            for (ssize_t n; (n = ::recv(fd, answer + got, sizeof answer - got, 0)) > 0;) got += static_cast<size_t>(n);
        }
        ::close(fd);
        if (!qel::daemon::decodeAnswer(std::vector<uint8_t>(answer, answer + got))) {
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

void report(const qel::bench::MedianReporter& medians) {
    using qel::bench::divide;
    const auto files = medians.seconds("BM_Getaddrinfo_Files");
    qel::bench::printRatio("getaddrinfo through the daemon / from /etc/hosts:",
                           divide(medians.seconds("BM_Getaddrinfo_Daemon"), files));
    qel::bench::printRatio("the socket exchange alone / getaddrinfo from /etc/hosts:",
                           divide(medians.seconds("BM_SocketExchange"), files));
    qel::bench::printRatio("the socket exchange with the daemon / with a bare server:",
                           divide(medians.seconds("BM_SocketExchange"), medians.seconds("BM_BareServerExchange")));
}

}  // namespace

int main(int argc, char** argv) { return qel::bench::run(argc, argv, report, 5); }
