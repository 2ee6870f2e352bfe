// qel-httpdnsd as a child process, in front of the reference service on loopback: what a caller
// of its socket gets for each family, a malformed request and a busy caller; what it logs and
// never logs; its configuration refused line by line, and reloaded.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "ResolveMessage.h"
#include "ServerTestSupport.h"

namespace {

using namespace qel::daemon;
using namespace qel::server::test;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

extern "C" int __nss_configure_lookup(const char* database, const char* service);

// What getaddrinfo says for `name` with the name-service module as the only source of hosts.
std::string throughTheModule(const std::string& socketPath, const char* name, int family) {
    static void* const module = dlopen(NSS_MODULE, RTLD_NOW);  // found again by its name
    if (!module) return "no module";
    ::setenv("QEL_HTTPDNS_SOCKET", socketPath.c_str(), 1);
    __nss_configure_lookup("hosts", "qelhttpdns");
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int status = ::getaddrinfo(name, nullptr, &hints, &found);
    if (status != 0) return gai_strerror(status);
    std::string addresses;
    for (const addrinfo* at = found; at; at = at->ai_next) {
        char text[INET6_ADDRSTRLEN];
        const void* bytes = at->ai_family == AF_INET ? static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(at->ai_addr)->sin_addr)
                                                     : &reinterpret_cast<sockaddr_in6*>(at->ai_addr)->sin6_addr;
        addresses += (addresses.empty() ? "" : " ") + std::string(inet_ntop(at->ai_family, bytes, text, sizeof text));
    }
    ::freeaddrinfo(found);
    return addresses;
}

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// A socket connected to `address` (or not, when the daemon refuses): system calls only, so a
// forked child may use it.
int connectTo(const sockaddr_un& address) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    (void)!::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return fd;
}

// Sends `bytes` to the socket (the first `pauseAfter` of them, a pause, the rest) and reads the
// answer to the end.
std::optional<ResolveAnswer> askSocket(const std::string& socketPath, const std::vector<uint8_t>& bytes,
                                       size_t pauseAfter = 0) {
    const int fd = connectTo(socketAddress(socketPath));
    std::vector<uint8_t> answer;
    const auto sent = [&](size_t from, size_t to) {
        return ::send(fd, bytes.data() + from, to - from, MSG_NOSIGNAL) == static_cast<ssize_t>(to - from);
    };
    if (sent(0, pauseAfter) &&
        (std::this_thread::sleep_for(std::chrono::milliseconds(pauseAfter ? 50 : 0)), sent(pauseAfter, bytes.size()))) {
        uint8_t buffer[QEL_MAX_ANSWER];
        for (ssize_t got; (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) answer.insert(answer.end(), buffer, buffer + got);
    }
    ::close(fd);
    return decodeAnswer(answer);
}

// The status of the answer read from `fd` within 5 s, or -1.
int readAnswer(int fd) {
    std::vector<uint8_t> bytes;
    uint8_t buffer[QEL_MAX_ANSWER];
    pollfd ready{fd, POLLIN, 0};
    for (ssize_t got; ::poll(&ready, 1, 5000) == 1 && (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
        bytes.insert(bytes.end(), buffer, buffer + got);
    }
    const auto answer = decodeAnswer(bytes);
    return answer ? answer->status : -1;
}

std::vector<std::string> addressesOf(const ResolveAnswer& answer) {
    std::vector<std::string> texts;
    for (const auto& address : answer.addresses) {
        char text[INET6_ADDRSTRLEN];
        inet_ntop(address.family == QEL_FAMILY_V4 ? AF_INET : AF_INET6, address.bytes.data(), text, sizeof text);
        // The lifetime left: the zone's 60 s, less what has passed since the service answered.
        texts.push_back(std::string(text) + (address.ttl > 50 && address.ttl <= 60 ? "/60" : "/" + std::to_string(address.ttl)));
    }
    return texts;
}

// The service, a secret file only its owner reads, a configuration and the daemon.
struct Daemon {
    explicit Daemon(const std::string& extra = "", bool keepsAStore = true) : withStore(keepsAStore) {
        secret.write(std::string(kSecret) + "\n");
        ::chmod(secret.path().c_str(), 0600);
        writeConfig(extra);
        process = std::make_unique<ChildProcess>(QEL_DAEMON_BINARY, std::vector<std::string>{"--config", config.path()});
        EXPECT_TRUE(eventually([&] { return contains(process->errors(), "answering on"); })) << process->errors();
    }
    void writeConfig(const std::string& extra) const {
        config.write("service_url = " + service.url() + "\nauth_id = " + kAuthId + "\nauth_secret_file = " +
                     secret.path() + "\nsocket = " + socket + "\nstore = " + (withStore ? scratch.file("store") : "") +
                     "\ntimeout = 2\nmax_per_peer = 2\n" + extra);
    }
    std::optional<ResolveAnswer> ask(const std::string& name, int family) const {
        return askSocket(socket, encodeRequest({family, 2000, name}));
    }

    LocalService service{"www.example.test 60 A 192.0.2.10\nwww.example.test 60 AAAA 2001:db8::10\n"
                         "v4only.test 30 A 192.0.2.11\n"};
    qel::test::ScratchDirectory scratch;
    TempFile secret, config;
    const std::string socket = scratch.file("resolve.sock");
    const bool withStore;
    std::unique_ptr<ChildProcess> process;
};

}  // namespace

TEST(Daemon, AnswersEachFamilyRefusesWhatItCannotAndNeverShowsTheSecret) {
    const std::string stubPort = std::to_string(freePort(SOCK_DGRAM));
    const Daemon daemon("dns_listen = 127.0.0.1:" + stubPort + "\ndns_upstream = refuse\n");
    using Strings = std::vector<std::string>;
    const struct {
        std::string name;
        int family, status;
        Strings addresses;
    } rows[] = {
        {"www.example.test", QEL_FAMILY_BOTH, QEL_STATUS_ANSWERED, {"192.0.2.10/60", "2001:db8::10/60"}},
        {"www.example.test", QEL_FAMILY_V6, QEL_STATUS_ANSWERED, {"2001:db8::10/60"}},
        {"v4only.test", QEL_FAMILY_V6, QEL_STATUS_NOT_FOUND, {}},  // the service has no address
        {"bad..name", QEL_FAMILY_V4, QEL_STATUS_NOT_FOUND, {}},    // the SDK refuses the name
    };
    for (const auto& row : rows) {
        const auto answer = daemon.ask(row.name, row.family);
        ASSERT_TRUE(answer) << row.name;
        EXPECT_EQ(answer->status, row.status) << row.name << " " << answer->message;
        EXPECT_EQ(addressesOf(*answer), row.addresses) << row.name;
    }
    // A request that arrives in parts, within its header or after it, is read to its end.
    for (size_t pauseAfter : {5, QEL_REQUEST_HEADER + 3}) {
        const auto answer = askSocket(daemon.socket, encodeRequest({QEL_FAMILY_V4, 2000, "www.example.test"}), pauseAfter);
        EXPECT_EQ(answer ? addressesOf(*answer) : Strings{}, Strings{"192.0.2.10/60"}) << pauseAfter;
    }
    std::vector<uint8_t> control = encodeRequest({QEL_FAMILY_V4, 0, "a\nb.test"});
    for (const auto& bytes : {std::vector<uint8_t>{'Q', 'E', 'L', '2', 0, 0, 0, 1, 0, 0, 0, 0, 'a'}, control}) {
        const auto answer = askSocket(daemon.socket, bytes);
        EXPECT_EQ(answer ? answer->status : -1, QEL_STATUS_BAD_REQUEST);
    }
    // Two requests of this process under way (max_per_peer = 2): a third is told "busy" at once.
    std::vector<int> held;
    for (int i = 0; i < 2; ++i) {
        held.push_back(connectTo(socketAddress(daemon.socket)));
    }
    EXPECT_TRUE(eventually([&] { return daemon.ask("www.example.test", QEL_FAMILY_V4)->status == QEL_STATUS_BUSY; }));
    // They said nothing: past the read deadline each is told so and dropped.
    for (int fd : held) {
        EXPECT_EQ(readAnswer(fd), QEL_STATUS_BAD_REQUEST);
        ::close(fd);
    }
    EXPECT_TRUE(eventually([&] { return daemon.ask("www.example.test", QEL_FAMILY_V4)->status == QEL_STATUS_ANSWERED; }));
    // 1 000 clients at once: each is answered or told "busy", none is left without a reason.
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
    const std::vector<uint8_t> request = encodeRequest({QEL_FAMILY_V4, 2000, "www.example.test"});
    std::vector<int> clients;
    for (int i = 0; i < 1000; ++i) {
        clients.push_back(connectTo(socketAddress(daemon.socket)));
        (void)!::send(clients.back(), request.data(), request.size(), MSG_NOSIGNAL);
    }
    std::map<int, int> outcomes;
    for (int fd : clients) {
        ++outcomes[readAnswer(fd)];
        ::close(fd);
    }
    EXPECT_EQ(outcomes[QEL_STATUS_ANSWERED] + outcomes[QEL_STATUS_BUSY], 1000);
    EXPECT_GE(outcomes[QEL_STATUS_ANSWERED], 1);
    // What a program that reads no nsswitch.conf sees, through the DNS stub.
    ChildProcess dig("/usr/bin/dig", {"@127.0.0.1", "-p", stubPort, "+short", "+tries=1", "www.example.test", "AAAA"});
    EXPECT_EQ(dig.wait(), 0);
    EXPECT_EQ(dig.output(), "2001:db8::10\n");
    // What every program sees through the name-service module, and a user through qeldns.
    EXPECT_EQ(throughTheModule(daemon.socket, "www.example.test.", AF_UNSPEC), "192.0.2.10 2001:db8::10");
    EXPECT_EQ(throughTheModule(daemon.socket, "v4only.test", AF_INET6), gai_strerror(EAI_NONAME));
    ChildProcess qeldns(QELDNS_BINARY, {"--daemon", daemon.socket, "-a", "www.example.test"});
    EXPECT_EQ(qeldns.wait(), 0);
    EXPECT_TRUE(contains(qeldns.output(), "www.example.test 2001:db8::10 (ttl ")) << qeldns.output();
    // 8 processes asking at once, each name a lookup on the network: the daemon keeps a few
    // threads for them, not one for almost every request.
    // The requests are made before the fork: a child of this threaded process may find the
    // allocator locked by a thread it does not have, so it makes only system calls.
    std::vector<std::vector<uint8_t>> requests;
    for (int i = 0; i < 1200; ++i) requests.push_back(encodeRequest({QEL_FAMILY_V4, 2000, "n" + std::to_string(i) + ".test"}));
    const sockaddr_un address = socketAddress(daemon.socket);
    std::vector<pid_t> askers;
    for (int p = 0; p < 8; ++p) {
        if ((askers.emplace_back(::fork())) == 0) {
            for (size_t i = static_cast<size_t>(p); i < requests.size(); i += 8) {
                const int fd = connectTo(address);
                uint8_t answer[QEL_MAX_ANSWER];
                if (::send(fd, requests[i].data(), requests[i].size(), MSG_NOSIGNAL) > 0) {
                    while (::recv(fd, answer, sizeof answer, 0) > 0) {
                    }
                }
                ::close(fd);
            }
            ::_exit(0);
        }
    }
    for (pid_t asker : askers) ::waitpid(asker, nullptr, 0);
    const auto threads = std::distance(std::filesystem::directory_iterator("/proc/" + std::to_string(daemon.process->pid) + "/task"),
                                       std::filesystem::directory_iterator());
    EXPECT_LE(threads, 32);
    const std::string log = daemon.process->errors();
    EXPECT_TRUE(contains(log, "pid " + std::to_string(getpid()) + " uid " + std::to_string(getuid()))) << log;
    EXPECT_FALSE(contains(log, kSecret) || contains(log, "request headers")) << log;
}

TEST(Daemon, RefusesABadConfigurationByItsLineAndKeepsTheOneInUseOnAFailedReload) {
    Daemon daemon;
    const struct {
        std::string extra, error;
    } rows[] = {
        {"colour = blue\n", ":8: unknown key \"colour\""},
        {"per_network = maybe\n", ":8: per_network needs yes or no"},
        {"timeout = 1\n", ":8: timeout is given twice"},
    };
    for (const auto& row : rows) {
        daemon.writeConfig(row.extra);
        ChildProcess refused(QEL_DAEMON_BINARY, {"--config", daemon.config.path()});
        EXPECT_EQ(refused.wait(), 2) << row.extra;
        EXPECT_TRUE(contains(refused.errors(), daemon.config.path() + row.error)) << refused.errors();
        ::kill(daemon.process->pid, SIGHUP);
        EXPECT_TRUE(eventually([&] { return contains(daemon.process->errors(), row.error + "; the configuration in use is kept"); }));
    }
    ::chmod(daemon.secret.path().c_str(), 0640);
    daemon.writeConfig("");
    ChildProcess open(QEL_DAEMON_BINARY, {"--config", daemon.config.path()});
    EXPECT_EQ(open.wait(), 2);
    EXPECT_TRUE(contains(open.errors(), "readable or writable by others than its owner")) << open.errors();
    // Debugging shows the SDK's requests, never the signature that could be replayed.
    ::chmod(daemon.secret.path().c_str(), 0600);
    daemon.writeConfig("debug = yes\n");
    ::kill(daemon.process->pid, SIGHUP);
    EXPECT_TRUE(eventually([&] { return contains(daemon.process->errors(), "reloaded"); }));
    ASSERT_TRUE(daemon.ask("v4only.test", QEL_FAMILY_V4));
    const std::string log = daemon.process->errors();
    EXPECT_TRUE(contains(log, "\"Authorization\": \"(hidden)\"")) << log;
    EXPECT_FALSE(contains(log, "MD5 ")) << log;
    ::kill(daemon.process->pid, SIGTERM);
    EXPECT_EQ(daemon.process->wait(), 0);
    EXPECT_NE(::access(daemon.socket.c_str(), F_OK), 0) << "the socket is removed";

    // An empty store setting keeps the store in memory: nothing appears under the daemon's home.
    const qel::test::ScratchDirectory home;
    const std::string realHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    ::setenv("HOME", home.path().c_str(), 1);
    {
        Daemon memoryOnly("", false);
        EXPECT_EQ(memoryOnly.ask("www.example.test", QEL_FAMILY_V4)->status, QEL_STATUS_ANSWERED);
        ::kill(memoryOnly.process->pid, SIGTERM);
        EXPECT_EQ(memoryOnly.process->wait(), 0);
    }
    ::setenv("HOME", realHome.c_str(), 1);
    EXPECT_TRUE(std::filesystem::is_empty(home.path()));
}
