#include "QeldnsOptions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

const char QeldnsOptions::kUsage[] =
    "usage: qeldns [-4|-6] [options] domain...\n"
    "       qeldns [-4|-6] [options] -f FILE\n"
    "\n"
    "Resolves names through an HTTP resolution service with the QelHttpDnsSDK.\n"
    "\n"
    "  -4, -6             IPv4 (default) or IPv6 addresses\n"
    "  -a                 both: IPv4, then IPv6\n"
    "  --id ID            account AuthId (default: $QELDNS_AUTH_ID)\n"
    "  --secret SECRET    account AuthSecret (default: $QELDNS_AUTH_SECRET)\n"
    "  --server URL       service base URL (default: the SDK's built-in service)\n"
    "  --cacert FILE      certificate authorities (PEM) an https service must chain to\n"
    "                     (default: the system's)\n"
    "  --pin PIN          the https service's public key: sha256//BASE64 or a key file\n"
    "  --timeout SECONDS  timeout of each HTTP request (default 20, at most 86400)\n"
    "  --no-cache         neither read nor store cached answers\n"
    "  --expired          let the cache answer with expired records\n"
    "  --degrade H1,H2    refuse these hosts (the SDK's degraded hosts)\n"
    "  --store PATH       file of the persistent cache\n"
    "  --clear-cache      empty the cache before looking up\n"
    "  --repeat N         look each name up N times (shows cache hits)\n"
    "  --design-keys      the library's own behaviour instead of its resilience profile:\n"
    "                     cache keys by the previous lookup's type, unbounded retries\n"
    "  --daemon [SOCKET]  ask the resolver daemon qel-httpdnsd (what every program of the\n"
    "                     machine sees) instead of the service; the SDK options are unused\n"
    "                     (default socket /run/qel-httpdns/resolve.sock)\n"
    "  -f FILE            names from FILE, one per line ('#' starts a comment)\n"
    "  --json             one JSON object per answer\n"
    "  -v                 the SDK's console log on standard error; with --json, a\n"
    "                     \"trace\" of each lookup in its object\n"
    "  --version          the version, then exit\n"
    "  -h, --help         this text\n"
    "\n"
    "Each lookup ends within --timeout with the SDK's resilience profile (the default).\n"
    "Exit status: 0 every name answered, 1 some lookup failed, 2 bad usage, 3 the service\n"
    "had no address for some name (and nothing else failed).\n";

namespace {

// The longest request timeout: the waits built on it (four requests and a login) then stay
// far inside the steady clock's range, which a value like 1e10 overflows.
constexpr int kMaxTimeoutSeconds = 86400;

bool parseSeconds(const std::string& text, double& seconds) {
    char* end = nullptr;
    errno = 0;
    seconds = std::strtod(text.c_str(), &end);
    return errno == 0 && end != text.c_str() && *end == '\0' && seconds > 0 &&
           seconds <= kMaxTimeoutSeconds;
}

bool parseCount(const std::string& text, int& count) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || value < 1 || value > 1000000) {
        return false;
    }
    count = static_cast<int>(value);
    return true;
}

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> items;
    std::stringstream stream(text);
    for (std::string item; std::getline(stream, item, ',');) {
        if (!item.empty()) items.push_back(item);
    }
    return items;
}

bool isServiceUrl(const std::string& text) {
    for (const char* scheme : {"http://", "https://"}) {
        const size_t length = std::strlen(scheme);
        if (text.compare(0, length, scheme) == 0) {
            return text.size() > length && text[length] != '/' && text[length] != ':' &&
                   text.find_first_of(" \t\r\n") == std::string::npos;
        }
    }
    return false;
}

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
}

}  // namespace

std::optional<QeldnsOptions> QeldnsOptions::parse(int argc, char** argv, std::string& error) {
    QeldnsOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        // Options that take a value read it from the next argument.
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                error = "option " + arg + " needs a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string text;
        if (arg == "-4") {
            options.type = 1;
        } else if (arg == "-6") {
            options.type = 2;
        } else if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "-v") {
            options.verbose = true;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "-a") {
            options.bothFamilies = true;
        } else if (arg == "--resilient") {
            // The default now; kept so that scripts written for it go on working.
        } else if (arg == "--daemon") {
            // The socket is optional: a path follows only when the next word is one.
            const bool path = i + 1 < argc && argv[i + 1][0] == '/';
            options.daemonSocket = path ? argv[++i] : "/run/qel-httpdns/resolve.sock";
        } else if (arg == "--design-keys") {
            options.designKeys = true;
        } else if (arg == "--version") {
            options.version = true;
        } else if (arg == "--no-cache") {
            options.cache = false;
        } else if (arg == "--expired") {
            options.expired = true;
        } else if (arg == "--clear-cache") {
            options.clearCache = true;
        } else if (arg == "--id" || arg == "--secret" || arg == "--server" || arg == "--store" ||
                   arg == "--cacert" || arg == "--pin" || arg == "-f") {
            if (!value(text)) return std::nullopt;
            if (arg == "--id") options.authId = text;
            if (arg == "--secret") options.authSecret = text;
            if (arg == "--server") {
                // Refused before anything is sent: the SDK would only fail at the login.
                if (!isServiceUrl(text)) {
                    error =
                        "--server needs an http:// or https:// URL with a host, not '" + text + "'";
                    return std::nullopt;
                }
                options.server = text;
            }
            if (arg == "--store") options.storePath = text;
            if (arg == "--cacert") options.caFile = text;
            if (arg == "--pin") options.pin = text;
            if (arg == "-f") options.namesFile = text;
        } else if (arg == "--timeout") {
            if (!value(text)) return std::nullopt;
            if (!parseSeconds(text, options.timeout)) {
                error = "--timeout needs a number of seconds above 0 and at most " +
                        std::to_string(kMaxTimeoutSeconds) + ", not '" + text + "'";
                return std::nullopt;
            }
        } else if (arg == "--repeat") {
            if (!value(text)) return std::nullopt;
            if (!parseCount(text, options.repeat)) {
                error = "--repeat needs a count from 1 to 1000000, not '" + text + "'";
                return std::nullopt;
            }
        } else if (arg == "--degrade") {
            if (!value(text)) return std::nullopt;
            options.degradeHosts = splitList(text);
        } else if (arg == "--") {
            for (++i; i < argc; ++i) options.names.emplace_back(argv[i]);
        } else if (arg.size() > 1 && arg[0] == '-') {
            // Only the name: a mistyped "--secret=..." must not print the secret.
            error = "unknown option " + arg.substr(0, arg.find('='));
            return std::nullopt;
        } else {
            options.names.push_back(arg);
        }
    }
    if (options.help || options.version) return options;
    if (!options.authId) options.authId = environment("QELDNS_AUTH_ID");
    if (!options.authSecret) options.authSecret = environment("QELDNS_AUTH_SECRET");
    if (options.names.empty() && !options.namesFile && !options.clearCache) {
        error = "no domain given";
        return std::nullopt;
    }
    if ((!options.names.empty() || options.namesFile) && !options.daemonSocket) {
        if (!options.authId || options.authId->empty() || !options.authSecret ||
            options.authSecret->empty()) {
            error =
                "credentials missing: give --id and --secret, or set QELDNS_AUTH_ID and "
                "QELDNS_AUTH_SECRET";
            return std::nullopt;
        }
    }
    return options;
}
