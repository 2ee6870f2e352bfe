// What a Linux application tells the library about itself. A mobile platform knows an
// application's identity, its life cycle and its storage; on Linux the application states them
// through these calls. All are static and callable from any thread.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/QelDNSExport.h"

class QEL_EXPORT QelDNSApplication {
public:
    /// Receives one line the library logs, without time stamp or process id.
    using LogSink = std::function<void(const std::string& message)>;

    QelDNSApplication() = delete;

    /// The application's identifier, for instance "com.example.app"; nullopt clears it. It is
    /// sent with every login and resolve request, and names the store's directory unless
    /// `setStorePath` chose a file. Call it once at start, before the first lookup.
    static void setBundleIdentifier(std::optional<std::string> bundleIdentifier);

    /// Tells the library the application stopped being active (a service paused, SIGTSTP, a
    /// locked session): network change reports stop until `willEnterForeground`. Runs the
    /// library's handlers synchronously on the calling thread, so call it from an ordinary
    /// thread, never from a signal handler.
    static void didEnterBackground();
    /// Tells the library the application is active again: network change reports resume.
    /// Same thread rules as `didEnterBackground`.
    static void willEnterForeground();

    /// Chooses the file of the library's persistent store (an SQLite database, which the
    /// application may share for its own keys). Takes effect only before the store is first
    /// used, so call it at start; returns false, changing nothing, once the store is open.
    /// A file another user could have read or written is not used (a symbolic link, a file not
    /// owned by the effective user or open to group or others, or one in a directory they can
    /// write): the library logs why and caches in memory only. ":memory:" asks for that: the
    /// store lives in memory and nothing is written to a file.
    static bool setStorePath(const std::string& path);

    /// The proxy every request to the service goes through: nullopt (the default) takes the
    /// environment's, as libcurl reads it (`http_proxy`, `https_proxy`, `all_proxy`, and
    /// `no_proxy` for the hosts to reach directly; upper-case forms too, except `HTTP_PROXY`);
    /// "" means none, whatever the environment says; otherwise a proxy URL such as
    /// "http://proxy.example:3128" or "socks5h://127.0.0.1:1080". Applies to requests sent
    /// after the call.
    static void setProxy(std::optional<std::string> proxy);

    /// The certificate authorities an https service and its nodes must chain to: a PEM file,
    /// or "" (the default) for the system's. Applies to requests sent after the call.
    static void setCaFile(std::string path);

    /// Pins the https service's public key, as libcurl's CURLOPT_PINNEDPUBLICKEY reads it:
    /// "sha256//<base64 of the key's SHA-256>" (several joined by ';') or a PEM/DER key file;
    /// "" (the default) pins nothing. A connection to a key not pinned fails as a transport
    /// error. Applies to requests sent after the call.
    static void setPinnedPublicKey(std::string pin);

    /// Sends every line the library logs to `sink` instead of standard error; an empty sink
    /// restores standard error. The sink runs on the thread that logs (often the library's
    /// own network thread), outside any lock of the library; it should return quickly.
    static void setLogSink(LogSink sink);
};
