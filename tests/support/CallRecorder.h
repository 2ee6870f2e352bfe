// Records the calls of a callback made on any thread, for a test to wait on and inspect.
// The callback shares the record, so a call that arrives after the recorder is gone is safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <vector>

#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"

namespace qel::test {

template <typename... Args>
class CallRecorder {
public:
    struct Call {
        std::tuple<std::decay_t<Args>...> arguments;
        bool onPlatformThread;  // made on EventLoop::shared()'s thread
    };

    std::function<void(Args...)> callback() const {
        return [state = state_](Args... args) {
            const bool onLoop = platform::EventLoop::shared().isLoopThread();
            std::lock_guard<std::mutex> lock(state->mutex);
            state->calls.push_back({std::tuple<std::decay_t<Args>...>(std::move(args)...), onLoop});
            state->changed.notify_all();
        };
    }

    /// Waits until at least `count` calls were made; false if not within `limit` (a guard
    /// against a hang, not a measurement).
    bool waitFor(size_t count, std::chrono::seconds limit = std::chrono::seconds(15)) const {
        std::unique_lock<std::mutex> lock(state_->mutex);
        return state_->changed.wait_for(lock, limit, [&] { return state_->calls.size() >= count; });
    }

    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->calls;
    }

    size_t count() const { return calls().size(); }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<Call> calls;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace qel::test
