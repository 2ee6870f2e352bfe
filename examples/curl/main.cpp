// Fetches a URL with libcurl, connecting to the address the HTTP resolution service gives for
// its host. CURLOPT_RESOLVE pins "NAME:PORT:ADDRESS" in curl's own name cache, so curl connects
// to that address while the Host header, and for https the TLS server name and the certificate
// check, keep the original name.
//   curl_fetch [--no-fallback] [--store FILE] <service-url> <auth-id> <auth-secret> <url>
// The body goes to standard output, what happened to standard error. Without an answer from
// the SDK the name is left to the system resolver, or, with --no-fallback, the fetch is not made.
// Exit status: 0 fetched, 1 not fetched, 2 bad usage.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include <QelHttpDnsSDK/QelHttpDnsSDK.h>

namespace {

struct Options {
    bool fallback = true;
    std::string storePath;
    std::string serviceUrl, authId, authSecret, url;
};

bool parse(int argc, char** argv, Options& options) {
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--no-fallback") {
            options.fallback = false;
        } else if (argument == "--store" && i + 1 < argc) {
            options.storePath = argv[++i];
        } else if (argument.rfind("--", 0) == 0) {
            return false;
        } else {
            positional.push_back(argument);
        }
    }
    if (positional.size() != 4) return false;
    options.serviceUrl = positional[0];
    options.authId = positional[1];
    options.authSecret = positional[2];
    options.url = positional[3];
    return true;
}

// The host and port curl will connect to for `url` (the scheme's port when none is written).
bool hostAndPort(const std::string& url, std::string& host, std::string& port) {
    CURLU* parsed = curl_url();
    char* h = nullptr;
    char* p = nullptr;
    const bool ok = curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
                    curl_url_get(parsed, CURLUPART_HOST, &h, 0) == CURLUE_OK &&
                    curl_url_get(parsed, CURLUPART_PORT, &p, CURLU_DEFAULT_PORT) == CURLUE_OK;
    if (ok) {
        host = h;
        port = p;
    }
    curl_free(h);
    curl_free(p);
    curl_url_cleanup(parsed);
    return ok;
}

// The SDK's IPv4 addresses for `host`, or nothing (the reason printed).
std::optional<std::vector<std::string>> lookUp(QelHttpDnsManager& dns, const std::string& host) {
    // Until the login's first reply the SDK does not answer lookups at all.
    for (int i = 0; i < 100 && dns.initStatus() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (dns.initStatus() == 0) {
        std::fprintf(stderr, "curl_fetch: no login reply from the service\n");
        return std::nullopt;
    }
    // Shared with the callback, which may still come after this function gave up waiting.
    auto answer = std::make_shared<std::promise<std::optional<std::vector<std::string>>>>();
    std::future<std::optional<std::vector<std::string>>> result = answer->get_future();
    dns.getIPV4ByDomain(host, [answer, host](std::optional<QelDNSError> error,
                                             std::optional<std::vector<std::string>> ips) {
        if (error) {
            std::fprintf(stderr, "curl_fetch: %s: error %lld: %s\n", host.c_str(),
                         static_cast<long long>(error->code()),
                         error->localizedDescription().c_str());
        }
        answer->set_value(ips && !ips->empty() ? ips : std::nullopt);
    });
    if (result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        std::fprintf(stderr, "curl_fetch: %s: no answer in time\n", host.c_str());
        return std::nullopt;
    }
    return result.get();
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: %s [--no-fallback] [--store FILE] <service-url> <auth-id> "
                     "<auth-secret> <url>\n",
                     argv[0]);
        return 2;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    std::string host, port;
    if (!hostAndPort(options.url, host, port)) {
        std::fprintf(stderr, "curl_fetch: %s is not a URL curl can fetch\n", options.url.c_str());
        return 2;
    }

    QelDNSApplication::setBundleIdentifier(std::string("com.example.curl-fetch"));
    // The SDK logs every request it sends; standard error is kept for this program's own lines.
    QelDNSApplication::setLogSink([](const std::string&) {});
    if (!options.storePath.empty()) QelDNSApplication::setStorePath(options.storePath);
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.customServerUrl(options.serviceUrl);
    dns.enableCacheIP(true);
    dns.registerAuthId(options.authId, options.authSecret);
    const std::optional<std::vector<std::string>> addresses = lookUp(dns, host);

    CURL* curl = curl_easy_init();
    curl_slist* pinned = nullptr;
    curl_easy_setopt(curl, CURLOPT_URL, options.url.c_str());
    if (addresses) {
        // "NAME:PORT:ADDRESS[,ADDRESS...]": curl tries them in order, as it would a DNS answer.
        std::string entry = host + ":" + port + ":";
        for (size_t i = 0; i < addresses->size(); ++i) entry += (i ? "," : "") + (*addresses)[i];
        pinned = curl_slist_append(nullptr, entry.c_str());
        curl_easy_setopt(curl, CURLOPT_RESOLVE, pinned);
        // A proxy would resolve the name itself and make the pin pointless.
        curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
        std::fprintf(stderr, "curl_fetch: pinned %s\n", entry.c_str());
    } else if (options.fallback) {
        std::fprintf(stderr, "curl_fetch: no SDK answer for %s; using the system resolver\n",
                     host.c_str());
    } else {
        std::fprintf(stderr, "curl_fetch: no SDK answer for %s; not fetched (--no-fallback)\n",
                     host.c_str());
        curl_easy_cleanup(curl);
        return 1;
    }

    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (code == CURLE_OK) {
        std::fprintf(stderr, "curl_fetch: HTTP %ld\n", status);
    } else {
        std::fprintf(stderr, "curl_fetch: %s\n", curl_easy_strerror(code));
    }
    curl_slist_free_all(pinned);
    curl_easy_cleanup(curl);
    return code == CURLE_OK && status < 400 ? 0 : 1;
}
