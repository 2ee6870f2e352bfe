#include "QelHttpDnsSDK/Platform/Linux/StandardErrorLog.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace qel::platform {

namespace {

void writeAll(int fd, const std::string& text) {
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;  // nowhere left to report a failing stderr
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
}

const char* programName() {
    // glibc's short program name (declared by <cerrno> under _GNU_SOURCE).
    return ::program_invocation_short_name ? ::program_invocation_short_name : "QelHttpDnsSDK";
}

}  // namespace

std::string StandardErrorLog::formatLine(std::string_view message) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[64];
    const size_t stampLength = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char prefix[160];
    const int prefixLength =
        std::snprintf(prefix, sizeof prefix, "%.*s.%03d %s[%d:%ld] ", static_cast<int>(stampLength),
                      stamp, static_cast<int>(millis), programName(), static_cast<int>(::getpid()),
                      static_cast<long>(::syscall(SYS_gettid)));
    std::string line;
    line.reserve(static_cast<size_t>(prefixLength) + message.size() + 1);
    line.append(prefix, static_cast<size_t>(prefixLength));
    line.append(message);
    line.push_back('\n');
    return line;
}

void StandardErrorLog::write(std::string_view message) {
    writeAll(STDERR_FILENO, formatLine(message));
}

}  // namespace qel::platform
