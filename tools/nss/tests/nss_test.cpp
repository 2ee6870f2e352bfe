// The name-service module through glibc's lookups, through its entry points, and from programs
// that know nothing of it, against scripted daemons on a Unix socket.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <nss.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "qel_resolve_protocol.h"
#include "support/ScratchDirectory.h"

extern "C" int __nss_configure_lookup(const char* database, const char* service);

namespace {

// The answer to a request; an empty one: hold the connection without a word.
using Reply = std::function<std::string(const std::string& request)>;

// Stands in for the daemon: answers each connection to `path` on a thread of its own, until
// it goes away.
class Responder {
public:
    Responder(const std::string& path, Reply reply) : path_(path), reply_(std::move(reply)) {
        sockaddr_un at{};
        at.sun_family = AF_UNIX;
        path.copy(at.sun_path, sizeof at.sun_path - 1);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, bind(listener_, reinterpret_cast<sockaddr*>(&at), sizeof at));
        EXPECT_EQ(0, listen(listener_, 16));
        thread_ = std::thread([this] { serve(); });
    }
    ~Responder() {
        stop_ = true;
        thread_.join();
        close(listener_);
        unlink(path_.c_str());
    }

private:
    void serve() {
        while (!stop_) {
            pollfd ready{listener_, POLLIN, 0};
            const int fd = poll(&ready, 1, 20) > 0 ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
            if (fd < 0) continue;
            char request[QEL_MAX_REQUEST];
            const ssize_t got = recv(fd, request, sizeof request, 0);
            const std::string answer = reply_(std::string(request, got > 0 ? got : 0));
            if (answer.empty())
                while (recv(fd, request, sizeof request, 0) > 0) {}
            send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            close(fd);
        }
    }
    std::string path_;
    Reply reply_;
    int listener_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

std::string answer(int status, const std::vector<std::string>& addresses, int asked = QEL_FAMILY_BOTH) {
    std::string wire = QEL_PROTOCOL_MAGIC + std::string(10, '\0');
    wire[4] = char(status);
    const uint32_t ttls[] = {300, 60, 120};
    for (size_t i = 0; i < addresses.size(); i++) {
        unsigned char bytes[16];
        const int family = inet_pton(AF_INET, addresses[i].c_str(), bytes) == 1 ? 4 : 6;
        if (family == 6) inet_pton(AF_INET6, addresses[i].c_str(), bytes);
        if (asked != QEL_FAMILY_BOTH && asked != family) continue;
        const uint32_t ttl = htonl(ttls[i % 3]);
        wire += char(family) + std::string(reinterpret_cast<const char*>(&ttl), 4);
        wire.append(reinterpret_cast<const char*>(bytes), family == 4 ? 4 : 16);
        wire[7] = char(wire[7] + 1);
    }
    return wire;
}

// The daemon as it should be: host.test has two IPv4 addresses and one IPv6 address.
std::string hostTest(const std::string& request) {
    if (request.size() < QEL_REQUEST_HEADER || request.substr(QEL_REQUEST_HEADER) != "host.test")
        return answer(QEL_STATUS_NOT_FOUND, {});
    return answer(QEL_STATUS_ANSWERED, {"192.0.2.1", "192.0.2.2", "2001:db8::1"}, request[4]);
}

class Nss : public testing::Test {
protected:
    void SetUp() override {
        // glibc opens the module by its name, and finds the one already loaded under it.
        module_ = dlopen(NSS_MODULE, RTLD_NOW);
        ASSERT_NE(nullptr, module_) << dlerror();
        ASSERT_EQ(0, __nss_configure_lookup("hosts", "qelhttpdns"));
        setenv("QEL_HTTPDNS_SOCKET", socket_.c_str(), 1);
        setenv("QEL_HTTPDNS_TIMEOUT_MS", "300", 1);
        setenv("LD_LIBRARY_PATH", std::string(NSS_MODULE).substr(0, std::string(NSS_MODULE).rfind('/')).c_str(), 1);
    }
    void TearDown() override { dlclose(module_); }

    qel::test::ScratchDirectory scratch_;
    const std::string socket_ = scratch_.file("resolve.sock");
    void* module_ = nullptr;
};

std::string addressText(int family, const void* bytes) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(family, bytes, text, sizeof text);
}

TEST_F(Nss, GlibcLookupsGetTheDaemonsAddressesAndFallThroughWhenItCannotAnswer) {
    std::string wrongFamily = answer(QEL_STATUS_ANSWERED, {"2001:db8::1"}),
                truncated = hostTest(std::string(12, '\0') + "host.test");
    truncated.resize(truncated.size() - 1);
    std::string oddFamily = wrongFamily, shortMessage = wrongFamily + "abc", otherVersion = truncated + '.';
    oddFamily[QEL_ANSWER_HEADER] = 5;
    otherVersion[3] = '2';
    shortMessage[13] = 4;
    const auto fixed = [](std::string wire) { return Reply([wire](const std::string&) { return wire; }); };
    enum Call { kGetaddrinfo, kGethostbyname2 };
    const struct {
        Reply daemon;  // none: no daemon at all
        const char* name;
        Call call;
        int family;
        int error;  // getaddrinfo's result, or h_errno
        std::string addresses;
    } rows[] = {
        {hostTest, "host.test", kGetaddrinfo, AF_UNSPEC, 0, "192.0.2.1 192.0.2.2 2001:db8::1"},
        {hostTest, "host.test.", kGetaddrinfo, AF_INET, 0, "192.0.2.1 192.0.2.2"},
        {hostTest, "host.test", kGetaddrinfo, AF_INET6, 0, "2001:db8::1"},
        {hostTest, "host.test", kGethostbyname2, AF_INET6, 0, "2001:db8::1"},
        {hostTest, "host.test", kGethostbyname2, AF_INET, 0, "192.0.2.1 192.0.2.2"},
        {hostTest, "other.test", kGetaddrinfo, AF_UNSPEC, EAI_NONAME, ""},
        {hostTest, "other.test", kGethostbyname2, AF_INET, HOST_NOT_FOUND, ""},
        {fixed(answer(QEL_STATUS_UNAVAILABLE, {})), "host.test", kGetaddrinfo, AF_UNSPEC, EAI_AGAIN, ""},
        {fixed(answer(QEL_STATUS_BUSY, {})), "host.test", kGethostbyname2, AF_INET, TRY_AGAIN, ""},
        {fixed(""), "host.test", kGetaddrinfo, AF_UNSPEC, EAI_AGAIN, ""},
        {fixed(wrongFamily), "host.test", kGethostbyname2, AF_INET, NO_RECOVERY, ""},
        {fixed(oddFamily), "host.test", kGetaddrinfo, AF_UNSPEC, EAI_NONAME, ""},
        {fixed(truncated), "host.test", kGetaddrinfo, AF_UNSPEC, EAI_NONAME, ""},
        {fixed(otherVersion), "host.test", kGetaddrinfo, AF_UNSPEC, EAI_NONAME, ""},
        {fixed(shortMessage), "host.test", kGetaddrinfo, AF_UNSPEC, EAI_NONAME, ""},
        {fixed(answer(QEL_STATUS_ANSWERED, {})), "host.test", kGethostbyname2, AF_INET, NO_RECOVERY, ""},
        {nullptr, "host.test", kGetaddrinfo, AF_UNSPEC, EAI_NONAME, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + " family " + std::to_string(row.family) + " call " + std::to_string(row.call));
        std::optional<Responder> daemon;
        if (row.daemon) daemon.emplace(socket_, row.daemon);
        std::set<std::string> found;
        int error;
        if (row.call == kGetaddrinfo) {
            addrinfo hints{}, *list = nullptr;
            hints.ai_family = row.family;
            hints.ai_socktype = SOCK_STREAM;
            error = getaddrinfo(row.name, nullptr, &hints, &list);
            for (const addrinfo* at = list; at; at = at->ai_next) {
                char text[INET6_ADDRSTRLEN];
                getnameinfo(at->ai_addr, at->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
                found.insert(text);
            }
            if (list) freeaddrinfo(list);
        } else {
            hostent host, *result = nullptr;
            char buffer[1024];
            gethostbyname2_r(row.name, row.family, &host, buffer, sizeof buffer, &result, &error);
            for (char** at = result ? host.h_addr_list : nullptr; at && *at; at++) found.insert(addressText(row.family, *at));
            if (result) {
                EXPECT_STREQ(row.name, host.h_name);
            }
        }
        std::string addresses;
        for (const std::string& address : found) addresses += (addresses.empty() ? "" : " ") + address;
        EXPECT_EQ(row.error, error);
        EXPECT_EQ(row.addresses, addresses);
    }
}

TEST_F(Nss, EntryPointsAskForMoreRoomUntilTheAnswerFitsAndWriteNothingBeyondIt) {
    Responder daemon(socket_, hostTest);
    auto* four = reinterpret_cast<nss_gethostbyname4_r*>(dlsym(module_, "_nss_qelhttpdns_gethostbyname4_r"));
    auto* three = reinterpret_cast<nss_gethostbyname3_r*>(dlsym(module_, "_nss_qelhttpdns_gethostbyname3_r"));
    ASSERT_TRUE(four && three);
    const struct {
        int family;  // AF_UNSPEC: gethostbyname4_r
        int32_t ttl;
        std::string addresses;
    } rows[] = {{AF_UNSPEC, 60, "192.0.2.1 192.0.2.2 2001:db8::1 "},
                {AF_INET, 60, "192.0.2.1 192.0.2.2 "},
                {AF_INET6, 120, "2001:db8::1 "}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.family);
        nss_status status = NSS_STATUS_TRYAGAIN;
        std::string addresses;
        for (size_t size = 0; status == NSS_STATUS_TRYAGAIN && size < 1024; size++) {
            std::vector<char> buffer(size + 64, 'Z');  // an odd start, and a margin to watch
            char* const start = buffer.data() + 1;
            int error = 0, herror = 0, ttl = -1;
            gaih_addrtuple first{}, *tuples = row.family == AF_UNSPEC ? &first : nullptr;  // glibc may hand in the first
            hostent host{};
            char* canonical = nullptr;
            status = row.family == AF_UNSPEC
                         ? four("host.test", &tuples, start, size, &error, &herror, &ttl)
                         : three("host.test", row.family, &host, start, size, &error, &herror, &ttl, &canonical);
            EXPECT_EQ(std::string(63, 'Z'), std::string(start + size, 63));
            if (status != NSS_STATUS_SUCCESS) {
                EXPECT_EQ(std::make_tuple(NSS_STATUS_TRYAGAIN, ERANGE, NETDB_INTERNAL), std::make_tuple(status, error, herror));
                continue;
            }
            EXPECT_EQ(row.ttl, ttl);  // the smallest
            EXPECT_EQ(row.family == AF_UNSPEC ? &first : nullptr, tuples);
            for (const gaih_addrtuple* at = tuples; at; at = at->next) {
                EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(at) % alignof(gaih_addrtuple));
                EXPECT_STREQ("host.test", at->name);
                addresses += addressText(at->family, at->addr) + " ";
            }
            for (char** at = host.h_addr_list; at && *at; at++) addresses += addressText(row.family, *at) + " ";
            EXPECT_TRUE(row.family == AF_UNSPEC ||
                        (canonical == host.h_name && !strcmp("host.test", canonical) && !host.h_aliases[0]));
        }
        EXPECT_EQ(row.addresses, addresses);
    }
    hostent host;
    char buffer[256];
    int error = 0, herror = 0;
    EXPECT_EQ(NSS_STATUS_UNAVAIL, three("host.test", AF_UNIX, &host, buffer, sizeof buffer, &error, &herror, nullptr, nullptr));
    EXPECT_EQ(EAFNOSUPPORT, error);
}

std::string output(const std::string& command) {
    std::string text;
    FILE* pipe = popen(command.c_str(), "r");
    for (char chunk[512]; size_t got = fread(chunk, 1, sizeof chunk, pipe);) text.append(chunk, got);
    pclose(pipe);
    return text;
}

TEST_F(Nss, ExportsOnlyItsEntryPointsAndNeedsOnlyLibc) {
    std::istringstream symbols(output("nm -D --defined-only " NSS_MODULE));
    int entryPoints = 0;
    for (std::string address, kind, name; symbols >> address >> kind >> name;) {
        EXPECT_EQ(0u, name.find("_nss_qelhttpdns_gethostbyname")) << name;
        entryPoints++;
    }
    EXPECT_EQ(4, entryPoints);
    EXPECT_EQ(" 0x0000000000000001 (NEEDED)             Shared library: [libc.so.6]\n",
              output("readelf -d " NSS_MODULE " | grep NEEDED"));
}

// Programs that know nothing of the module find the daemon's addresses once nsswitch.conf names
// it: here in a mount namespace of their own (so a child), where a scratch file stands in for it.
TEST_F(Nss, UnmodifiedProgramsResolveThroughIt) {
    Responder daemon(socket_, hostTest);
    std::ofstream(scratch_.file("nsswitch.conf")) << "hosts: qelhttpdns\n";
    const std::string text = output("unshare --mount sh -c 'mount --bind " + scratch_.file("nsswitch.conf") +
                                    " /etc/nsswitch.conf && echo getent && getent ahosts host.test; echo python; python3 -c "
                                    "\"import socket; print(socket.getaddrinfo(\\\"host.test\\\", None))\"' 2>&1");
    if (text.rfind("getent\n", 0) != 0) GTEST_SKIP() << "no private mount namespace here: " << text;
    const size_t python = text.find("python\n");
    ASSERT_NE(std::string::npos, python) << text;
    for (const std::string& part : {text.substr(0, python), text.substr(python)})
        for (const char* address : {"192.0.2.1", "192.0.2.2", "2001:db8::1"})
            EXPECT_NE(std::string::npos, part.find(address)) << address << " in " << part;
}

}  // namespace
