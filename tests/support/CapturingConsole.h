// Captures console lines for the life of the object (installs a console sink). The lines live
// in state the sink shares, so a line the platform thread logs while the object goes away
// lands there instead of in freed memory.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/Console.h"

namespace qel::test {

class CapturingConsole {
public:
    CapturingConsole() {
        platform::Console::setSink([state = state_](const std::string& line) {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->lines.push_back(line);
        });
    }
    ~CapturingConsole() { platform::Console::setSink(nullptr); }
    CapturingConsole(const CapturingConsole&) = delete;
    CapturingConsole& operator=(const CapturingConsole&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->lines;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->lines.clear();
    }

private:
    struct State {
        std::mutex mutex;
        std::vector<std::string> lines;
    };
    const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace qel::test
