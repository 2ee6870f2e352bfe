#include "AccessLog.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace qel::server {

std::string utcTimestamp(std::chrono::system_clock::time_point at) {
    using namespace std::chrono;
    const auto milliseconds =
        duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    // The date and time of day change once a second; a busy server writes many lines in one.
    thread_local std::time_t cachedSecond = -1;
    thread_local char cached[24];
    thread_local size_t cachedLength = 0;
    if (seconds != cachedSecond) {
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        cachedLength = std::strftime(cached, sizeof cached, "%Y-%m-%dT%H:%M:%S", &utc);
        cachedSecond = seconds;
    }
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>(milliseconds % 1000));
    return std::string(cached, cachedLength) + fraction;
}

std::string AccessLog::format(const AccessRecord& record,
                              std::chrono::system_clock::time_point at) {
    std::string line;
    line.reserve(160 + record.path.size() + record.detail.size());
    line += utcTimestamp(at);
    for (const std::string* field :
         {&record.remote, &record.account, &record.method, &record.path}) {
        line += ' ';
        line += field->empty() ? "-" : *field;
    }
    line += ' ';
    line += std::to_string(record.status);
    line += ' ';
    line += std::to_string(record.duration.count());
    line += "us";
    if (!record.detail.empty()) {
        line += ' ';
        line += record.detail;
    }
    return line;
}

void AccessLog::access(const AccessRecord& record) {
    write(access_, format(record, std::chrono::system_clock::now()));
}

void AccessLog::message(const std::string& text) {
    write(messages_,
          utcTimestamp(std::chrono::system_clock::now()) + " qel-httpdns-server: " + text);
}

void AccessLog::write(std::FILE* file, const std::string& line) {
    if (!file) return;
    // One write(2) of the whole line, past stdio and without a lock: the kernel keeps a write
    // to a file opened for appending, or a pipe write of up to PIPE_BUF bytes, in one piece, so
    // requests on other threads never wait for this one's write.
    std::string whole;
    whole.reserve(line.size() + 1);
    whole += line;
    whole += '\n';
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
