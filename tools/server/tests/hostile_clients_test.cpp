// The real binary against clients that try to hold it: slow heads, many connections from one
// address, endless header lines. Attackers connect from 127.0.0.2, honest clients from
// 127.0.0.1; every attack is bounded in connections, bytes and time.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "ServerTestSupport.h"

using namespace qel::server::test;
using namespace std::chrono_literals;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // the sanitizers keep freed memory and inflate what is held
#else
constexpr bool kSanitized = false;
#endif

// The binary with `options`, started once an honest login from 127.0.0.1 is answered.
struct Server {
    explicit Server(std::vector<std::string> options) {
        options.insert(options.end(), {"--accounts", accounts.path(), "--access-log", "/dev/null", "--listen",
                                       "127.0.0.1:" + std::to_string(port)});
        process = std::make_unique<ChildProcess>(QEL_SERVER_BINARY, options);
        started = eventually([&] { return login() == 200; });
    }
    // The status of a signed login over a new connection, 0 without an answer.
    int login() const {
        httplib::Client client("127.0.0.1", port);
        return get(client, sdkLogin()).status;
    }
    size_t residentKiB() const {
        std::ifstream status("/proc/" + std::to_string(process->pid) + "/status");
        std::string line;
        while (std::getline(status, line) && line.rfind("VmRSS:", 0) != 0) {}
        return std::stoul(line.substr(6));
    }
    TempFile accounts{std::string(kAuthId) + " " + kSecret + "\n"};
    int port = freePort(SOCK_STREAM);
    std::unique_ptr<ChildProcess> process;
    bool started;
};

// Non-blocking connections from 127.0.0.2, closed with the object.
struct Attackers {
    Attackers(int port, size_t count) : fds(count) {
        sockaddr_in from{AF_INET, 0, {inet_addr("127.0.0.2")}, {}};
        sockaddr_in to{AF_INET, htons(static_cast<uint16_t>(port)), {inet_addr("127.0.0.1")}, {}};
        for (int& fd : fds) {
            fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from);
            connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to);
            pollfd writable{fd, POLLOUT, 0};
            poll(&writable, 1, 2000);
        }
    }
    ~Attackers() {
        for (int fd : fds) close(fd);
    }
    // True when the server has closed (or reset) `fd`; reads and drops what it sent.
    static bool closed(int fd) {
        char buffer[4096];
        ssize_t got;
        while ((got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {}
        return got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
    size_t open() const { return std::count_if(fds.begin(), fds.end(), [](int fd) { return !closed(fd); }); }
    void send(const std::string& bytes) const {
        for (int fd : fds) ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    std::vector<int> fds;
};

}  // namespace

TEST(HostileClients, AThousandSlowHeadsLeaveHonestLoginsAnsweredUntilTheirDeadlineCutsThem) {
    Server server({"--max-per-peer", "1000", "--max-connections", "1200", "--head-timeout", "5"});
    ASSERT_TRUE(server.started) << server.process->errors();
    const Attackers slow(server.port, 1010);
    slow.send("GET /acct-7/service?timestamp=");
    for (int round = 0; round < 10; ++round) {
        slow.send("1");
        EXPECT_EQ(server.login(), 200);
    }
    // While the honest logins went through, the peer held its share and no more.
    EXPECT_TRUE(eventually([&] { return slow.open() <= 1000; }, 1s));
    EXPECT_EQ(slow.open(), 1000u);
    // A byte every 100 ms keeps any idle timer alive; the deadline counts from the start.
    EXPECT_TRUE(eventually([&] {
        slow.send("1");
        std::this_thread::sleep_for(90ms);
        return slow.open() == 0;
    }));
    EXPECT_EQ(server.login(), 200);
}

TEST(HostileClients, AHeaderFloodIsCutShortAndItsMemoryReturned) {
    Server server({});
    ASSERT_TRUE(server.started) << server.process->errors();
    const size_t before = server.residentKiB();
    const std::string line = "X-Filler: " + std::string(100, 'x') + "\r\n";
    size_t peak = before, cut = 0;
    for (int round = 0; round < 8; ++round) {
        const Attackers flood(server.port, 4);
        flood.send("GET /acct-7/service?timestamp=1&app_id=a HTTP/1.1\r\nHost: x\r\n");
        // At most 4 MiB each: a server that reads on stops well before.
        for (int fd : flood.fds) {
            pollfd room{fd, POLLOUT, 0};
            for (size_t sent = 0; sent < (4u << 20) && !Attackers::closed(fd) && poll(&room, 1, 1000) > 0;) {
                const ssize_t wrote = send(fd, line.data(), line.size(), MSG_NOSIGNAL);
                if (wrote < 0 && errno != EAGAIN) break;
                sent += static_cast<size_t>(std::max<ssize_t>(wrote, 0));
            }
            cut += Attackers::closed(fd);
            peak = std::max(peak, server.residentKiB());
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
    const size_t after = server.residentKiB();
    std::printf("resident KiB: before %zu, peak %zu, after %zu\n", before, peak, after);
    EXPECT_TRUE(kSanitized || after < before + 4096) << "peak " << peak << ", after " << after;
}
