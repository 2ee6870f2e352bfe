#include "support/ResolutionService.h"

#include "support/Md5.h"

namespace qel::test {

using Server = LoopbackHttpServer;

ResolutionService::ResolutionService(std::string authId, std::string authSecret, std::string appId)
    : authId_(std::move(authId)), authSecret_(std::move(authSecret)), appId_(std::move(appId)) {
    setNodes(baseUrl(), {baseUrl()});
    server_.route("/" + authId_ + "/service", [this](const Server::Request& request) {
        Lock lock(mutex_);
        ++logins_;
        return answer(request, loginScript_, "", nodes_);
    });
    server_.route("/" + authId_ + "/resolve", [this](const Server::Request& request) {
        const std::string host = request.param("host");
        Lock lock(mutex_);
        resolvedHosts_.push_back(host);
        const auto found = zone_.find(host);
        return answer(request, resolveScript_, host,
                      found != zone_.end() ? found->second : nlohmann::json{{"host", host}, {"ip_list", {}}});
    });
}

// Under mutex_. A login signs "<app>-<time>-<secret>", a resolve "<app>-<host>-<time>-<type>-<secret>".
Server::Reply ResolutionService::answer(const Server::Request& request, std::deque<Behaviour>& script, const std::string& host,
                                        const nlohmann::json& body) {
    Behaviour behaviour;
    if (!script.empty()) {
        behaviour = script.front();
        script.pop_front();
    }
    const bool resolve = &script == &resolveScript_;
    const std::string signedText = appId_ + "-" + (resolve ? host + "-" : "") + request.param("timestamp") +
                                   (resolve ? "-" + request.param("type") : "") + "-" + authSecret_;
    if (request.param("app_id") != appId_ || request.raw.find(authSecret_) != std::string::npos ||
        request.header("Authorization") != "MD5 " + md5Hex(signedText)) {
        ++badSignatures_;
        behaviour = status(403, "signature mismatch");
    }
    if (behaviour.kind == Behaviour::Stall) {  // until the client's timeout or the end of the service
        return {Server::Reply::Stall, {}};
    }
    if (behaviour.kind == Behaviour::Drop) {  // promises a body, then closes before any of it
        return {Server::Reply::Write, "HTTP/1.1 200 \r\nContent-Length: 64\r\n\r\n"};
    }
    const nlohmann::json refusal{{"status", behaviour.status}, {"message", behaviour.message}};
    return Server::http(200, (behaviour.kind == Behaviour::Status ? refusal : body).dump());
}

}  // namespace qel::test
