// The SDK's one HTTP transport: sends a JSON request to a full URL on the platform's shared
// session and hands back either an error or the decoded JSON answer. It knows nothing of the
// service's keys or codes. The request builders derive from it and call these as their own.
//
// Every request prints four kinds of console line, whatever the SDK's log switch says:
//   "request url: <URL as given>", "request headers <headers as JSON>",
//   "request paramters <body as JSON>" (POST only) and, when a body arrives,
//   "response url <answer as JSON>" (the label is historical: the line carries the answer).
// JSON in these lines and on the wire is pretty-printed with a two-space indent, keys in
// sorted order, invalid UTF-8 replaced by U+FFFD.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "QelHttpDnsSDK/Platform/HttpResponse.h"

class QelDNSRequest {
public:
    /// Receives exactly one of an error and a result. Runs on the platform thread, never on
    /// the caller's, one completion at a time. An empty function is allowed: the request is
    /// still sent and logged, and its answer dropped.
    using FinishBlock =
        std::function<void(std::optional<QelDNSError> error, std::optional<nlohmann::json> result)>;

    /// `baseRequest` with method 0 (GET) and an empty body.
    static void get(const std::optional<std::string>& url, const nlohmann::json& headers,
                    FinishBlock finishBlock);
    /// `baseRequest` with method 1 (POST).
    static void post(const std::optional<std::string>& url, const nlohmann::json& headers,
                     const nlohmann::json& body, FinishBlock finishBlock);

    /// Starts one request and returns at once; callable from any thread.
    ///
    /// - `url` absent or empty: nothing is sent or logged, `finishBlock` is never called.
    /// - The whole URL is percent-encoded byte by byte: letters, digits and
    ///   -._~!$&'()*+,;=:@/? stay, everything else (% and # too) becomes %XX. An escaped URL
    ///   is escaped again; an IPv6 literal host ([...]) does not survive this.
    /// - `method` 1 is POST, anything else GET. The body (POST only) is sent as JSON.
    /// - Headers: "Content-Type: application/json;charset=UTF-8" first, then each entry of
    ///   `headers` in key order; an entry with the same name (any case) replaces an earlier
    ///   one. Values are sent as text: strings as they are, numbers in decimal (7 -> "7",
    ///   5.5 -> "5.5"), true/false as "1"/"0", null as "<null>", arrays and objects as compact
    ///   JSON. `headers` or `body` that is not a JSON object counts as an empty object.
    /// - Timeout: `timeout()` as the request is built, 20 s when it is exactly 0.0; other
    ///   values are used unchanged (see qel::platform::HttpRequest for negative, NaN, inf).
    ///
    /// The answer: a transport failure gives error 200 "request error" when the status code
    /// was 200 (for instance a connection lost in the body of a 200, or a body over 1 MiB),
    /// otherwise -30000 "request error" (no answer, timeout, refused connection). Without a
    /// transport failure the status code is not looked at: an empty body gives -10000
    /// "request error"; a body that is not a JSON object or array (or nests deeper than 512
    /// levels) gives -10001 "json convert error", after the line "response url (null)"; any
    /// other body is the result, whatever the status code (a 500 with a JSON body is a result).
    static void baseRequest(uint64_t method, const std::optional<std::string>& url,
                            const nlohmann::json& headers, const nlohmann::json& body,
                            FinishBlock finishBlock);

    /// What `baseRequest` does with what the transport handed back: turns `response` into the
    /// error or the JSON result described above and calls `finishBlock` (if any) once, on the
    /// calling thread. Logs the "response url" line when a body arrived, and "request failed:
    /// <the transport's reason>" when the exchange failed.
    static void handleResponse(const FinishBlock& finishBlock,
                               qel::platform::HttpResponse response);

    /// The timeout of the requests built from now on, in seconds; 0.0 (the default) stands
    /// for 20 s. The public manager's `timeout` property is kept here, in the layer that uses
    /// it. Any thread.
    static double timeout();
    static void setTimeout(double timeout);

    /// `text` with every byte outside letters, digits and -._~!$&'()*+,;=:@/? written as %XX
    /// (upper-case hex), as `baseRequest` sends a URL. Pure; callable from any thread.
    static std::string percentEncode(const std::string& text);

protected:
    // Never instantiated: a class of static operations that the request builders derive from.
    QelDNSRequest() = default;
};
