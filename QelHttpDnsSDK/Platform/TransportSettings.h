// How the platform's HTTP session reaches a service: through which proxy, trusting which
// certificate authorities, pinned to which key. Process-wide, set by the application through
// QelDNSApplication; the session reads them when it prepares a connection handle, so a change
// applies to the requests sent after it. Callable from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace qel::platform {

class TransportSettings {
public:
    struct Values {
        /// nullopt: the environment's, as libcurl reads it (http_proxy, https_proxy,
        /// all_proxy, no_proxy and their upper-case forms, except HTTP_PROXY); "": none;
        /// otherwise the proxy's URL ("http://proxy.example:3128", "socks5h://...").
        std::optional<std::string> proxy;
        /// A PEM file of the certificate authorities an https service must chain to; "": the
        /// system's.
        std::string caFile;
        /// The service's public key as libcurl pins it ("sha256//<base64>", several joined
        /// with ';', or a PEM/DER key file); "": no pin.
        std::string pinnedPublicKey;
    };

    TransportSettings() = delete;

    /// The values in force. A new object after every change, so holders compare pointers to
    /// tell whether what they prepared is still current.
    static std::shared_ptr<const Values> current();

    static void setProxy(std::optional<std::string> proxy);
    static void setCaFile(std::string caFile);
    static void setPinnedPublicKey(std::string pinnedPublicKey);
};

}  // namespace qel::platform
