// Resolve requests per second through the service against a bare cpp-httplib handler that
// answers the same body, in the same run, with the same client: a kept-alive httplib::Client
// sending the very same signed request. The service's side includes everything a request
// costs it: parsing the target, the account, signature and timestamp checks, the zone lookup,
// the JSON answer and the access line (written to /dev/null, a real write per request).
// Repetitions of the two sides are interleaved; at the end the ratio of the medians is printed
// (service requests per second / bare requests per second).
//
//   build/release/tools/server/server_bench
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AccessLog.h"
#include "Listener.h"
#include "Service.h"
#include "Signature.h"

using namespace qel::server;

namespace {

constexpr char kAuthId[] = "acct-7";
constexpr char kSecret[] = "s3cr3t";
constexpr char kAppId[] = "com.example.app";
constexpr char kHost[] = "www.example.test";
constexpr int kRequestsPerIteration = 100;

struct Request {
    std::string target;
    httplib::Headers headers;
};

// One signed request, fresh for the run (a run is far shorter than the timestamp window).
const Request& request() {
    static const Request made = [] {
        const std::string timestamp = std::to_string(Service::systemMilliseconds());
        return Request{"/" + std::string(kAuthId) + "/resolve?timestamp=" + timestamp + "&host=" + kHost +
                           "&type=1&app_id=" + kAppId,
                       {{"Content-Type", "application/json;charset=UTF-8"},
                        {"Authorization", "MD5 " + resolveSignature(kAppId, kHost, timestamp, "1", kSecret)}}};
    }();
    return made;
}

class ServiceUnderTest {
public:
    ServiceUnderTest() : sink_(std::fopen("/dev/null", "w")), log_(sink_, sink_) {
        Accounts accounts;
        accounts.add(kAuthId, kSecret);
        service_ = std::make_unique<Service>(
            std::move(accounts),
            Zone::parse("www.example.test 60 A 192.0.2.10\nwww.example.test 60 A 192.0.2.11\n", "bench"), log_);
        listener_ = std::make_unique<Listener>(*service_, std::vector<Endpoint>{{"127.0.0.1", 0}},
                                               Listener::Limits{});
        listener_->start();
    }
    int port() const { return listener_->endpoints()[0].port; }

private:
    std::FILE* sink_;
    AccessLog log_;
    std::unique_ptr<Service> service_;
    std::unique_ptr<Listener> listener_;
};

// The bare side: the same library, the same connection settings, one fixed answer.
class BareServer {
public:
    BareServer() {
        server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
        server_.set_tcp_nodelay(true);
        server_.set_keep_alive_max_count(1000000);
        server_.Get("/acct-7/resolve", [](const httplib::Request&, httplib::Response& response) {
            response.set_content(R"({"host":"www.example.test","ip_list":["192.0.2.10","192.0.2.11"],"ttl":60})",
                                 "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~BareServer() {
        server_.stop();
        thread_.join();
    }
    int port() const { return port_; }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

int servicePort() {
    static ServiceUnderTest* service = new ServiceUnderTest;  // lives for the process
    return service->port();
}

int barePort() {
    static BareServer* bare = new BareServer;
    return bare->port();
}

void run(benchmark::State& state, int port) {
    httplib::Client client("127.0.0.1", port);
    client.set_keep_alive(true);
    const Request& sent = request();
    int failures = 0;
    for (auto _ : state) {
        for (int i = 0; i < kRequestsPerIteration; ++i) {
            const auto answer = client.Get(sent.target.c_str(), sent.headers);
            if (!answer || answer->status != 200 || answer->body.find("192.0.2.11") == std::string::npos) {
                ++failures;
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * kRequestsPerIteration);
    if (failures) state.SkipWithError("requests failed");
}

void BM_Resolve_BareHandler(benchmark::State& state) { run(state, barePort()); }
void BM_Resolve_Service(benchmark::State& state) { run(state, servicePort()); }

BENCHMARK(BM_Resolve_BareHandler)->UseRealTime()->Threads(1)->Threads(4);
BENCHMARK(BM_Resolve_Service)->UseRealTime()->Threads(1)->Threads(4);

// Prints as usual and keeps the median requests per second of each benchmark for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") {
                continue;
            }
            const auto rate = run.counters.find("items_per_second");
            if (rate == run.counters.end()) continue;
            std::string name = run.benchmark_name();  // "BM_Resolve_Service/real_time/threads:4_median"
            const std::string side = name.substr(0, name.find('/'));
            const std::string threads = name.substr(name.find("threads:") + 8);
            medians_[side + "/" + threads.substr(0, threads.find('_'))] = rate->second.value;
        }
    }

    void printRatio(const std::string& threads) const {
        const auto ours = medians_.find("BM_Resolve_Service/" + threads);
        const auto bare = medians_.find("BM_Resolve_BareHandler/" + threads);
        if (ours == medians_.end() || bare == medians_.end()) return;
        std::printf("%s connection(s): service %8.0f req/s   bare handler %8.0f req/s   ratio %.3f\n",
                    threads.c_str(), ours->second, bare->second, ours->second / bare->second);
    }

private:
    std::map<std::string, double> medians_;
};

}  // namespace

int main(int argc, char** argv) {
    // Defaults first, so that flags given on the command line win.
    std::vector<char*> args{argv[0]};
    std::string defaults[] = {"--benchmark_repetitions=9", "--benchmark_enable_random_interleaving=true",
                              "--benchmark_min_time=0.2"};
    for (auto& flag : defaults) args.push_back(flag.data());
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    servicePort();
    barePort();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nMedians of the repetitions (requests per second):\n");
    reporter.printRatio("1");
    reporter.printRatio("4");
    benchmark::Shutdown();
    return 0;
}
