// The real binary against clients that try to hold it: slow heads, many connections from one
// address, endless header lines. Attackers connect from 127.0.0.2, honest clients from
// 127.0.0.1; every attack is bounded in connections, bytes and time.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "ServerTestSupport.h"

using namespace qel::server::test;
using namespace std::chrono_literals;

namespace {

const std::string kAccounts = std::string(kAuthId) + " " + kSecret + "\n";
constexpr char kAttacker[] = "127.0.0.2";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // the sanitizers keep freed memory and inflate what is held
#else
constexpr bool kSanitized = false;
#endif

// A non-blocking TCP connection from `source` to 127.0.0.1:`port`, or -1.
int connectFrom(const char* source, int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in from{}, to{};
    from.sin_family = to.sin_family = AF_INET;
    inet_pton(AF_INET, source, &from.sin_addr);
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
        (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 && errno != EINPROGRESS)) {
        close(fd);
        return -1;
    }
    pollfd writable{fd, POLLOUT, 0};
    poll(&writable, 1, 2000);
    return fd;
}

// True when the server has closed (or reset) the connection; reads and drops what it sent.
bool closedByServer(int fd) {
    char buffer[4096];
    for (;;) {
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got == 0) return true;
        if (got < 0) return errno != EAGAIN && errno != EWOULDBLOCK;
    }
}

size_t residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stoul(line.substr(6));
    }
    return 0;
}

struct Server {
    explicit Server(std::vector<std::string> options) : port(freePort(SOCK_STREAM)) {
        options.insert(options.end(), {"--accounts", accounts.path(), "--access-log", "/dev/null",
                                       "--listen", "127.0.0.1:" + std::to_string(port)});
        process = std::make_unique<ChildProcess>(QEL_SERVER_BINARY, options);
        started = eventually([&] { return login(10s) == 200 || process->wait(0s).has_value(); }) &&
                  login(10s) == 200;
    }
    // The status of a signed login over a new connection from 127.0.0.1, 0 without an answer.
    int login(std::chrono::seconds limit = 2s) const {
        httplib::Client client("127.0.0.1", port);
        client.set_connection_timeout(limit);
        client.set_read_timeout(limit);
        const auto request = sdkLogin(kAuthId, kSecret, nowMilliseconds());
        const auto answer = client.Get(request.target.c_str(), {{"Authorization", request.authorization}});
        return answer ? answer->status : 0;
    }
    TempFile accounts{kAccounts};
    int port;
    std::unique_ptr<ChildProcess> process;
    bool started = false;
};

struct Connections {
    ~Connections() {
        for (int fd : fds) close(fd);
    }
    size_t open() const {
        size_t count = 0;
        for (int fd : fds) count += !closedByServer(fd);
        return count;
    }
    void dribble(const char* bytes) {
        for (int fd : fds) send(fd, bytes, std::strlen(bytes), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    std::vector<int> fds;
};

}  // namespace

TEST(HostileClients, AThousandSlowHeadsLeaveHonestLoginsAnswered) {
    Server server({"--max-per-peer", "1100", "--max-connections", "1200"});
    ASSERT_TRUE(server.started) << server.process->errors();
    Connections slow;
    for (int i = 0; i < 1000; ++i) {
        const int fd = connectFrom(kAttacker, server.port);
        ASSERT_GE(fd, 0) << i;
        slow.fds.push_back(fd);
    }
    slow.dribble("GET /acct-7/service?timestamp=");
    int answered = 0;
    for (int round = 0; round < 10; ++round) {
        slow.dribble("1");
        answered += server.login() == 200;
    }
    EXPECT_EQ(answered, 10);
    // They were all still connected while the honest logins went through.
    EXPECT_EQ(slow.open(), 1000u);
}

TEST(HostileClients, OnePeerHoldsOnlyItsShareAndASlowHeadIsCutAtItsDeadline) {
    Server server({"--max-per-peer", "8", "--head-timeout", "1"});
    ASSERT_TRUE(server.started) << server.process->errors();
    Connections slow;
    for (int i = 0; i < 20; ++i) slow.fds.push_back(connectFrom(kAttacker, server.port));
    slow.dribble("GET /");
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(slow.open(), 8u);
    // A byte every 100 ms keeps any idle timer alive; the deadline counts from the start.
    const bool allCut = eventually([&] {
        slow.dribble("a");
        std::this_thread::sleep_for(90ms);
        return slow.open() == 0;
    });
    EXPECT_TRUE(allCut);
    EXPECT_EQ(server.login(), 200);
}

TEST(HostileClients, AHeaderFloodIsCutShortAndItsMemoryReturned) {
    Server server({});
    ASSERT_TRUE(server.started) << server.process->errors();
    const size_t before = residentKiB(server.process->pid());
    const std::string line = "X-Filler: " + std::string(100, 'x') + "\r\n";
    size_t peak = before, cut = 0;
    for (int round = 0; round < 8; ++round) {
        Connections flood;
        for (int i = 0; i < 4; ++i) flood.fds.push_back(connectFrom(kAttacker, server.port));
        flood.dribble("GET /acct-7/service?timestamp=1&app_id=a HTTP/1.1\r\nHost: x\r\n");
        // At most 4 MiB each: a server that reads on stops well before.
        for (size_t fd = 0; fd < flood.fds.size(); ++fd) {
            size_t sent = 0;
            while (sent < (4u << 20) && !closedByServer(flood.fds[fd])) {
                pollfd room{flood.fds[fd], POLLOUT, 0};
                if (poll(&room, 1, 1000) <= 0) break;
                const ssize_t wrote = send(flood.fds[fd], line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                if (wrote <= 0 && errno != EAGAIN) break;
                sent += wrote > 0 ? static_cast<size_t>(wrote) : 0;
            }
            cut += closedByServer(flood.fds[fd]);
            peak = std::max(peak, residentKiB(server.process->pid()));
        }
    }
    EXPECT_EQ(cut, 32u) << "connections the server closed before 4 MiB of header lines";
    // A head that fits in size but not in its number of fields.
    httplib::Client client("127.0.0.1", server.port);
    httplib::Headers fields;
    for (int i = 0; i < 65; ++i) fields.emplace("X-" + std::to_string(i), "1");
    const auto many = client.Get("/acct-7/service", fields);
    EXPECT_EQ(many ? many->status : 0, 431);
    EXPECT_EQ(server.login(), 200);
    const size_t after = residentKiB(server.process->pid());
    std::printf("resident KiB: before %zu, peak %zu, after %zu\n", before, peak, after);
    if (!kSanitized) {
        EXPECT_LT(after, before + 4096) << "peak " << peak;
    }
}
