#include "QelHttpDnsSDK/Extras/QelDNSCurlPinning.h"

#include <curl/curl.h>

#include <memory>
#include <utility>

#include "QelHttpDnsSDK/Extras/QelDNSAddressCheck.h"
#include "QelHttpDnsSDK/Extras/QelDNSBlockingLookup.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"

namespace codes = QelDNSErrorCodes;

namespace {

struct CurlFree {
    void operator()(char* text) const { curl_free(text); }
};
struct CurlUrlCleanup {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using CurlText = std::unique_ptr<char, CurlFree>;

CurlText urlPart(CURLU* url, CURLUPart part, unsigned int flags) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, flags) != CURLUE_OK) return nullptr;
    return CurlText(text);
}

// The host and port curl connects to for `url`; false when curl cannot parse it.
bool hostAndPort(const std::string& url, std::string& host, std::string& port) {
    std::unique_ptr<CURLU, CurlUrlCleanup> parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        return false;
    }
    const CurlText h = urlPart(parsed.get(), CURLUPART_HOST, 0);
    const CurlText p = urlPart(parsed.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    if (!h || !p) return false;
    host = h.get();
    port = p.get();
    // An IPv6 literal comes bracketed, as written in the URL.
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return true;
}

// libcurl reads an IPv6 address of a CURLOPT_RESOLVE entry only in brackets.
std::string entryAddress(const std::string& ip) {
    return ip.find(':') == std::string::npos ? ip : "[" + ip + "]";
}

std::string pinEntry(const std::string& key, const std::vector<std::string>& ips) {
    std::string entry = key + ":";
    for (size_t i = 0; i < ips.size(); ++i) entry += (i ? "," : "") + entryAddress(ips[i]);
    return entry;
}

}  // namespace

QelDNSCurlPinning::QelDNSCurlPinning(CURL* curl) : curl_(curl) {}

QelDNSCurlPinning::~QelDNSCurlPinning() {
    if (curl_ && list_) curl_easy_setopt(curl_, CURLOPT_RESOLVE, static_cast<curl_slist*>(nullptr));
    if (curl_ && proxiesBypassed_)
        curl_easy_setopt(curl_, CURLOPT_NOPROXY, static_cast<const char*>(nullptr));
    curl_slist_free_all(list_);
}

QelDNSCurlPinning::Result QelDNSCurlPinning::pin(const std::string& url, double timeout,
                                                 int64_t type) {
    Result result;
    if (!curl_ || !hostAndPort(url, result.host, result.port)) {
        result.error = QelDNSUntil::errorCode(codes::kUnusableUrl, codes::kUnusableUrlMessage);
        return unpinned(std::move(result));
    }
    if (QelDNSUntil::isIP(result.host)) {
        result.outcome = Outcome::AddressLiteral;
        return unpinned(std::move(result));
    }
    QelDNSBlockingLookup::Result lookup = QelDNSBlockingLookup::resolve(result.host, type, timeout);
    // An entry that is not an address could add entries of its own (a comma, a line break).
    QelDNSAddressCheck::keepAddresses(lookup.ips, type);
    if (!lookup.ok() || lookup.ips.empty()) {
        result.outcome = Outcome::SystemResolver;
        result.error = lookup.ok()
                           ? QelDNSUntil::errorCode(QelDNSErrorCodes::kResolveEmptyData,
                                                    QelDNSErrorCodes::kResolveEmptyDataMessage)
                           : std::move(lookup.error);
        return unpinned(std::move(result));
    }
    const std::string key = result.host + ":" + result.port;
    result.entry = pinEntry(key, lookup.ips);
    result.addresses = std::move(lookup.ips);
    // Drop a pin of another name first; an entry for the same name replaces the old one.
    std::vector<std::string> entries;
    if (!pinnedKey_.empty() && pinnedKey_ != key) entries.push_back("-" + pinnedKey_);
    entries.push_back(result.entry);
    setEntries(entries, true);
    pinnedKey_ = key;
    result.outcome = Outcome::Pinned;
    return result;
}

void QelDNSCurlPinning::clear() {
    if (!curl_) return;
    if (pinnedKey_.empty()) {
        setEntries({}, false);
        return;
    }
    setEntries({"-" + pinnedKey_}, false);
    pinnedKey_.clear();
}

QelDNSCurlPinning::Result QelDNSCurlPinning::unpinned(Result result) {
    clear();
    return result;
}

// Gives the handle a new list and only then frees the old one, which it no longer points at.
void QelDNSCurlPinning::setEntries(const std::vector<std::string>& entries, bool bypassProxies) {
    curl_slist* list = nullptr;
    for (const std::string& entry : entries) {
        curl_slist* longer = curl_slist_append(list, entry.c_str());
        if (!longer) break;  // out of memory: what fits is still consistent
        list = longer;
    }
    curl_easy_setopt(curl_, CURLOPT_RESOLVE, list);
    curl_slist_free_all(list_);
    list_ = list;
    if (bypassProxies != proxiesBypassed_) {
        curl_easy_setopt(curl_, CURLOPT_NOPROXY,
                         bypassProxies ? "*" : static_cast<const char*>(nullptr));
        proxiesBypassed_ = bypassProxies;
    }
}
