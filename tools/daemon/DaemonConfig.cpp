#include "DaemonConfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

namespace qel::daemon {

namespace {

std::string trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    std::string word;
    for (const char c : text + " ") {
        if (c == ' ' || c == ',' || c == '\t') {
            if (!word.empty()) out.push_back(std::move(word));
            word.clear();
        } else {
            word += c;
        }
    }
    return out;
}

// Seconds within [low, high]; nothing for anything else.
std::optional<double> seconds(const std::string& text, double low, double high) {
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(value) || value < low ||
        value > high) {
        return std::nullopt;
    }
    return value;
}

std::optional<bool> yesNo(const std::string& text) {
    if (text == "yes" || text == "true" || text == "1") return true;
    if (text == "no" || text == "false" || text == "0") return false;
    return std::nullopt;
}

// The secret in `path`, readable by this user only: like ssh with its keys, a secret others
// could read is refused rather than used.
std::optional<std::string> readSecret(const std::string& path, std::string& why) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        why = "cannot open " + path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    struct stat status {};
    std::string secret;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        why = path + " is not a regular file";
    } else if (status.st_uid != ::geteuid()) {
        why = path + " is not owned by the daemon's user (uid " + std::to_string(::geteuid()) + ")";
    } else if (status.st_mode & 077) {
        why = path + " is readable or writable by others than its owner (chmod 600 it)";
    } else {
        char buffer[4096];
        ssize_t got;
        while ((got = ::read(fd, buffer, sizeof buffer)) > 0 && secret.size() < 65536) {
            secret.append(buffer, static_cast<size_t>(got));
        }
        while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) secret.pop_back();
        if (secret.empty()) why = path + " is empty";
    }
    ::close(fd);
    if (!why.empty()) return std::nullopt;
    return secret;
}

}  // namespace

std::optional<DaemonConfig> DaemonConfig::load(const std::string& path, std::string& error) {
    std::ifstream file(path);
    if (!file) {
        error = path + ": cannot be read: " + std::strerror(errno);
        return std::nullopt;
    }
    std::stringstream text;
    text << file.rdbuf();
    return parse(text.str(), path, error);
}

std::optional<DaemonConfig> DaemonConfig::parse(const std::string& text, const std::string& path,
                                                std::string& error) {
    DaemonConfig config;
    std::string secretFile;
    // Each key: how its value is taken; false with `why` set when it cannot be.
    using Setter = std::function<bool(const std::string& value, std::string& why)>;
    const auto text_ = [](std::string& field) {
        return Setter([&field](const std::string& value, std::string& why) {
            if (value.empty()) why = "needs a value";
            field = value;
            return !value.empty();
        });
    };
    const auto number = [](double& field, double low, double high) {
        return Setter([&field, low, high](const std::string& value, std::string& why) {
            const auto parsed = seconds(value, low, high);
            if (!parsed) {
                std::ostringstream range;
                range << "needs a number from " << low << " to " << high;
                why = range.str();
                return false;
            }
            field = *parsed;
            return true;
        });
    };
    const auto flag = [](bool& field) {
        return Setter([&field](const std::string& value, std::string& why) {
            const auto parsed = yesNo(value);
            if (!parsed) why = "needs yes or no";
            if (parsed) field = *parsed;
            return parsed.has_value();
        });
    };
    double maxNames = static_cast<double>(config.maxNames);
    double maxPerPeer = static_cast<double>(config.maxPerPeer);
    const std::map<std::string, Setter> keys = {
        {"service_url",
         [&](const std::string& value, std::string& why) {
             const bool ok = (value.rfind("http://", 0) == 0 && value.size() > 7) ||
                             (value.rfind("https://", 0) == 0 && value.size() > 8);
             if (!ok) why = "needs an http:// or https:// URL";
             config.serviceUrl = value;
             return ok;
         }},
        {"auth_id", text_(config.authId)},
        {"auth_secret_file", text_(secretFile)},
        {"app_id", text_(config.appId)},
        {"socket", text_(config.socket)},
        {"store", [&](const std::string& value, std::string&) { return config.store = value, true; }},
        {"timeout", number(config.timeout, 0.001, 3600)},
        {"degrade_hosts",
         [&](const std::string& value, std::string&) { return config.degradeHosts = words(value), true; }},
        {"pre_resolve",
         [&](const std::string& value, std::string&) { return config.preResolve = words(value), true; }},
        {"max_names", number(maxNames, 0, 1e8)},
        {"max_age", number(config.maxAge, 0, 1e9)},
        {"max_stale", number(config.maxStale, 0, 1e9)},
        {"per_network", flag(config.perNetwork)},
        {"dns_listen",
         [&](const std::string& value, std::string&) { return config.dnsListen = value, true; }},
        {"dns_upstream", text_(config.dnsUpstream)},
        {"max_per_peer", number(maxPerPeer, 1, 4096)},
        {"debug", flag(config.debug)},
    };
    std::set<std::string> seen;
    std::istringstream lines(text);
    std::string line;
    for (int lineNumber = 1; std::getline(lines, line); ++lineNumber) {
        const std::string where = path + ":" + std::to_string(lineNumber) + ": ";
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos) {
            error = where + "expected \"key = value\"";
            return std::nullopt;
        }
        const std::string key = trim(line.substr(0, equals));
        const std::string value = trim(line.substr(equals + 1));
        const auto setter = keys.find(key);
        if (setter == keys.end()) {
            error = where + "unknown key \"" + key + "\"";
            return std::nullopt;
        }
        if (!seen.insert(key).second) {
            error = where + key + " is given twice";
            return std::nullopt;
        }
        std::string why;
        if (!setter->second(value, why)) {
            error = where + key + " " + why;
            return std::nullopt;
        }
    }
    for (const char* required : {"service_url", "auth_id", "auth_secret_file"}) {
        if (!seen.count(required)) {
            error = path + ": " + required + " is required";
            return std::nullopt;
        }
    }
    config.maxNames = static_cast<size_t>(maxNames);
    config.maxPerPeer = static_cast<size_t>(maxPerPeer);
    // A relative path names a credential systemd passed in (LoadCredential=), which it makes
    // readable by the service's user alone.
    if (secretFile[0] != '/') {
        const char* credentials = std::getenv("CREDENTIALS_DIRECTORY");
        if (!credentials || credentials[0] != '/') {
            error = path + ": auth_secret_file \"" + secretFile +
                    "\" is relative, and no credentials directory was passed (LoadCredential=)";
            return std::nullopt;
        }
        secretFile = std::string(credentials) + "/" + secretFile;
    }
    std::string why;
    const auto secret = readSecret(secretFile, why);
    if (!secret) {
        error = path + ": auth_secret_file: " + why;
        return std::nullopt;
    }
    config.authSecret = *secret;
    return config;
}

}  // namespace qel::daemon
