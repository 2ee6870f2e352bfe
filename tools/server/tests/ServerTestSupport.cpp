#include "ServerTestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <nlohmann/json.hpp>

#include "QelHttpDnsSDK/Network/Business/QelDNSAppAuth.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "Upstream.h"

namespace qel::server::test {

std::string encodeLikeSdk(const std::string& text) {
    static const std::string kKept = "-._~!$&'()*+,;=:@/?";
    static const char kHex[] = "0123456789ABCDEF";
    std::string encoded;
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) && byte < 0x80) {
            encoded += c;
        } else if (kKept.find(c) != std::string::npos) {
            encoded += c;
        } else {
            encoded += '%';
            encoded += kHex[byte >> 4];
            encoded += kHex[byte & 0x0f];
        }
    }
    return encoded;
}

int64_t nowMilliseconds() { return Service::systemMilliseconds(); }

namespace {

std::string appIdText(const std::optional<std::string>& appId) { return appId ? *appId : "(null)"; }

}  // namespace

SignedRequest sdkLogin(const std::string& authId, const std::string& secret, int64_t timestamp,
                       const std::optional<std::string>& appId) {
    platform::MainBundle::setIdentifier(appId);
    const std::string sign = QelDNSAppAuth::calcSignWithAuthSecret(secret, static_cast<double>(timestamp));
    return {encodeLikeSdk("/" + authId + "/service?timestamp=" + std::to_string(timestamp) +
                          "&app_id=" + appIdText(appId)),
            "MD5 " + sign};
}

SignedRequest sdkResolve(const std::string& authId, const std::string& secret, const std::string& host,
                         int type, int64_t timestamp, const std::optional<std::string>& appId) {
    platform::MainBundle::setIdentifier(appId);
    const std::string sign =
        QelDNSGetIPs::calcSignWithAuthSecret(secret, static_cast<double>(timestamp), host, type);
    return {encodeLikeSdk("/" + authId + "/resolve?timestamp=" + std::to_string(timestamp) +
                          "&host=" + host + "&type=" + std::to_string(type) +
                          "&app_id=" + appIdText(appId)),
            "MD5 " + sign};
}

TempFile::TempFile(const std::string& content) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/qel-server-test-XXXXXX";
    const int fd = mkstemp(pattern.data());
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    close(fd);
    path_ = pattern;
    write(content);
}

TempFile::~TempFile() { unlink(path_.c_str()); }

void TempFile::write(const std::string& content) const {
    // A new file renamed over the old one: a reader sees the old or the new content, whole.
    const std::string fresh = path_ + ".new";
    std::ofstream(fresh, std::ios::binary | std::ios::trunc) << content;
    rename(fresh.c_str(), path_.c_str());
}

std::string TempFile::read() const {
    std::ifstream file(path_, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

LocalService::LocalService(const std::string& zone, size_t endpoints)
    : logFile_(std::fopen(logPath_.path().c_str(), "a")) {
    log_ = std::make_unique<AccessLog>(logFile_, logFile_);
    Accounts accounts;
    accounts.add(kAuthId, kSecret);
    service_ = std::make_unique<Service>(std::move(accounts), Zone::parse(zone, "zone"), *log_);
    listener_ = std::make_unique<Listener>(*service_, std::vector<Endpoint>(endpoints, {"127.0.0.1", 0}),
                                           Listener::Limits{8});
    std::vector<std::string> nodes;
    for (const Endpoint& endpoint : listener_->endpoints()) nodes.push_back(endpoint.url());
    service_->setNodes(nodes);
    listener_->start();
}

LocalService::~LocalService() {
    clients_.clear();
    listener_.reset();
    std::fclose(logFile_);
}

std::string LocalService::log() const { return logPath_.read(); }

std::string LocalService::Answer::field(const char* key) const {
    const auto parsed = nlohmann::json::parse(body, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object() || !parsed.contains(key)) return "<absent>";
    const auto& value = parsed[key];
    return value.is_string() ? value.get<std::string>() : value.dump();
}

LocalService::Answer LocalService::get(const SignedRequest& request, size_t endpoint) {
    if (clients_.size() <= endpoint) clients_.resize(endpoint + 1);
    auto& client = clients_[endpoint];
    if (!client) {
        client = std::make_unique<httplib::Client>("127.0.0.1", port(endpoint));
        client->set_keep_alive(true);
    }
    httplib::Headers headers;
    if (!request.authorization.empty()) headers.emplace("Authorization", request.authorization);
    const auto result = client->Get(request.target.c_str(), headers);
    if (!result) return {0, "transport error: " + httplib::to_string(result.error())};
    return {result->status, result->body};
}

int freePort(int type) {
    const int fd = socket(AF_INET, type, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        const int out = open(out_.path().c_str(), O_WRONLY | O_TRUNC);
        const int err = open(err_.path().c_str(), O_WRONLY | O_TRUNC);
        dup2(out, 1);
        dup2(err, 2);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void ChildProcess::signal(int number) const { kill(pid_, number); }

std::optional<int> ChildProcess::wait(std::chrono::seconds limit) {
    if (reaped_) return status_;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            reaped_ = true;
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return status_;
        }
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string dnsmasqPath() {
    for (const char* path : {"/usr/sbin/dnsmasq", "/usr/bin/dnsmasq", "/sbin/dnsmasq"}) {
        if (access(path, X_OK) == 0) return path;
    }
    return {};
}

Dnsmasq::Dnsmasq(const std::vector<std::string>& hostRecords, int ttl) {
    const std::string program = dnsmasqPath();
    if (program.empty() || hostRecords.empty()) return;
    const std::string probe = hostRecords.front().substr(0, hostRecords.front().find(','));
    // The port may be taken between the choice and dnsmasq's bind: then try another.
    for (int attempt = 0; attempt < 5 && !ready_; ++attempt) {
        port_ = freePort(SOCK_DGRAM);
        std::vector<std::string> arguments{"--keep-in-foreground", "--conf-file=/dev/null",
                                           "--no-resolv",          "--no-hosts",
                                           "--bind-interfaces",    "--listen-address=127.0.0.1",
                                           "--log-facility=-",     "--port=" + std::to_string(port_),
                                           "--local-ttl=" + std::to_string(ttl)};
        for (const auto& record : hostRecords) arguments.push_back("--host-record=" + record);
        // Names it holds no record of are answered "no such name", not refused.
        arguments.push_back("--local=/test/");
        process_ = std::make_unique<ChildProcess>(program, arguments);
        Upstream upstream({"127.0.0.1", port_}, 300);
        ready_ = eventually([&] {
            return upstream.resolve(probe, AddressType::V4).kind != Upstream::Result::Failed ||
                   process_->wait(std::chrono::seconds(0)).has_value();
        }) && upstream.resolve(probe, AddressType::V4).kind != Upstream::Result::Failed;
    }
}

Dnsmasq::~Dnsmasq() {
    if (process_) {
        process_->signal(SIGTERM);
        process_->wait();
    }
}

}  // namespace qel::server::test
