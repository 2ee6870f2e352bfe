#include "support/CapturingConsole.h"

#include "QelHttpDnsSDK/Platform/Console.h"

namespace qel::test {

CapturingConsole::CapturingConsole() {
    platform::Console::setSink([this](const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    });
}

CapturingConsole::~CapturingConsole() { platform::Console::setSink(nullptr); }

std::vector<std::string> CapturingConsole::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

void CapturingConsole::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace qel::test
