// The real binary as a child process: reload on SIGHUP over a connection that stays open, stop
// on SIGTERM, the exit status of a bad start, https to qeldns, and clients that try to hold it
// (slow heads, many connections from one address, endless header lines). Attackers connect
// from 127.0.0.2, honest clients from 127.0.0.1; every attack is bounded in connections, bytes
// and time.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "ServerTestSupport.h"

using namespace qel::server::test;
using namespace std::chrono_literals;

namespace {

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The binary with `options`, started once it says it listens.
struct Server {
    explicit Server(std::vector<std::string> options) {
        options.insert(options.end(), {"--accounts", accounts.path(), "--listen", "127.0.0.1:" + std::to_string(port)});
        process = std::make_unique<ChildProcess>(QEL_SERVER_BINARY, options);
        EXPECT_TRUE(eventually([&] { return contains(process->errors(), "listening on"); })) << process->errors();
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
    TempFile accounts{std::string("# test account\n") + kAuthId + " " + kSecret + "\n"};
    int port = freePort(SOCK_STREAM);
    std::unique_ptr<ChildProcess> process;
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
    size_t open() const {
        return std::count_if(fds.begin(), fds.end(), [](int fd) { return !closed(fd); });
    }
    void send(const std::string& bytes) const {
        for (int fd : fds) ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    std::vector<int> fds;
};

}  // namespace

TEST(Process, SighupReloadsTheZoneWithoutDroppingConnectionsAndKeepsItWhenTheNewOneIsBad) {
    TempFile zone("a.example.test 60 A 192.0.2.1\n");
    Server server({"--zone", zone.path()});
    httplib::Client client("127.0.0.1", server.port);
    client.set_keep_alive(true);
    const auto answers = [&](const char* address) {
        return contains(get(client, sdkResolve("a.example.test", 1)).body, address);
    };
    ASSERT_TRUE(answers("192.0.2.1"));
    // From here on every answer comes over the connection already open: none is made.
    int connections = 0;
    client.set_socket_options([&](auto) { ++connections; });
    zone.write("a.example.test 60 A 192.0.2.2\n");
    kill(server.process->pid, SIGHUP);
    ASSERT_TRUE(eventually([&] { return answers("192.0.2.2"); })) << server.process->errors();
    zone.write("a.example.test 60 A 192.0.2.3\na.example.test 60 MX mail.example.test\n");
    kill(server.process->pid, SIGHUP);
    ASSERT_TRUE(eventually([&] {
        return contains(server.process->errors(),
                        "zone not reloaded, the previous one stays: " + zone.path() + ":2: record type MX");
    }));
    EXPECT_TRUE(answers("192.0.2.2"));
    EXPECT_EQ(connections, 0);

    kill(server.process->pid, SIGTERM);
    EXPECT_EQ(server.process->wait(), 0);
}

// A file that does not load is named with its line, never quoted: an account line holds a
// secret. A faulty command line also points at --help.
TEST(Process, EachWayOfNotStartingHasItsStatusAndMessage) {
    const LocalService busy;
    const TempFile zone("; names\nok.test 5 A 192.0.2.1\nbad.test 5 A 2001:db8::1"),
        accounts("# the secret\nacct-7 s3cr3t tail\n"), good(std::string(kAuthId) + " " + kSecret);
    const std::string busyNode = "127.0.0.1:" + std::to_string(busy.port()), with = "--accounts " + good.path();
    const std::pair<std::string, std::string> cases[] = {
        // the arguments, and the message
        {with + " --zone " + zone.path(), zone.path() + ":3: '2001:db8::1' is not an IPv4 address"},
        {"--accounts " + accounts.path(), accounts.path() + ":2: expected two fields, AuthId and AuthSecret"},
        {"--verbose", "unknown option '--verbose' (see --help)"},
        {with + " --tls-key " + zone.path(), "--tls-cert and --tls-key go together: give both or neither (see --help)"},
        {with + " --tls-cert " + zone.path() + " --tls-key " + zone.path(),
         zone.path() + " and " + zone.path() +
             " are not a usable PEM certificate and key: The requested data were not available."},
        {with + " --listen 127.0.0.1:" + std::to_string(freePort(SOCK_STREAM)) + " --node " + busyNode,
         "cannot listen on " + busyNode + ": Address already in use"},
    };
    for (const auto& [arguments, error] : cases) {
        std::istringstream words(arguments);
        ChildProcess server(QEL_SERVER_BINARY, {std::istream_iterator<std::string>(words), {}});
        EXPECT_EQ(server.wait(), error.rfind("cannot listen", 0) == 0 ? 3 : 2) << arguments;
        EXPECT_EQ(server.errors(), "qel-httpdns-server: " + error + "\n");
    }
}

// Over https, qeldns (the SDK) logs in and resolves only with the CA that signed the service's
// certificate, for the name it was made for and, when pinned, its key; otherwise its log says
// why. The limits hold before any handshake: the per-peer cap, and --head-timeout against a
// handshake record trickled a byte every 100 ms.
TEST(Process, OverHttpsQeldnsResolvesOnlyWithTheRightCaNameAndKeyAndLogsWhyNot) {
    const qel::test::ScratchDirectory keys;
    const std::string ca = keys.file("ca.pem");
    ASSERT_EQ(std::system(("(cd " + keys.path() +
                           " && k='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -x509' && "
                           "openssl req $k -keyout ca.key -out ca.pem -subj /CN=ca && openssl req $k -keyout key.pem -out "
                           "cert.pem -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -CA ca.pem -CAkey ca.key && "
                           "openssl pkey -in key.pem -pubout -out pub.pem) >/dev/null 2>&1")
                              .c_str()),
              0)
        << "openssl (Debian package openssl; scripts/setup.sh)";
    const TempFile zone("www.example.test 60 A 192.0.2.10\n");
    Server server({"--zone", zone.path(), "--tls-cert", keys.file("cert.pem"), "--tls-key", keys.file("key.pem"),
                   "--max-per-peer", "2", "--head-timeout", "2"});
    const std::string port = std::to_string(server.port), at = " --server https://127.0.0.1:" + port;
    const std::pair<std::string, std::string> cases[] = {
        // the options, and why the login fails ("" for the answer)
        {"--cacert " + ca + " --server https://localhost:" + port,
         "SSL: no alternative certificate subject name matches target host name 'localhost'"},
        {at, "SSL certificate problem: unable to get local issuer certificate"},
        {"--cacert " + ca + " --pin sha256//" + std::string(43, 'A') + "=" + at,
         "SSL: public key does not match pinned public key"},
        {"--cacert " + ca + " --pin " + keys.file("pub.pem") + at, ""},
    };
    for (const auto& [options, reason] : cases) {
        std::istringstream words("-v --id acct-7 --secret " + std::string(kSecret) + " --store " + keys.file("store") + " " +
                                 options);
        std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
        arguments.push_back("www.example.test");
        ChildProcess qeldns(QELDNS_BINARY, arguments);
        EXPECT_EQ(qeldns.wait(), reason.empty() ? 0 : 1) << options;
        EXPECT_EQ(qeldns.output(), reason.empty() ? "www.example.test 192.0.2.10 (ttl 60)\n" : "");
        EXPECT_TRUE(reason.empty() || contains(qeldns.errors(), "request failed: " + reason + "\n")) << qeldns.errors();
    }
    const Attackers slow(server.port, 3);
    slow.send(std::string("\x16\x03\x01\x02\x00", 5));  // a record header: 512 bytes to follow
    EXPECT_TRUE(eventually([&] { return slow.open() == 2; }, 1s));
    EXPECT_TRUE(eventually([&] {
        slow.send("\x01");
        std::this_thread::sleep_for(90ms);
        return slow.open() == 0;
    }));
}

// A service on an IPv6 literal: qeldns logs in and resolves through a bracketed URL.
TEST(Process, QeldnsReachesAServiceOnAnIpv6Literal) {
    const qel::test::ScratchDirectory scratch;
    const TempFile zone("www.example.test 60 A 192.0.2.10\n");
    const std::string node = "[::1]:" + std::to_string(freePort(SOCK_STREAM));
    Server server({"--zone", zone.path(), "--node", node});
    ChildProcess qeldns(QELDNS_BINARY, {"--id", kAuthId, "--secret", kSecret, "--store", scratch.file("store"), "--server",
                                        "http://" + node, "www.example.test"});
    EXPECT_EQ(qeldns.wait(), 0) << qeldns.errors();
    EXPECT_EQ(qeldns.output(), "www.example.test 192.0.2.10 (ttl 60)\n");
}

TEST(Process, AThousandSlowHeadsLeaveHonestLoginsAnsweredUntilTheirDeadlineCutsThem) {
    Server server({"--access-log", "/dev/null", "--max-per-peer", "1000", "--max-connections", "1200", "--head-timeout", "5"});
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
}

TEST(Process, AHeaderFloodIsCutShortAndItsMemoryReturned) {
    Server server({"--access-log", "/dev/null"});
    [[maybe_unused]] const size_t before = server.residentKiB();  // unused under sanitizers
    const std::string line = "X-Filler: " + std::string(100, 'x') + "\r\n";
    size_t cut = 0;
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
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they keep freed memory and inflate what is held
    EXPECT_LT(server.residentKiB(), before + 4096) << "resident KiB before " << before;
#endif
}
