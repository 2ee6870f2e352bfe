// Resolve requests per second through the service against bare handlers that answer the same
// body, in the same run, with the same client: a kept-alive httplib::Client sending the very
// same signed request. One bare handler runs on libmicrohttpd with the service's settings, so
// the ratio is what the service itself costs; another on cpp-httplib's thread pool, the usual
// alternative. The service's side includes everything a request costs it: parsing the target,
// the account, signature and timestamp checks, the zone lookup, the JSON answer and the access
// line (written to /dev/null, a real write per request).
// Then signed logins, one after another, to the service alone and to the service while 1 000
// connections from 127.0.0.2 each hold a request head they never finish.
// Repetitions are interleaved; at the end the ratios of the medians are printed.
//
//   build/release/tools/server/server_bench
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <httplib.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AccessLog.h"
#include "BenchMain.h"
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
constexpr char kBody[] =
    R"({"host":"www.example.test","ip_list":["192.0.2.10","192.0.2.11"],"ttl":60})";
constexpr int kSlowClients = 1000;

struct Request {
    std::string target;
    httplib::Headers headers;
};

// One signed login, fresh for the run (a run is far shorter than the timestamp window).
const Request& login() {
    static const Request made = [] {
        const std::string timestamp = std::to_string(Service::systemMilliseconds());
        return Request{
            "/" + std::string(kAuthId) + "/service?timestamp=" + timestamp + "&app_id=" + kAppId,
            {{"Authorization", "MD5 " + loginSignature(kAppId, timestamp, kSecret)}}};
    }();
    return made;
}

// One signed resolve request, fresh for the run.
const Request& request() {
    static const Request made = [] {
        const std::string timestamp = std::to_string(Service::systemMilliseconds());
        return Request{
            "/" + std::string(kAuthId) + "/resolve?timestamp=" + timestamp + "&host=" + kHost +
                "&type=1&app_id=" + kAppId,
            {{"Content-Type", "application/json;charset=UTF-8"},
             {"Authorization", "MD5 " + resolveSignature(kAppId, kHost, timestamp, "1", kSecret)}}};
    }();
    return made;
}

class ServiceUnderTest {
public:
    explicit ServiceUnderTest(Listener::Limits limits = {})
        : sink_(std::fopen("/dev/null", "w")), log_(sink_, sink_) {
        Accounts accounts;
        accounts.add(kAuthId, kSecret);
        service_ = std::make_unique<Service>(
            std::move(accounts),
            Zone::parse("www.example.test 60 A 192.0.2.10\nwww.example.test 60 A 192.0.2.11\n",
                        "bench"),
            log_);
        listener_ =
            std::make_unique<Listener>(*service_, std::vector<Endpoint>{{"127.0.0.1", 0}}, limits);
        service_->setNodes({listener_->endpoints()[0].url()});
        listener_->start();
    }
    int port() const { return listener_->endpoints()[0].port; }

private:
    std::FILE* sink_;
    AccessLog log_;
    std::unique_ptr<Service> service_;
    std::unique_ptr<Listener> listener_;
};

// A bare handler on libmicrohttpd, with the service's daemon settings, one fixed answer.
class BareMicrohttpd {
public:
    BareMicrohttpd() {
        daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_USE_ITC, 0,
                                   nullptr, nullptr, &answer, nullptr, MHD_OPTION_THREAD_POOL_SIZE,
                                   16u, MHD_OPTION_CONNECTION_MEMORY_LIMIT, Listener::kHeadBytes,
                                   MHD_OPTION_END);
        port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
    }
    int port() const { return port_; }

private:
    static MHD_Result answer(void*, MHD_Connection* connection, const char*, const char*,
                             const char*, const char*, size_t*, void** context) {
        static int seen;
        if (!*context) {  // answering at the head would close the kept-alive connection
            *context = &seen;
            return MHD_YES;
        }
        MHD_Response* response = MHD_create_response_from_buffer(
            sizeof kBody - 1, const_cast<char*>(kBody), MHD_RESPMEM_MUST_COPY);
        MHD_add_response_header(response, "Content-Type", "application/json");
        const MHD_Result queued = MHD_queue_response(connection, 200, response);
        MHD_destroy_response(response);
        return queued;
    }
    MHD_Daemon* daemon_ = nullptr;
    int port_ = 0;
};

// A bare handler on cpp-httplib's thread pool, TCP_NODELAY and keep-alive as the service had them.
class BareHttplib {
public:
    BareHttplib() {
        server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
        server_.set_tcp_nodelay(true);
        server_.set_keep_alive_max_count(1000000);
        server_.Get("/acct-7/resolve", [](const httplib::Request&, httplib::Response& response) {
            response.set_content(kBody, "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    int port() const { return port_; }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

// The service with kSlowClients connections from 127.0.0.2 that each sent part of a head.
// Their deadline is far off: the run measures their presence, not their removal.
class BesiegedService {
public:
    BesiegedService() : service_(limits()) {
        sockaddr_in from{}, to{};
        from.sin_family = to.sin_family = AF_INET;
        inet_pton(AF_INET, "127.0.0.2", &from.sin_addr);
        inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
        to.sin_port = htons(static_cast<uint16_t>(service_.port()));
        for (int i = 0; i < kSlowClients; ++i) {
            const int fd = socket(AF_INET, SOCK_STREAM, 0);
            if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
                connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
                std::fprintf(stderr, "slow client %d could not connect\n", i);
                std::exit(1);
            }
            const char partial[] = "GET /acct-7/service?timestamp=1";
            send(fd, partial, sizeof partial - 1, MSG_NOSIGNAL);
        }
    }
    int port() const { return service_.port(); }

private:
    static Listener::Limits limits() {
        Listener::Limits limits;
        limits.head = std::chrono::hours(1);
        limits.connections = limits.perPeer = 2 * kSlowClients;
        return limits;
    }
    ServiceUnderTest service_;
};

int servicePort() {
    static ServiceUnderTest* service = new ServiceUnderTest;  // lives for the process
    return service->port();
}

int bareMicrohttpdPort() {
    static BareMicrohttpd* bare = new BareMicrohttpd;
    return bare->port();
}

int bareHttplibPort() {
    static BareHttplib* bare = new BareHttplib;
    return bare->port();
}

int besiegedPort() {
    static BesiegedService* service = new BesiegedService;
    return service->port();
}

void run(benchmark::State& state, int port, const Request& sent, const char* expected) {
    httplib::Client client("127.0.0.1", port);
    client.set_keep_alive(true);
    int failures = 0;
    for (auto _ : state) {
        for (int i = 0; i < kRequestsPerIteration; ++i) {
            const auto answer = client.Get(sent.target.c_str(), sent.headers);
            if (!answer || answer->status != 200 ||
                answer->body.find(expected) == std::string::npos) {
                ++failures;
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * kRequestsPerIteration);
    if (failures) state.SkipWithError("requests failed");
}

void BM_Resolve_BareHandler(benchmark::State& state) {
    run(state, bareMicrohttpdPort(), request(), "192.0.2.11");
}
void BM_Resolve_BareHttplib(benchmark::State& state) {
    run(state, bareHttplibPort(), request(), "192.0.2.11");
}
void BM_Resolve_Service(benchmark::State& state) {
    run(state, servicePort(), request(), "192.0.2.11");
}
void BM_Login_Service(benchmark::State& state) {
    run(state, servicePort(), login(), "best_service_node");
}
void BM_Login_ServiceWithSlowClients(benchmark::State& state) {
    run(state, besiegedPort(), login(), "best_service_node");
}

BENCHMARK(BM_Resolve_BareHandler)->UseRealTime()->Threads(1)->Threads(4);
BENCHMARK(BM_Resolve_BareHttplib)->UseRealTime()->Threads(1)->Threads(4);
BENCHMARK(BM_Resolve_Service)->UseRealTime()->Threads(1)->Threads(4);
BENCHMARK(BM_Login_Service)->UseRealTime();
BENCHMARK(BM_Login_ServiceWithSlowClients)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    servicePort();
    bareMicrohttpdPort();
    bareHttplibPort();
    besiegedPort();
    return qel::bench::run(argc, argv, [](const qel::bench::MedianReporter& medians) {
        const auto ratio = [&](const std::string& what, const char* ours, const char* base,
                               int threads) {
            const auto a = medians.counter(ours, "items_per_second", threads);
            const auto b = medians.counter(base, "items_per_second", threads);
            if (!a || !b) return;
            std::printf("%-40s %9.0f req/s against %9.0f req/s   ratio %.3f\n", what.c_str(), *a,
                        *b, *a / *b);
        };
        for (const int threads : {1, 4}) {
            const std::string connections = ", " + std::to_string(threads) + " conn.";
            ratio("resolve, service / bare" + connections, "BM_Resolve_Service",
                  "BM_Resolve_BareHandler", threads);
            ratio("resolve, service / bare httplib" + connections, "BM_Resolve_Service",
                  "BM_Resolve_BareHttplib", threads);
        }
        ratio("login, 1000 slow clients / none", "BM_Login_ServiceWithSlowClients",
              "BM_Login_Service", 1);
    });
}
