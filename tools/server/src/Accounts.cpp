#include "Accounts.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace qel::server {

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error(path + ": cannot read: " + std::strerror(errno));
    std::ostringstream content;
    content << file.rdbuf();
    if (file.bad()) throw std::runtime_error(path + ": cannot read: " + std::strerror(errno));
    return content.str();
}

Accounts Accounts::load(const std::string& path) { return parse(readFile(path), path); }

Accounts Accounts::parse(const std::string& text, const std::string& source) {
    Accounts accounts;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        std::istringstream fields(line);
        std::string authId, secret, extra;
        if (!(fields >> authId) || authId[0] == '#') continue;
        const std::string where = source + ":" + std::to_string(number) + ": ";
        if (!(fields >> secret) || (fields >> extra)) {
            throw std::runtime_error(where + "expected two fields, AuthId and AuthSecret");
        }
        if (accounts.secrets_.count(authId)) {
            throw std::runtime_error(where + "account " + authId + " is listed twice");
        }
        accounts.secrets_.emplace(std::move(authId), std::move(secret));
    }
    return accounts;
}

std::optional<std::string> Accounts::secretOf(const std::string& authId) const {
    const auto found = secrets_.find(authId);
    if (found == secrets_.end()) return std::nullopt;
    return found->second;
}

}  // namespace qel::server
