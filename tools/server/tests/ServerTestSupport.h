// Helpers of the service's tests: requests built, signed and encoded by the SDK's own code, the
// service in-process on loopback, and programs (the real binary, dnsmasq) as child processes.
#pragma once

#include <httplib.h>

#include "Listener.h"
#include "Service.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/ScratchDirectory.h"

namespace qel::server::test {

using qel::test::ChildProcess;
using qel::test::eventually;
using qel::test::freePort;
using qel::test::TempFile;
constexpr char kAuthId[] = "acct-7";
constexpr char kSecret[] = "s3cr3t-Pa55";
constexpr char kAppId[] = "com.example.app";

/// Path and query as the SDK sends them, with the header "MD5 <signature>" its signers make
/// (they read the application identifier, which is set to `appId` for the call).
struct SignedRequest {
    std::string target, authorization;
};
SignedRequest sdkLogin(int64_t timestamp = Service::systemMilliseconds(), const std::string& appId = kAppId,
                       const std::string& authId = kAuthId, const std::string& secret = kSecret);
SignedRequest sdkResolve(const std::string& host, int type, int64_t timestamp = Service::systemMilliseconds(),
                         const std::string& appId = kAppId, const std::string& authId = kAuthId,
                         const std::string& secret = kSecret);

struct Answer {
    int status = 0;  // 0: no answer
    std::string body;
};
Answer get(httplib::Client& client, const SignedRequest& request);

/// The service in this process on 127.0.0.1 and a free port, handed out as its node, with the
/// account kAuthId and the zone given; it logs to a file.
struct LocalService {
    explicit LocalService(const std::string& zone = "");
    std::string url() const { return listener.endpoints()[0].url(); }
    int port() const { return listener.endpoints()[0].port; }
    Answer get(const SignedRequest& request) const {
        httplib::Client client("127.0.0.1", port());
        return test::get(client, request);
    }

    TempFile log;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> logFile{std::fopen(log.path().c_str(), "a"), &std::fclose};
    AccessLog access{logFile.get(), logFile.get()};
    Service service;
    Listener listener;
};

}  // namespace qel::server::test
