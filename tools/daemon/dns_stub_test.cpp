// The stub seen from outside: dig asks it over UDP and TCP, dnsmasq on loopback stands in for
// the upstream server, and a raw socket sends what no resolver would.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "DnsStub.h"

extern char** environ;

namespace qel::daemon {
namespace {

// A UDP socket on 127.0.0.1 and a port the kernel chose; `port` set to it.
int boundUdpSocket(uint16_t& port) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

uint16_t freeUdpPort() {
    uint16_t port = 0;
    close(boundUdpSocket(port));
    return port;
}

std::string run(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    char chunk[4096];
    for (size_t n; pipe && (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) output.append(chunk, n);
    if (pipe) pclose(pipe);
    return output;
}

std::string dig(uint16_t port, const std::string& question) {
    return run("dig @127.0.0.1 -p " + std::to_string(port) + " +tries=1 +time=3 " + question + " 2>&1");
}

int connectTcp(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in stub{};
    stub.sin_family = AF_INET;
    stub.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stub.sin_port = htons(port);
    connect(fd, reinterpret_cast<sockaddr*>(&stub), sizeof stub);
    return fd;
}

class DnsStubTest : public ::testing::Test {
protected:
    // dnsmasq on a port free in UDP; it also needs the port in TCP and exits when another
    // program holds it there, so a few ports are tried.
    std::string startDnsmasq() {
        for (int attempt = 0; attempt < 8; ++attempt) {
            const std::string port = std::to_string(freeUdpPort());
            std::vector<std::string> args{"dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--port=" + port,
                                          "--listen-address=127.0.0.1", "--bind-interfaces", "--no-resolv",
                                          "--no-hosts", "--pid-file=", "--txt-record=fwd.test,hello",
                                          "--mx-host=fwd.test,mail.fwd.test,10"};
            std::vector<char*> argv;
            for (auto& arg : args) argv.push_back(arg.data());
            argv.push_back(nullptr);
            if (posix_spawnp(&dnsmasq_, "dnsmasq", nullptr, nullptr, argv.data(), environ) != 0) break;
            for (int i = 0; i < 50 && waitpid(dnsmasq_, nullptr, WNOHANG) == 0; ++i) {
                if (dig(uint16_t(std::stoi(port)), "fwd.test TXT").find("hello") != std::string::npos) return port;
                usleep(100 * 1000);
            }
            kill(dnsmasq_, SIGTERM), waitpid(dnsmasq_, nullptr, 0);
            dnsmasq_ = 0;
        }
        return std::string();
    }

    void SetUp() override {
        const std::string port = startDnsmasq();
        ASSERT_FALSE(port.empty()) << "dnsmasq did not start";
        // A socket that never answers: the upstream of a stub that must give up.
        uint16_t silentPort = 0;
        silent_ = boundUdpSocket(silentPort);

        const auto resolve = [this](const std::string& name, int family, std::function<void(StubAnswer)> done) {
            std::lock_guard<std::mutex> lock(mutex_);
            if (name == "slow.test") return late_.push_back(std::move(done));
            StubAnswer answer{StubAnswer::NoName, {}};
            if (name == "fail.test") answer.kind = StubAnswer::Failure;
            if (name == "v4.test" && family == 4) answer = {StubAnswer::Addresses, {{"192.0.2.1", 300}, {"192.0.2.2", 299}}};
            if (name == "v6.test" && family == 6) answer = {StubAnswer::Addresses, {{"2001:db8::1", 77}, {"bogus", 1}}};
            for (int i = 1; name == "many.test" && family == 6 && i <= 40; ++i) {
                answer.kind = StubAnswer::Addresses;
                answer.addresses.push_back({"2001:db8::" + std::to_string(i), 60});
            }
            // Answered from another thread, as the daemon's resolver does.
            answering_.emplace_back([done = std::move(done), answer] { done(answer); });
        };
        DnsStub::Options options;
        options.listen = "127.0.0.1:0";
        options.upstream = "127.0.0.1:" + port;
        options.resolveTimeout = std::chrono::milliseconds(300);
        stubs_.push_back(std::make_unique<DnsStub>(options, resolve));
        options.forward = false;
        stubs_.push_back(std::make_unique<DnsStub>(options, resolve));
        options.forward = true;
        options.upstream = "127.0.0.1:" + std::to_string(silentPort);
        options.upstreamTimeout = std::chrono::milliseconds(300);
        stubs_.push_back(std::make_unique<DnsStub>(options, resolve));
        for (auto& stub : stubs_) stub->start();
    }

    void TearDown() override {
        stubs_.clear();
        for (auto& done : late_) done({StubAnswer::Addresses, {{"192.0.2.9", 1}}});  // after the stub left
        for (auto& thread : answering_) thread.join();
        if (dnsmasq_ > 0) kill(dnsmasq_, SIGTERM), waitpid(dnsmasq_, nullptr, 0);
        close(silent_);
    }

    std::vector<std::unique_ptr<DnsStub>> stubs_;  // forwarding, refusing, with a silent upstream
    pid_t dnsmasq_ = 0;
    int silent_ = -1;
    std::mutex mutex_;
    std::vector<std::thread> answering_;
    std::vector<std::function<void(StubAnswer)>> late_;
};

TEST_F(DnsStubTest, AnswersRelaysAndRefuses) {
    const struct {
        int stub;
        const char* question;
        std::vector<const char*> expected;  // patterns, each must be found in dig's output
    } rows[] = {
        {0,
         "v4.test A",
         {"status: NOERROR", "ANSWER: 2,", "v4\\.test\\.\\s+300\\s+IN\\s+A\\s+192\\.0\\.2\\.1",
          "v4\\.test\\.\\s+299\\s+IN\\s+A\\s+192\\.0\\.2\\.2"}},
        {0, "+tcp V6.Test AAAA", {"status: NOERROR", "ANSWER: 1,", "V6\\.Test\\.\\s+77\\s+IN\\s+AAAA\\s+2001:db8::1"}},
        {0, "v4.test AAAA", {"status: NOERROR", "ANSWER: 0,"}},
        {0, "unknown.test A", {"status: NOERROR", "ANSWER: 0,"}},
        {0, "fail.test A", {"status: SERVFAIL"}},
        {0, "slow.test A", {"status: SERVFAIL"}},
        {0, "fwd.test TXT", {"status: NOERROR", "\"hello\""}},
        {0, "+tcp fwd.test MX", {"status: NOERROR", "10 mail\\.fwd\\.test\\."}},
        {0, "v4.test A CH", {"status: REFUSED"}},  // relayed: dnsmasq refuses class CH
        {1, "fwd.test TXT", {"status: REFUSED"}},
        {1, "v4.test A", {"ANSWER: 2,"}},
        {2, "fwd.test TXT", {"status: SERVFAIL"}},
        {0, "+noedns +ignore many.test AAAA", {"flags: qr[a-z ]* tc", "ANSWER: 0,"}},
        {0, "+noedns +tcp many.test AAAA", {"ANSWER: 40,", "2001:db8::28"}},
        {0, "+bufsize=1232 many.test AAAA", {"ANSWER: 40,", "udp: 1232"}},
        {0, "+edns=1 +noednsneg v4.test A", {"status: BADVERS", "EDNS: version: 0", "ANSWER: 0,"}},
        {0, "+tcp +edns=1 +noednsneg fwd.test TXT", {"status: BADVERS"}},
    };
    for (const auto& row : rows) {
        const std::string output = dig(stubs_[row.stub]->port(), row.question);
        for (const char* pattern : row.expected) {
            EXPECT_TRUE(std::regex_search(output, std::regex(pattern))) << row.question << " / " << pattern << "\n" << output;
        }
    }
}

TEST_F(DnsStubTest, MalformedQueries) {
    const std::string header12("\x12\x34\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00", 12);
    const std::string twoQuestions = std::string("\x12\x34\x01\x00\x00\x02", 6) + std::string(6, '\0') +
                                     std::string(
                                         "\x01"
                                         "a\x00\x00\x01\x00\x01"
                                         "\x01"
                                         "b\x00\x00\x01\x00\x01",
                                         14);
    const struct {
        std::string bytes;
        int rcode;  // -1: no reply
    } rows[] = {
        {"garbage", -1},
        {std::string("\x12\x34\x81\x80", 4) + header12.substr(4), -1},  // a response
        {header12.substr(0, 11), -1},
        {twoQuestions, 1},
        {header12, 1},                                                 // says one question, has none
        {header12 + std::string(5000, 'x'), 1},                        // too large
        {std::string("\x12\x34\x28\x00", 4) + header12.substr(4), 4},  // an UPDATE
    };
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    timeval wait{0, 300 * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    sockaddr_in stub{};
    stub.sin_family = AF_INET;
    stub.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stub.sin_port = htons(stubs_[0]->port());
    for (const auto& row : rows) {
        sendto(fd, row.bytes.data(), row.bytes.size(), 0, reinterpret_cast<sockaddr*>(&stub), sizeof stub);
        unsigned char reply[512];
        const ssize_t n = recv(fd, reply, sizeof reply, 0);
        if (row.rcode < 0) {
            EXPECT_LT(n, 0) << row.bytes.size();
        } else {
            ASSERT_GE(n, 12) << row.bytes.size();
            EXPECT_EQ(reply[0] << 8 | reply[1], 0x1234);
            EXPECT_TRUE(reply[2] & 0x80);
            EXPECT_EQ(reply[3] & 0x0f, row.rcode) << row.bytes.size();
        }
    }
    close(fd);
    EXPECT_NE(dig(stubs_[0]->port(), "v4.test A").find("192.0.2.1"), std::string::npos);
}

TEST_F(DnsStubTest, OneClientAddressCannotHoldEveryTcpConnection) {
    const uint16_t port = stubs_[0]->port();
    std::vector<int> held;
    for (size_t i = 0; i <= DnsStub::Options{}.maxTcpPerPeer; ++i) held.push_back(connectTcp(port));
    timeval wait{3, 0};  // so that a connection left open fails the test instead of hanging it
    setsockopt(held.back(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    char byte;
    EXPECT_EQ(recv(held.back(), &byte, 1, 0), 0) << "the connection past the cap is closed";
    EXPECT_NE(dig(port, "-b 127.0.0.2 +tcp v4.test A").find("192.0.2.1"), std::string::npos);
    for (int fd : held) close(fd);
    // The stub sees them close in its own time; then this address is served again.
    std::string output;
    for (int i = 0; i < 20 && output.find("192.0.2.1") == std::string::npos; ++i) output = dig(port, "+tcp v4.test A");
    EXPECT_NE(output.find("192.0.2.1"), std::string::npos) << output;
}

}  // namespace
}  // namespace qel::daemon
