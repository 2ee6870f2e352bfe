// qeldns: resolves names from a shell through the SDK, like `dig +short` or `getent hosts`
// for an HTTP resolution service. Uses the library's public API only.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include <nlohmann/json.hpp>

#include "QeldnsOptions.h"
#include "ResolveMessage.h"
#include "QelHttpDnsSDK/QelHttpDnsSDK.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ips = std::optional<std::vector<std::string>>;

// What one lookup got.
struct Result {
    bool answered = false;
    bool onCallingThread = false;  // a cache hit or a refusal, answered before the call returned
    std::optional<QelDNSError> error;
    Ips ips;
    int64_t microseconds = 0;
    std::optional<QelDNSLookupTrace> trace;  // with -v: what the SDK did for this answer
};

// The trace observer runs on the thread that answers a lookup just before its callback, so
// the callback finds its own lookup's trace here.
thread_local std::optional<QelDNSLookupTrace> latestTrace;

// Why the last request failed, as the SDK logs it: the transport's reason ("Couldn't connect to
// server", "Operation timed out ...") or the service's refusal text. The SDK's codes for a
// failed login (3) and a failed request (-30000) say neither.
struct LastCause {
    std::mutex mutex;
    std::string text;
};
LastCause& lastCause() {
    static auto* const cause = new LastCause();  // written by the SDK's thread until exit
    return *cause;
}

void noteCause(const std::string& line) {
    std::string cause;
    if (line.rfind("request failed: ", 0) == 0) {
        cause = line.substr(16);
    } else if (line.rfind("response url ", 0) == 0) {
        const auto answer = nlohmann::json::parse(line.substr(13), nullptr, false);
        if (answer.is_object() && answer.contains("status") && answer.contains("message") &&
            answer["message"].is_string()) {
            cause = "the service said \"" + answer["message"].get<std::string>() + "\"";
        }
    }
    if (cause.empty()) return;
    std::lock_guard<std::mutex> lock(lastCause().mutex);
    lastCause().text = std::move(cause);
}

std::string takeCause() {
    std::lock_guard<std::mutex> lock(lastCause().mutex);
    return std::exchange(lastCause().text, std::string());
}

// The English gloss of an SDK error from its table of codes: the row of its code and message,
// else the first row of its code; nothing for a code of the service's own.
std::optional<std::string> glossOf(const QelDNSError& error) {
    const std::string message = error.localizedDescription();
    const int64_t code = error.code();
    const char* byCode = nullptr;
#define QELDNS_GLOSS_(name, cName, rowCode, rowMessage, gloss)  \
    if (code == (rowCode)) {                                    \
        if (message == (rowMessage)) return std::string(gloss); \
        if (!byCode) byCode = (gloss);                          \
    }
    QEL_DNS_ERROR_TABLE(QELDNS_GLOSS_)
#undef QELDNS_GLOSS_
    if (byCode) return std::string(byCode);
    return std::nullopt;
}

// The service answered and had no address: a name that does not exist there.
bool isNoAddress(const QelDNSError& error) {
    return error.code() == QEL_HTTPDNS_E_RESOLVE_EMPTY_DATA;
}

nlohmann::json traceJson(const QelDNSLookupTrace& trace) {
    nlohmann::json object = {{"source", QelDNSLookupTrace::sourceName(trace.source)},
                             {"cache_key", trace.cacheKey},
                             {"attempts", trace.attempts},
                             {"nodes", trace.nodes},
                             {"login_retried", trace.loginRetried},
                             {"microseconds", trace.micros}};
    object["error_code"] = trace.error ? nlohmann::json(trace.error->code()) : nlohmann::json();
    return object;
}

// Runs one lookup and waits for its callback, at most `limit`.
Result lookUp(QelHttpDnsManager& dns, const std::string& name, int64_t type,
              Clock::duration limit) {
    struct Shared {
        std::mutex mutex;
        std::condition_variable done;
        Result result;
    };
    auto shared = std::make_shared<Shared>();
    const auto caller = std::this_thread::get_id();
    const auto start = Clock::now();
    dns.getIPByDomain(
        name, type, [shared, caller, start](std::optional<QelDNSError> error, Ips ips) {
            std::lock_guard<std::mutex> lock(shared->mutex);
            Result& result = shared->result;
            result.microseconds =
                std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
            result.onCallingThread = std::this_thread::get_id() == caller;
            result.error = std::move(error);
            result.ips = std::move(ips);
            result.trace = std::exchange(latestTrace, std::nullopt);
            result.answered = true;
            shared->done.notify_all();
        });
    std::unique_lock<std::mutex> lock(shared->mutex);
    shared->done.wait_for(lock, limit, [&] { return shared->result.answered; });
    return shared->result;
}

// Asks the resolver daemon on `socketPath` instead of hosting the SDK: what every program of the
// machine sees through the name-service module. `unreachable` tells why when it did not answer.
Result askDaemon(const std::string& socketPath, const std::string& name, int64_t type,
                 Clock::duration limit, std::string& unreachable) {
    Result result;
    const auto start = Clock::now();
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(limit).count();
    qel::daemon::ResolveRequest request;
    request.family = type == 1 ? QEL_FAMILY_V4 : QEL_FAMILY_V6;
    request.deadlineMillis = static_cast<uint32_t>(std::min<long long>(millis, UINT32_MAX));
    request.name = name;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socketPath.size() >= sizeof address.sun_path) {
        unreachable = "the socket path is too long";
    } else {
        std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
        if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            unreachable = std::strerror(errno);
        }
    }
    const std::vector<uint8_t> bytes = qel::daemon::encodeRequest(request);
    std::vector<uint8_t> answerBytes;
    if (unreachable.empty() &&
        ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
        uint8_t buffer[QEL_MAX_ANSWER];
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(start + limit - Clock::now());
            pollfd ready{fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) break;
            const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
            if (got <= 0 || answerBytes.size() + static_cast<size_t>(got) > QEL_MAX_ANSWER) break;
            answerBytes.insert(answerBytes.end(), buffer, buffer + got);
        }
    }
    if (fd >= 0) ::close(fd);
    if (!unreachable.empty()) return result;
    const auto answer = qel::daemon::decodeAnswer(answerBytes);
    if (!answer) {
        unreachable = answerBytes.empty() ? "no answer" : "a malformed answer";
        return result;
    }
    result.answered = true;
    result.microseconds =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    if (answer->status != QEL_STATUS_ANSWERED) {
        result.error = QelDNSUntil::errorCode(answer->code, answer->message);
        return result;
    }
    QelDNSLookupTrace trace;
    result.ips.emplace();
    for (const auto& given : answer->addresses) {
        char text[INET6_ADDRSTRLEN];
        const int af = given.family == QEL_FAMILY_V4 ? AF_INET : AF_INET6;
        if (!inet_ntop(af, given.bytes.data(), text, sizeof text)) continue;
        result.ips->push_back(text);
        const auto ttl = static_cast<int64_t>(given.ttl);
        trace.ttl = trace.ttl < 0 ? ttl : std::min(trace.ttl, ttl);
    }
    result.trace = trace;
    return result;
}

bool readNames(const std::string& path, std::vector<std::string>& names) {
    std::ifstream file(path);
    if (!file) return false;
    for (std::string line; std::getline(file, line);) {
        line = line.substr(0, line.find('#'));
        const auto first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos) continue;
        const auto last = line.find_last_not_of(" \t\r");
        names.push_back(line.substr(first, last - first + 1));
    }
    return true;
}

// What qeldns prints of a text from outside (a service's error message can be megabytes).
constexpr size_t kMaxPrintedBytes = 300;

// At most kMaxPrintedBytes of `text`, cut on a UTF-8 character boundary and marked.
std::string capped(const std::string& text) {
    if (text.size() <= kMaxPrintedBytes) return text;
    size_t end = kMaxPrintedBytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return text.substr(0, end) + "... (" + std::to_string(text.size() - end) + " more bytes)";
}

// `text`, capped, with its control characters (C0, DEL, and C1 as UTF-8 encodes them) and
// backslashes written as C escapes: a name, an address or a message from outside can then
// neither start a line of its own nor drive the terminal.
std::string shown(const std::string& text) {
    const std::string cut = capped(text);
    std::string out;
    for (size_t i = 0; i < cut.size(); ++i) {
        const auto c = static_cast<unsigned char>(cut[i]);
        const auto next = i + 1 < cut.size() ? static_cast<unsigned char>(cut[i + 1]) : 0;
        char escape[8];
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c < 0x20 || c == 0x7f) {
            std::snprintf(escape, sizeof escape, "\\x%02x", c);
            out += escape;
        } else if (c == 0xc2 && next >= 0x80 && next <= 0x9f) {
            std::snprintf(escape, sizeof escape, "\\u%04x", next);
            out += escape;
            ++i;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

enum class Outcome { Answered, NoAddress, Failed };

// Prints one answer. The SDK hands back the service's list as it is: what is not an address of
// the family asked for is dropped and reported.
Outcome report(const QeldnsOptions& options, const std::string& name, int64_t type, Result result,
               double waitedSeconds) {
    const std::string family = type == 1 ? "IPv4" : "IPv6";
    const bool addressed = result.answered && !result.error;
    if (addressed) {
        for (const std::string& ip : QelDNSAddressCheck::keepAddresses(*result.ips, type)) {
            std::fprintf(stderr, "qeldns: %s: dropped \"%s\": not an %s address\n",
                         shown(name).c_str(), shown(ip).c_str(), family.c_str());
        }
    }
    const bool empty = addressed && result.ips->empty();
    const bool noAddress = result.error && isNoAddress(*result.error);
    const std::string noFamilyAddress = "no " + family + " address in the answer";
    const std::optional<std::string> gloss = result.error ? glossOf(*result.error) : std::nullopt;
    // Why a login or a request failed, where the SDK's code and message do not say.
    const int64_t code = result.error ? result.error->code() : 0;
    const bool causeHelps = code == QEL_HTTPDNS_E_NOT_READY || code == QEL_HTTPDNS_E_NEED_RETRY ||
                            code == -1 || code == QEL_HTTPDNS_E_DEADLINE_PASSED ||
                            code == QEL_HTTPDNS_E_ALL_NODES_FAILED;
    const std::string cause = causeHelps ? takeCause() : std::string();
    const bool viaService =
        result.trace && result.trace->source == QelDNSLookupTrace::Source::Service;
    if (options.json) {
        nlohmann::json line = {{"domain", name}, {"type", type == 1 ? "A" : "AAAA"}};
        if (!result.answered) {
            line["error"] = {
                {"code", nullptr},
                {"message", "no answer within " + std::to_string(waitedSeconds) + " s"}};
        } else if (result.error || empty) {
            line["error"]["code"] = empty ? nlohmann::json() : nlohmann::json(result.error->code());
            line["error"]["message"] =
                empty ? noFamilyAddress : capped(result.error->localizedDescription());
            if (gloss) line["error"]["gloss"] = *gloss;
            if (!cause.empty()) line["error"]["cause"] = capped(cause);
            line["microseconds"] = result.microseconds;
        } else {
            line["addresses"] = *result.ips;
            if (result.trace && result.trace->ttl >= 0) line["ttl"] = result.trace->ttl;
            line["source"] = result.onCallingThread ? "cache" : "network";
            if (viaService && !result.trace->nodes.empty())
                line["node"] = result.trace->nodes.back();
            line["microseconds"] = result.microseconds;
        }
        if (result.trace && options.verbose) line["trace"] = traceJson(*result.trace);
        std::printf("%s\n",
                    line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    } else if (!result.answered) {
        std::fprintf(stderr, "qeldns: %s: no answer within %g s\n", shown(name).c_str(),
                     waitedSeconds);
    } else if (noAddress) {
        std::fprintf(stderr, "qeldns: no %s address for %s\n", family.c_str(), shown(name).c_str());
    } else if (result.error) {
        std::fprintf(stderr, "qeldns: %s: error %lld%s: %s%s\n", shown(name).c_str(),
                     static_cast<long long>(result.error->code()),
                     gloss ? (" (" + *gloss + ")").c_str() : "",
                     shown(result.error->localizedDescription()).c_str(),
                     cause.empty() ? "" : ("; " + shown(cause)).c_str());
    } else if (empty) {
        std::fprintf(stderr, "qeldns: %s: %s\n", shown(name).c_str(), noFamilyAddress.c_str());
    } else {
        std::string line = shown(name);
        for (const auto& ip : *result.ips) line += " " + ip;
        if (result.trace && result.trace->ttl >= 0)
            line += " (ttl " + std::to_string(result.trace->ttl) + ")";
        std::printf("%s\n", line.c_str());
    }
    std::fflush(stdout);
    if (addressed && !empty) return Outcome::Answered;
    return noAddress ? Outcome::NoAddress : Outcome::Failed;
}

void configure(QelHttpDnsManager& dns, const QeldnsOptions& options) {
    QelDNSApplication::setBundleIdentifier(std::string("qeldns"));
    if (options.storePath) QelDNSApplication::setStorePath(*options.storePath);
    // The SDK logs each request and why one failed; qeldns keeps the reason for its report, and
    // shows the lines themselves only with -v.
    QelDNSApplication::setLogSink([verbose = options.verbose](const std::string& line) {
        noteCause(line);
        if (verbose) std::fprintf(stderr, "%s\n", line.c_str());
    });
    dns.consolePrintLogEnable(options.verbose);
    dns.enableCacheIP(options.cache);
    dns.enableExpiredIp(options.expired);
    dns.setTimeout(options.timeout);
    if (!options.degradeHosts.empty()) dns.setDegradeHosts(options.degradeHosts);
    if (options.server) dns.customServerUrl(options.server);
    if (!options.designKeys) {
        QelDNSResilienceOptions resilience;
        resilience.deadline = options.timeout;
        QelDNSResilience::enable(resilience);
    }
    // Before any request: the login is the first, and it goes to the service these check.
    if (options.caFile) QelDNSApplication::setCaFile(*options.caFile);
    if (options.pin) QelDNSApplication::setPinnedPublicKey(*options.pin);
    QelDNSTraceObserver::install([](const QelDNSLookupTrace& trace) { latestTrace = trace; });
}

}  // namespace

// Every name of `names`, asked of the daemon; exit status as for the SDK's own lookups.
int askDaemonFor(const QeldnsOptions& options, const std::vector<std::string>& names) {
    const double seconds = options.timeout > 0 ? options.timeout : 20.0;
    const auto limit = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    bool failed = false, noAddress = false;
    const std::vector<int64_t> types =
        options.bothFamilies ? std::vector<int64_t>{1, 2} : std::vector<int64_t>{options.type};
    for (const std::string& name : names) {
        const std::string asked =
            name.size() > 1 && name.back() == '.' ? name.substr(0, name.size() - 1) : name;
        for (const int64_t type : types) {
            std::string unreachable;
            const Result result = askDaemon(*options.daemonSocket, asked, type, limit, unreachable);
            if (!unreachable.empty()) {
                std::fprintf(stderr, "qeldns: the daemon at %s did not answer: %s\n",
                             shown(*options.daemonSocket).c_str(), unreachable.c_str());
                return 1;
            }
            const Outcome outcome = report(options, name, type, result, seconds);
            failed |= outcome == Outcome::Failed;
            noAddress |= outcome == Outcome::NoAddress;
        }
    }
    return failed ? 1 : noAddress ? 3 : 0;
}

int main(int argc, char** argv) {
    std::string usageError;
    std::optional<QeldnsOptions> parsed = QeldnsOptions::parse(argc, argv, usageError);
    if (!parsed) {
        std::fprintf(stderr, "qeldns: %s\nTry 'qeldns --help'.\n", shown(usageError).c_str());
        return 2;
    }
    const QeldnsOptions& options = *parsed;
    if (options.help) {
        std::fputs(QeldnsOptions::kUsage, stdout);
        return 0;
    }
    if (options.version) {
        std::printf("qeldns (QelHttpDnsSDK) %s\n", QelHttpDnsManager::sdkVersion().c_str());
        return 0;
    }
    std::vector<std::string> names = options.names;
    if (options.namesFile && !readNames(*options.namesFile, names)) {
        std::fprintf(stderr, "qeldns: cannot read %s\n", shown(*options.namesFile).c_str());
        return 2;
    }
    // libcurl would only say so at the first request, in the log that -v shows.
    if (options.caFile && access(options.caFile->c_str(), R_OK) != 0) {
        std::fprintf(stderr, "qeldns: cannot read %s\n", shown(*options.caFile).c_str());
        return 2;
    }

    if (options.daemonSocket) return askDaemonFor(options, names);
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    configure(dns, options);
    if (options.clearCache) dns.cleanAllCache();
    if (names.empty()) return 0;

    // One request's time limit, and some room for the login and the retries after it.
    const double requestSeconds = options.timeout > 0 ? options.timeout : 20.0;
    const double waitSeconds = 4 * requestSeconds + 1;
    const auto limit =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(waitSeconds));
    dns.registerAuthId(options.authId, options.authSecret);
    // Until the login's reply arrives the SDK answers no lookup at all.
    const auto loginDeadline = Clock::now() + limit;
    while (dns.initStatus() == 0 && Clock::now() < loginDeadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }

    const bool progress =
        options.namesFile && !options.json && isatty(STDERR_FILENO) && !options.verbose;
    bool failed = false, noAddress = false;
    size_t done = 0;
    const std::vector<int64_t> types =
        options.bothFamilies ? std::vector<int64_t>{1, 2} : std::vector<int64_t>{options.type};
    for (const std::string& name : names) {
        // A zone file's absolute name, "www.example.test.", is the name without its dot.
        const std::string asked =
            name.size() > 1 && name.back() == '.' ? name.substr(0, name.size() - 1) : name;
        for (int round = 0; round < options.repeat; ++round) {
            for (const int64_t type : types) {
                const Result result = lookUp(dns, asked, type, limit);
                if (progress) std::fputs("\r\x1b[K", stderr);  // the progress line goes first
                const Outcome outcome = report(options, name, type, result, waitSeconds);
                failed |= outcome == Outcome::Failed;
                noAddress |= outcome == Outcome::NoAddress;
            }
        }
        if (progress) std::fprintf(stderr, "\r%zu/%zu names", ++done, names.size());
    }
    if (progress) std::fprintf(stderr, "\n");
    return failed ? 1 : noAddress ? 3 : 0;
}
