// Cost of a GET through QelDNSRequest (hand-off to the platform thread, libcurl multi, JSON
// parse, console lines, completion hand-back) against bare libcurl doing the same exchange on
// the same loopback server in the same run: one request at a time on a reused easy handle, and
// 200 at once on a multi handle with reused easy handles and the session's connection limit.
// At the end the ratios (QelDNSRequest time / bare libcurl time) are printed.
//
//   build/release/bench/http_request_bench
//
// The console lines are built as always but written to a sink that drops them, so the figures
// do not measure the terminal.
//
// Latency is taken from the call to the moment the answer is in hand: for QelDNSRequest when
// the (last) completion runs on the platform thread, for bare libcurl when curl returns. The
// benchmark thread's own wake-up after a completion is the harness's cost, not the library's,
// so it is left out (manual timing).
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "BareCurlGet.h"
#include "BenchMain.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"
#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "support/LoopbackHttpServer.h"

using nlohmann::json;
using qel::platform::CurlHttpSession;
using qel::test::LoopbackHttpServer;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kBatch = 200;
const char kAnswer[] =
    R"({"host":"www.example.test","ips":["192.0.2.1","192.0.2.2"],"ttl":60,"type":1})";
const char kAuthorization[] = "0123456789abcdef0123456789abcdef";

LoopbackHttpServer& server() {
    static LoopbackHttpServer* instance = [] {
        auto* made = new LoopbackHttpServer();
        made->route("/resolve", [](const LoopbackHttpServer::Request&) {
            return LoopbackHttpServer::http(200, kAnswer, "", false, "application/octet-stream");
        });
        return made;
    }();
    return *instance;
}

const std::string& resolveUrl() {
    static const std::string url = server().url("/resolve?host=www.example.test&type=1");
    return url;
}

// Counts finished requests and lets the benchmark thread wait for a number of them.
class Countdown {
public:
    void reset(int count) {
        std::lock_guard<std::mutex> lock(mutex_);
        left_ = count;
        failures_ = 0;
    }
    void done(bool ok) {
        bool last;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!ok) ++failures_;
            last = --left_ == 0;
            if (last) finishedAt_ = Clock::now();
        }
        if (last) zero_.notify_one();  // outside the lock: the waiter need not block on it
    }
    int wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        zero_.wait(lock, [this] { return left_ == 0; });
        return failures_;
    }
    /// Seconds from `start` to the moment the last request finished (valid after wait()).
    double secondsSince(Clock::time_point start) {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::chrono::duration<double>(finishedAt_ - start).count();
    }

private:
    std::mutex mutex_;
    std::condition_variable zero_;
    int left_ = 0;
    int failures_ = 0;
    Clock::time_point finishedAt_;
};

void getThroughQelDNSRequest(Countdown& countdown) {
    static const json headers = {{"Authorization", kAuthorization}};
    QelDNSRequest::get(resolveUrl(), headers,
                       [&countdown](std::optional<QelDNSError>, std::optional<json> result) {
                           countdown.done(result.has_value());
                       });
}

// A bare easy handle that puts the same bytes on the wire as the session does.
struct BareHandle {
    qel::bench::BareCurlGet get{resolveUrl(), kAuthorization};
    CURL* easy = get.easy();

    bool answered() { return get.status() == 200 && get.takeBody() == kAnswer; }
};

// No HTTP at all: a task handed to the platform thread that signals back. A request through
// the session makes the same two hand-offs, so this shows what thread wake-ups cost on the
// machine at hand (on a VM they dominate the single-GET difference).
void BM_PlatformThreadRoundTrip(benchmark::State& state) {
    static Countdown countdown;
    for (auto _ : state) {
        countdown.reset(1);
        qel::platform::EventLoop::shared().post([] { countdown.done(true); });
        countdown.wait();
    }
}

void BM_SingleGet_QelDNSRequest(benchmark::State& state) {
    static Countdown countdown;  // outlives any late notify of the last request
    int failures = 0;
    for (auto _ : state) {
        countdown.reset(1);
        const auto start = Clock::now();
        getThroughQelDNSRequest(countdown);
        failures += countdown.wait();
        state.SetIterationTime(countdown.secondsSince(start));
    }
    if (failures) state.SkipWithError("requests failed");
}

void BM_SingleGet_BareCurl(benchmark::State& state) {
    BareHandle handle;
    int failures = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const CURLcode result = curl_easy_perform(handle.easy);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (result != CURLE_OK || !handle.answered()) ++failures;
    }
    if (failures) state.SkipWithError("requests failed");
}

void BM_Concurrent200_QelDNSRequest(benchmark::State& state) {
    static Countdown countdown;  // outlives any late notify of the last request
    int failures = 0;
    for (auto _ : state) {
        countdown.reset(kBatch);
        const auto start = Clock::now();
        for (int i = 0; i < kBatch; ++i) getThroughQelDNSRequest(countdown);
        failures += countdown.wait();
        state.SetIterationTime(countdown.secondsSince(start));
    }
    if (failures) state.SkipWithError("requests failed");
}

void BM_Concurrent200_BareCurl(benchmark::State& state) {
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS,
                      CurlHttpSession::kMaxConnectionsPerHost);
    std::vector<BareHandle> handles(kBatch);
    int failures = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (auto& handle : handles) curl_multi_add_handle(multi, handle.easy);
        int running = 0;
        do {
            curl_multi_perform(multi, &running);
            if (running) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        } while (running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg == CURLMSG_DONE && message->data.result != CURLE_OK) ++failures;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        for (auto& handle : handles) {
            curl_multi_remove_handle(multi, handle.easy);
            if (!handle.answered()) ++failures;
        }
    }
    curl_multi_cleanup(multi);
    if (failures) state.SkipWithError("requests failed");
}

BENCHMARK(BM_PlatformThreadRoundTrip)->UseRealTime();
BENCHMARK(BM_SingleGet_BareCurl)->UseManualTime();
BENCHMARK(BM_SingleGet_QelDNSRequest)->UseManualTime();
BENCHMARK(BM_Concurrent200_BareCurl)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Concurrent200_QelDNSRequest)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    qel::platform::Console::setSink([](const std::string&) {});
    curl_global_init(CURL_GLOBAL_DEFAULT);
    server();
    return qel::bench::run(argc, argv, [](const qel::bench::MedianReporter& medians) {
        const auto ratio = [&](const char* what, const char* ours, const char* bare) {
            const auto o = medians.seconds(ours), b = medians.seconds(bare);
            if (!o || !b) return;
            std::printf("%-22s QelDNSRequest %9.1f us   bare libcurl %9.1f us   ratio %.3f\n", what,
                        *o * 1e6, *b * 1e6, *o / *b);
        };
        ratio("one GET:", "BM_SingleGet_QelDNSRequest", "BM_SingleGet_BareCurl");
        if (const auto trip = medians.seconds("BM_PlatformThreadRoundTrip")) {
            std::printf("%-22s %9.1f us (hand-off to the platform thread and back, no HTTP)\n",
                        "thread round trip:", *trip * 1e6);
        }
        ratio("200 concurrent GETs:", "BM_Concurrent200_QelDNSRequest",
              "BM_Concurrent200_BareCurl");
    });
}
