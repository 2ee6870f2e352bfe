// Captures console lines for the life of the object (installs a console sink).
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/Console.h"

namespace qel::test {

class CapturingConsole {
public:
    CapturingConsole() {
        platform::Console::setSink([this](const std::string& line) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        });
    }
    ~CapturingConsole() { platform::Console::setSink(nullptr); }
    CapturingConsole(const CapturingConsole&) = delete;
    CapturingConsole& operator=(const CapturingConsole&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace qel::test
