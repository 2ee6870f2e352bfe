// Points a libcurl easy handle at the address the SDK gives for its URL's host. The host is
// looked up with QelDNSBlockingLookup and pinned with CURLOPT_RESOLVE ("NAME:PORT:ADDRESS"):
// curl connects to that address while the Host header, cookies and, for https, the TLS server
// name and certificate check keep the URL's name.
//
//   CURL* curl = curl_easy_init();
//   curl_easy_setopt(curl, CURLOPT_URL, url);
//   QelDNSCurlPinning pinning(curl);              // destroy before curl_easy_cleanup
//   QelDNSCurlPinning::Result pin = pinning.pin(url, 5.0);
//   curl_easy_perform(curl);                      // to the SDK's address, or as usual
//
// Ownership: a pinning belongs to one handle, which the caller keeps; the pinning owns the
// curl_slist it gives as CURLOPT_RESOLVE and frees it when it replaces it and when it is
// destroyed (clearing the option first, so the handle never points at freed memory). It owns
// the handle's CURLOPT_RESOLVE and CURLOPT_NOPROXY while it lives: set neither yourself.
//
// Proxies: a proxy resolves the name itself and would make the pin pointless, so a pinned
// handle bypasses every proxy (CURLOPT_NOPROXY "*"); when the pinning stops pinning, that
// option goes back to libcurl's default (the environment's no_proxy).
//
// Threads: one thread at a time per pinning, never the library's platform thread (the lookup
// waits for its answer; there it fails at once and the handle is left to the system resolver).
// Nothing throws.
//
// The header declares CURL as libcurl does (`typedef void CURL`); do not build with
// CURL_STRICTER.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "QelHttpDnsSDK/QelDNSExport.h"

typedef void CURL;
struct curl_slist;

class QEL_EXPORT QelDNSCurlPinning {
public:
    enum class Outcome {
        /// The host is pinned to the SDK's addresses.
        Pinned,
        /// The URL's host is an address already: nothing to look up or pin.
        AddressLiteral,
        /// The SDK gave no address (`error` says why; -20003 "empty data" when none of its
        /// answer was an address of the family asked for): the system resolver will resolve it.
        SystemResolver,
        /// libcurl cannot parse the URL (`error` is code -50005); nothing is pinned.
        UnusableUrl,
    };

    struct Result {
        Outcome outcome = Outcome::UnusableUrl;
        /// The URL's host as curl connects to it (an IPv6 literal without its brackets).
        std::string host;
        /// The port curl connects to: the URL's, or its scheme's default.
        std::string port;
        /// The SDK's addresses of the family asked for, when pinned; the rest of its answer
        /// is left out of the entry.
        std::vector<std::string> addresses;
        /// The CURLOPT_RESOLVE entry in force, when pinned: "host:port:addr[,addr...]".
        std::string entry;
        /// Why nothing is pinned, for SystemResolver and UnusableUrl.
        std::optional<QelDNSError> error;

        bool pinned() const { return outcome == Outcome::Pinned; }
    };

    /// The pinning of `curl`, which pins nothing yet. The caller keeps the handle alive for
    /// the pinning's lifetime.
    explicit QelDNSCurlPinning(CURL* curl);
    /// Clears CURLOPT_RESOLVE and frees its list. A name a transfer has already pinned stays
    /// in the handle's DNS cache until `clear` is followed by a transfer, or the handle ends.
    ~QelDNSCurlPinning();
    QelDNSCurlPinning(const QelDNSCurlPinning&) = delete;
    QelDNSCurlPinning& operator=(const QelDNSCurlPinning&) = delete;

    /// Looks up the host of `url` (the handle's URL) through the SDK, waiting at most `timeout`
    /// seconds, and pins it (type 1: IPv4 addresses, 2: IPv6). Replaces the previous pin of
    /// this handle: its name is dropped from the handle's DNS cache at the next transfer,
    /// whatever the outcome.
    Result pin(const std::string& url, double timeout, int64_t type = 1);

    /// Stops pinning: the previous pin is dropped at the next transfer.
    void clear();

private:
    void setEntries(const std::vector<std::string>& entries, bool bypassProxies);
    Result unpinned(Result result);

    CURL* curl_;
    curl_slist* list_ = nullptr;
    std::string pinnedKey_;  // "host:port" of the pin in force, empty when none
    bool proxiesBypassed_ = false;
};
