#include "support/ResolutionService.h"

#include "support/Md5.h"

namespace qel::test {

namespace {

using Lock = std::lock_guard<std::mutex>;

}  // namespace

ResolutionService::ResolutionService(std::string authId, std::string authSecret, std::string appId)
    : authId_(std::move(authId)), authSecret_(std::move(authSecret)), appId_(std::move(appId)) {
    setNodes(baseUrl(), {baseUrl()});
    server_.route("/" + authId_ + "/service",
                  [this](const httplib::Request& q, httplib::Response& r) { answerLogin(q, r); });
    server_.route("/" + authId_ + "/resolve",
                  [this](const httplib::Request& q, httplib::Response& r) { answerResolve(q, r); });
}

ResolutionService::~ResolutionService() {
    Lock lock(mutex_);
    stopping_ = true;
    stopped_.notify_all();
}

void ResolutionService::setAddresses(const std::string& host, std::vector<std::string> ips, int ttl) {
    Lock lock(mutex_);
    zone_[host] = {{"host", host}, {"ip_list", std::move(ips)}, {"ttl", ttl}};
}

void ResolutionService::setNodes(std::string best, std::vector<std::string> list) {
    Lock lock(mutex_);
    nodes_ = {{"best_service_node", std::move(best)}, {"service_node_list", std::move(list)}};
}

void ResolutionService::scriptLogins(std::vector<Behaviour> behaviours) {
    Lock lock(mutex_);
    loginScript_.assign(behaviours.begin(), behaviours.end());
}

void ResolutionService::scriptResolves(std::vector<Behaviour> behaviours) {
    Lock lock(mutex_);
    resolveScript_.assign(behaviours.begin(), behaviours.end());
}

std::string ResolutionService::bestNode() const {
    Lock lock(mutex_);
    return nodes_["best_service_node"].get<std::string>();
}

size_t ResolutionService::logins() const {
    Lock lock(mutex_);
    return logins_;
}

std::vector<std::string> ResolutionService::resolvedHosts() const {
    Lock lock(mutex_);
    return resolvedHosts_;
}

size_t ResolutionService::badSignatures() const {
    Lock lock(mutex_);
    return badSignatures_;
}

ResolutionService::Behaviour ResolutionService::next(std::deque<Behaviour>& script) {
    if (script.empty()) return {};
    Behaviour behaviour = script.front();
    script.pop_front();
    return behaviour;
}

bool ResolutionService::signatureMatches(const httplib::Request& request,
                                         const std::string& signedText) {
    const bool matches = request.get_param_value("app_id") == appId_ &&
                         request.get_header_value("Authorization") == "MD5 " + md5Hex(signedText);
    if (!matches) ++badSignatures_;
    return matches;
}

void ResolutionService::answerLogin(const httplib::Request& request, httplib::Response& response) {
    Behaviour behaviour;
    nlohmann::json answer;
    {
        Lock lock(mutex_);
        ++logins_;
        behaviour = next(loginScript_);
        answer = nodes_;
        answer["auth_id"] = authId_;
        const std::string signedText =
            appId_ + "-" + request.get_param_value("timestamp") + "-" + authSecret_;
        if (!signatureMatches(request, signedText)) behaviour = status(403, "signature mismatch");
    }
    behave(behaviour, answer, response);
}

void ResolutionService::answerResolve(const httplib::Request& request, httplib::Response& response) {
    const std::string host = request.get_param_value("host");
    Behaviour behaviour;
    nlohmann::json answer;
    {
        Lock lock(mutex_);
        resolvedHosts_.push_back(host);
        behaviour = next(resolveScript_);
        const std::string signedText = appId_ + "-" + host + "-" + request.get_param_value("timestamp") +
                                       "-" + request.get_param_value("type") + "-" + authSecret_;
        if (!signatureMatches(request, signedText)) behaviour = status(403, "signature mismatch");
        const auto found = zone_.find(host);
        answer = found != zone_.end() ? found->second : nlohmann::json{{"host", host}, {"ip_list", {}}};
    }
    behave(behaviour, answer, response);
}

void ResolutionService::behave(const Behaviour& behaviour, const nlohmann::json& answer,
                               httplib::Response& response) {
    switch (behaviour.kind) {
        case Behaviour::Answer:
            response.set_content(answer.dump(), "application/json");
            return;
        case Behaviour::Status:
            response.set_content(
                nlohmann::json{{"status", behaviour.status}, {"message", behaviour.message}}.dump(),
                "application/json");
            return;
        case Behaviour::Stall: {
            // Until the service ends: the client's timeout is what ends the exchange.
            std::unique_lock<std::mutex> lock(mutex_);
            stopped_.wait(lock, [this] { return stopping_; });
            return;
        }
        case Behaviour::Drop:
            // Promises a body, then closes the connection before any of it.
            response.set_content_provider(
                64, "application/json",
                [](size_t, size_t, httplib::DataSink&) { return false; });
            return;
    }
}

}  // namespace qel::test
