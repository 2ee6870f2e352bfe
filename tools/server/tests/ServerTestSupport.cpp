#include "ServerTestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSAppAuth.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"

namespace qel::server::test {

SignedRequest sdkLogin(int64_t timestamp, const std::string& appId, const std::string& authId, const std::string& secret) {
    platform::MainBundle::setIdentifier(appId);
    return {QelDNSRequest::percentEncode("/" + authId + "/service?timestamp=" + std::to_string(timestamp) + "&app_id=" + appId),
            "MD5 " + QelDNSAppAuth::calcSignWithAuthSecret(secret, static_cast<double>(timestamp))};
}

SignedRequest sdkResolve(const std::string& host, int type, int64_t timestamp, const std::string& appId,
                         const std::string& authId, const std::string& secret) {
    platform::MainBundle::setIdentifier(appId);
    return {QelDNSRequest::percentEncode("/" + authId + "/resolve?timestamp=" + std::to_string(timestamp) + "&host=" + host +
                                         "&type=" + std::to_string(type) + "&app_id=" + appId),
            "MD5 " + QelDNSGetIPs::calcSignWithAuthSecret(secret, static_cast<double>(timestamp), host, type)};
}

Answer get(httplib::Client& client, const SignedRequest& request) {
    client.set_connection_timeout(std::chrono::seconds(5));
    client.set_read_timeout(std::chrono::seconds(5));
    httplib::Headers headers;
    if (!request.authorization.empty()) headers.emplace("Authorization", request.authorization);
    const auto result = client.Get(request.target.c_str(), headers);
    return result ? Answer{result->status, result->body} : Answer{0, httplib::to_string(result.error())};
}

void TempFile::write(const std::string& content) const { std::ofstream(path_, std::ios::binary) << content; }

std::string TempFile::read() const {
    std::ostringstream content;
    content << std::ifstream(path_, std::ios::binary).rdbuf();
    return content.str();
}

int freePort(int type) {
    const int fd = socket(AF_INET, type, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

LocalService::LocalService(const std::string& zone)
    : service(Accounts::parse(std::string("# AuthId AuthSecret\n\n\t") + kAuthId + " " + kSecret + " \n", "accounts"),
              Zone::parse(zone, "zone"), access),
      listener(service, {{"127.0.0.1", 0}}, Listener::Limits{8}) {
    service.setNodes({url()});
    listener.start();
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
        dup2(open(out.path().c_str(), O_WRONLY), 1);
        dup2(open(err.path().c_str(), O_WRONLY), 2);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (status) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    int raw = 0;
    if (!status && eventually([&] { return waitpid(pid, &raw, WNOHANG) == pid; }, limit)) {
        status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }
    return status;
}

}  // namespace qel::server::test
