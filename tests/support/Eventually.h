// The one way a test waits for something another thread or process makes true.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace qel::test {

/// Polls `condition` every 5 ms until it holds or `limit` has passed; the last poll decides.
inline bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

}  // namespace qel::test
