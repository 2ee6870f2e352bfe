// The service's two outputs: one access line per request, and messages (start, reload, stop,
// failures). Each line goes out in one write, so lines of concurrent requests never mix and a
// reader of the file sees them at once. Thread-safe. The streams are written past their stdio
// buffers: write nothing else to them through stdio.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace qel::server {

struct AccessRecord {
    std::string remote;   // "127.0.0.1:54321"
    std::string account;  // the AuthId of the path, "-" when there is none
    std::string method;
    std::string path;  // decoded, without the query
    int status = 0;    // the HTTP status sent
    std::chrono::microseconds duration{0};
    std::string detail;  // what was asked and answered, or why it was refused
};

class AccessLog {
public:
    /// Writes access lines to `access` and messages to `messages`; neither is closed here.
    AccessLog(std::FILE* access, std::FILE* messages) : access_(access), messages_(messages) {}

    /// "2024-05-01T12:00:00.123Z 127.0.0.1:54321 acct-7 GET /acct-7/resolve 200 41us host=..."
    void access(const AccessRecord& record);
    /// "2024-05-01T12:00:00.123Z qel-httpdns-server: TEXT"
    void message(const std::string& text);

    /// The line `access` writes, without its final newline.
    static std::string format(const AccessRecord& record, std::chrono::system_clock::time_point at);

private:
    void write(std::FILE* file, const std::string& line);

    std::FILE* const access_;
    std::FILE* const messages_;
};

/// UTC, ISO 8601, milliseconds: "2024-05-01T12:00:00.123Z".
std::string utcTimestamp(std::chrono::system_clock::time_point at);

}  // namespace qel::server

namespace qel::server {

/// `text` with blanks, control bytes, '%' and '"' written as %XX, so a field taken from a
/// request cannot split or forge a log line.
std::string logSafe(const std::string& text);
/// `text` in double quotes, with control bytes, '%' and '"' written as %XX.
std::string logQuoted(const std::string& text);

}  // namespace qel::server
