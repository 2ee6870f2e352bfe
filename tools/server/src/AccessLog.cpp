#include "AccessLog.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace qel::server {

std::string utcTimestamp(std::chrono::system_clock::time_point at) {
    using namespace std::chrono;
    const auto milliseconds = duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(milliseconds % 1000));
    return text;
}

std::string AccessLog::format(const AccessRecord& record, std::chrono::system_clock::time_point at) {
    std::string line = utcTimestamp(at) + " " + record.remote + " " +
                       (record.account.empty() ? "-" : record.account) + " " + record.method + " " +
                       record.path + " " + std::to_string(record.status) + " " +
                       std::to_string(record.duration.count()) + "us";
    if (!record.detail.empty()) line += " " + record.detail;
    return line;
}

void AccessLog::access(const AccessRecord& record) {
    write(access_, format(record, std::chrono::system_clock::now()));
}

void AccessLog::message(const std::string& text) {
    write(messages_, utcTimestamp(std::chrono::system_clock::now()) + " qel-httpdns-server: " + text);
}

void AccessLog::write(std::FILE* file, const std::string& line) {
    if (!file) return;
    // One write(2) of the whole line, past stdio and without a lock: the kernel keeps a write
    // to a file opened for appending, or a pipe write of up to PIPE_BUF bytes, in one piece, so
    // requests on other threads never wait for this one's write.
    std::string whole = line + '\n';
    const int fd = fileno(file);
    for (size_t done = 0; done < whole.size();) {
        const ssize_t wrote = ::write(fd, whole.data() + done, whole.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return;
        done += static_cast<size_t>(wrote);
    }
}

}  // namespace qel::server

namespace qel::server {

namespace {

std::string escaped(const std::string& text, bool keepBlanks) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string safe;
    safe.reserve(text.size());
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte <= 0x20 && !(keepBlanks && c == ' ')) || byte >= 0x7f || c == '%' || c == '"') {
            safe += '%';
            safe += kHex[byte >> 4];
            safe += kHex[byte & 0x0f];
        } else {
            safe += c;
        }
    }
    return safe;
}

}  // namespace

std::string logSafe(const std::string& text) { return escaped(text, false); }

std::string logQuoted(const std::string& text) { return "\"" + escaped(text, true) + "\""; }

}  // namespace qel::server
