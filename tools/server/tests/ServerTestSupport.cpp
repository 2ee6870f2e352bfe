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

LocalService::LocalService(const std::string& zone)
    : service(Accounts::parse(std::string("# AuthId AuthSecret\n\n\t") + kAuthId + " " + kSecret + " \n", "accounts"),
              Zone::parse(zone, "zone"), access),
      listener(service, {{"127.0.0.1", 0}}, Listener::Limits{8}) {
    service.setNodes({url()});
    listener.start();
}

}  // namespace qel::server::test
