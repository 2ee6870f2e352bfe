// A miss over https: QelHttpDnsManager::shared() with caching off, logged in to the reference
// service serving TLS on loopback (a CA and certificate made at start with openssl), against a
// bare reused libcurl GET of the same signed resolve URL with the same CA file. Both keep their
// TLS connection alive, so what is timed is one request on an open connection, not a handshake.
// The ratio of the medians is printed after the table.
//
//   build/release/bench/tls_miss_bench
//
// The miss is timed from the call to the moment its callback runs on the platform thread, the
// bare GET to the moment curl returns (manual timing).
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BareCurlGet.h"
#include "BenchMain.h"
#include "Listener.h"
#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "QelHttpDnsSDK/QelDNSApplication.h"
#include "Service.h"
#include "support/FakeReachability.h"
#include "support/ScratchDirectory.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ips = std::optional<std::vector<std::string>>;
using namespace qel::server;

constexpr char kId[] = "acct-7";
constexpr char kSecret[] = "s3cr3t";
constexpr char kApp[] = "com.example.app";
constexpr char kDomain[] = "www.miss.example.test";
const std::vector<std::string> kAddresses = {"192.0.2.1", "192.0.2.2"};

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "tls_miss_bench: %s\n", what.c_str());
    std::exit(1);
}

// Never destroyed: the manager it sets up lives for the process. main removes the scratch
// directory.
struct Fixture {
    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
    std::FILE* devNull = std::fopen("/dev/null", "a");
    AccessLog log{devNull, devNull};
    Service service{Accounts::parse(std::string(kId) + " " + kSecret + "\n", "accounts"),
                    Zone::parse(std::string(kDomain) + " 60 A " + kAddresses[0] + "\n" + kDomain +
                                    " 60 A " + kAddresses[1] + "\n",
                                "zone"),
                    log};
    std::optional<Listener> listener;
    std::string ca = scratch.file("ca.pem"), url;

    Fixture() {
        if (std::system(("(cd " + scratch.path() +
                         " && k='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -x509'"
                         " && openssl req $k -keyout ca.key -out ca.pem -subj /CN=ca && openssl"
                         " req $k -keyout key.pem -out cert.pem -subj /CN=127.0.0.1 -addext"
                         " subjectAltName=IP:127.0.0.1 -CA ca.pem -CAkey ca.key) >/dev/null 2>&1")
                            .c_str()) != 0) {
            fail("openssl could not make the certificates (Debian package openssl)");
        }
        listener.emplace(service, std::vector<Endpoint>{{"127.0.0.1", 0}}, Listener::Limits{},
                         Listener::Tls::load(scratch.file("cert.pem"), scratch.file("key.pem")));
        url = listener->endpoints()[0].url(true);
        service.setNodes({url});
        listener->start();

        qel::platform::Console::setSink([](const std::string&) {});
        qel::platform::MainBundle::setIdentifier(kApp);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        QelDNSApplication::setCaFile(ca);
        QelHttpDnsManager& dns = QelHttpDnsManager::shared();
        dns.customServerUrl(url);
        dns.enableCacheIP(false);  // every lookup asks the service
        dns.registerAuthId(std::string(kId), std::string(kSecret));
        for (int i = 0; i < 2000 && dns.initStatus() != 4; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (dns.initStatus() != 4) fail("the login over https did not succeed");
    }
};

Fixture& fixture() {
    static Fixture* const instance = new Fixture();
    return *instance;
}

void BM_TlsMiss_BareCurl(benchmark::State& state) {
    const double timestamp = qel::platform::Clock::currentTime() * 1000.0;
    qel::bench::BareCurlGet get(
        fixture().url + "/" + kId +
            "/resolve?timestamp=" + std::to_string(static_cast<int64_t>(timestamp)) +
            "&host=" + kDomain + "&type=1&app_id=" + kApp,
        "MD5 " + QelDNSGetIPs::calcSignWithAuthSecret(std::string(kSecret), timestamp,
                                                      std::string(kDomain), 1));
    curl_easy_setopt(get.easy(), CURLOPT_CAINFO, fixture().ca.c_str());
    int failures = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const CURLcode result = curl_easy_perform(get.easy());
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        const std::string body = get.takeBody();
        if (result != CURLE_OK || get.status() != 200 ||
            body.find(kAddresses[1]) == std::string::npos) {
            ++failures;
        }
    }
    if (failures) state.SkipWithError("requests failed");
}

void BM_TlsMiss_getIPV4ByDomain(benchmark::State& state) {
    fixture();
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const std::optional<std::string> domain = kDomain;
    // Shared with callbacks that may run late: it lives for the process.
    struct Answer {
        std::mutex mutex;
        std::condition_variable changed;
        bool done = false, ok = false;
        Clock::time_point at;
    };
    static Answer answer;
    int failures = 0;
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(answer.mutex);
        answer.done = false;
        lock.unlock();
        const auto start = Clock::now();
        dns.getIPV4ByDomain(domain, [](std::optional<QelDNSError>, Ips ips) {
            std::lock_guard<std::mutex> guard(answer.mutex);
            answer.done = true;
            answer.ok = ips && *ips == kAddresses;
            answer.at = Clock::now();
            answer.changed.notify_one();
        });
        lock.lock();
        if (!answer.changed.wait_for(lock, std::chrono::seconds(20), [] { return answer.done; }) ||
            !answer.ok) {
            ++failures;
        }
        state.SetIterationTime(std::chrono::duration<double>(answer.at - start).count());
    }
    if (failures) state.SkipWithError("lookups failed");
}

BENCHMARK(BM_TlsMiss_BareCurl)->UseManualTime();
BENCHMARK(BM_TlsMiss_getIPV4ByDomain)->UseManualTime();

void report(const qel::bench::MedianReporter& medians) {
    qel::bench::printRatio("https miss, cacheIP off / bare libcurl GET over https:",
                           qel::bench::divide(medians.seconds("BM_TlsMiss_getIPV4ByDomain"),
                                              medians.seconds("BM_TlsMiss_BareCurl")),
                           "<= 1.1x");
}

}  // namespace

int main(int argc, char** argv) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    fixture();
    const int status = qel::bench::run(argc, argv, report, 7);
    std::filesystem::remove_all(fixture().scratch.path());
    return status;
}
