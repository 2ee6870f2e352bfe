// Fetches a URL with libcurl, connecting to the address the HTTP resolution service gives for
// its host. QelDNSCurlPinning looks the host up and pins "NAME:PORT:ADDRESS" in curl's own name
// cache (CURLOPT_RESOLVE), so curl connects to that address while the Host header, and for
// https the TLS server name and the certificate check, keep the original name.
//   curl_fetch [--no-fallback] [--store FILE] <service-url> <auth-id> <auth-secret> <url>
// The body goes to standard output, what happened to standard error. Without an answer from
// the SDK the name is left to the system resolver, or, with --no-fallback, the fetch is not made.
// Exit status: 0 fetched, 1 not fetched, 2 bad usage.
#include <cstdio>
#include <memory>
#include <string>
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
    QelDNSApplication::setBundleIdentifier(std::string("com.example.curl-fetch"));
    // The SDK logs every request it sends; standard error is kept for this program's own lines.
    QelDNSApplication::setLogSink([](const std::string&) {});
    if (!options.storePath.empty()) QelDNSApplication::setStorePath(options.storePath);
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.customServerUrl(options.serviceUrl);
    dns.enableCacheIP(true);
    dns.registerAuthId(options.authId, options.authSecret);

    std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
    CURL* curl = handle.get();
    curl_easy_setopt(curl, CURLOPT_URL, options.url.c_str());
    // Declared after the handle, so destroyed before it: it clears what it set on the handle.
    QelDNSCurlPinning pinning(curl);
    // Within this deadline: the login's first reply, then the service's answer.
    const QelDNSCurlPinning::Result pin = pinning.pin(options.url, 60.0);
    switch (pin.outcome) {
        case QelDNSCurlPinning::Outcome::Pinned:
            std::fprintf(stderr, "curl_fetch: pinned %s\n", pin.entry.c_str());
            break;
        case QelDNSCurlPinning::Outcome::AddressLiteral:
            std::fprintf(stderr, "curl_fetch: %s is an address; nothing to look up\n",
                         pin.host.c_str());
            break;
        case QelDNSCurlPinning::Outcome::UnusableUrl:
            std::fprintf(stderr, "curl_fetch: %s is not a URL curl can fetch\n",
                         options.url.c_str());
            return 2;
        case QelDNSCurlPinning::Outcome::SystemResolver:
            std::fprintf(stderr, "curl_fetch: %s: error %lld: %s\n", pin.host.c_str(),
                         static_cast<long long>(pin.error ? pin.error->code() : 0),
                         pin.error ? pin.error->localizedDescription().c_str() : "");
            if (!options.fallback) {
                std::fprintf(stderr,
                             "curl_fetch: no SDK answer for %s; not fetched (--no-fallback)\n",
                             pin.host.c_str());
                return 1;
            }
            std::fprintf(stderr, "curl_fetch: no SDK answer for %s; using the system resolver\n",
                         pin.host.c_str());
            break;
    }

    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (code == CURLE_OK) {
        std::fprintf(stderr, "curl_fetch: HTTP %ld\n", status);
    } else {
        std::fprintf(stderr, "curl_fetch: %s\n", curl_easy_strerror(code));
    }
    return code == CURLE_OK && status < 400 ? 0 : 1;
}
