// Helpers of the service's tests: requests written the way the SDK writes them, the service
// running in-process on a loopback port, the real binary as a child process, and dnsmasq as a
// real DNS server on a high loopback port.
#pragma once

#include <httplib.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Listener.h"
#include "support/Eventually.h"
#include "Service.h"

namespace qel::server::test {

constexpr char kAuthId[] = "acct-7";
constexpr char kSecret[] = "s3cr3t-Pa55";
constexpr char kAppId[] = "com.example.app";

/// The whole URL percent-encoded as the SDK's transport does it: letters, digits and
/// "-._~!$&'()*+,;=:@/?" stay, every other byte becomes %XX.
std::string encodeLikeSdk(const std::string& text);

/// Milliseconds since 1970, the clock the SDK stamps its requests with.
int64_t nowMilliseconds();

/// A signed request as the SDK's login / resolve builders make it, signed by the SDK's own
/// signers (the application identifier is set to `appId` for the call).
struct SignedRequest {
    std::string target;         // path and query, encoded like the SDK
    std::string authorization;  // "MD5 <signature>"
};
SignedRequest sdkLogin(const std::string& authId, const std::string& secret, int64_t timestamp,
                       const std::optional<std::string>& appId = std::string(kAppId));
SignedRequest sdkResolve(const std::string& authId, const std::string& secret, const std::string& host,
                         int type, int64_t timestamp,
                         const std::optional<std::string>& appId = std::string(kAppId));

/// A temporary file that is removed with the object.
class TempFile {
public:
    explicit TempFile(const std::string& content = "");
    ~TempFile();
    const std::string& path() const { return path_; }
    void write(const std::string& content) const;
    std::string read() const;

private:
    std::string path_;
};

/// The service in this process on 127.0.0.1 and a free port, with the account kAuthId and
/// the zone text given; access lines and messages go to a file the test can read.
class LocalService {
public:
    explicit LocalService(const std::string& zone = "", size_t endpoints = 1);
    ~LocalService();

    Service& service() { return *service_; }
    Listener& listener() { return *listener_; }
    std::string url(size_t endpoint = 0) const { return listener_->endpoints()[endpoint].url(); }
    int port(size_t endpoint = 0) const { return listener_->endpoints()[endpoint].port; }
    /// Everything logged so far.
    std::string log() const;

    /// The answer to a GET over a kept-alive connection to `endpoint`.
    struct Answer {
        int status = 0;
        std::string body;
        std::string field(const char* key) const;  // a top-level JSON member as text
    };
    Answer get(const SignedRequest& request, size_t endpoint = 0);

private:
    TempFile logPath_;  // opened for appending, as the service's own log file is
    std::FILE* logFile_;
    std::unique_ptr<AccessLog> log_;
    std::unique_ptr<Service> service_;
    std::unique_ptr<Listener> listener_;
    std::vector<std::unique_ptr<httplib::Client>> clients_;
};

/// A port on 127.0.0.1 that nothing listens on at the moment of the call (TCP or UDP).
int freePort(int type);

/// A program started with its output in files, stopped (SIGKILL) with the object if still up.
class ChildProcess {
public:
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~ChildProcess();
    pid_t pid() const { return pid_; }
    void signal(int number) const;
    /// The exit status, or nothing if it has not ended within `limit`.
    std::optional<int> wait(std::chrono::seconds limit = std::chrono::seconds(20));
    std::string output() const { return out_.read(); }
    std::string errors() const { return err_.read(); }

private:
    TempFile out_, err_;
    pid_t pid_ = -1;
    bool reaped_ = false;
    int status_ = 0;
};

using qel::test::eventually;

/// The path of dnsmasq, or empty when it is not installed.
std::string dnsmasqPath();

/// dnsmasq on 127.0.0.1 and a free high port, answering only the records given (no upstream,
/// no hosts file), every answer with the TTL `ttl`.
class Dnsmasq {
public:
    Dnsmasq(const std::vector<std::string>& hostRecords, int ttl);
    ~Dnsmasq();
    int port() const { return port_; }
    bool running() const { return ready_; }
    std::string errors() const { return process_ ? process_->errors() : ""; }

private:
    int port_ = 0;
    bool ready_ = false;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace qel::server::test
