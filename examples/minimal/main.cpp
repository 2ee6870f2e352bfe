// Registers with the resolution service, looks up one domain and prints its IPv4 addresses.
//   minimal <service-url> <auth-id> <auth-secret> <domain>
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>

#include <QelHttpDnsSDK/QelHttpDnsSDK.h>

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s <service-url> <auth-id> <auth-secret> <domain>\n", argv[0]);
        return 2;
    }
    QelDNSApplication::setBundleIdentifier("com.example.minimal");
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.customServerUrl(std::string(argv[1]));
    dns.registerAuthId(std::string(argv[2]), std::string(argv[3]));
    // The login runs in the background: give it up to five seconds (4: logged in, 3: failed).
    for (int i = 0; i < 50 && dns.initStatus() != 4 && dns.initStatus() != 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }

    std::promise<int> done;
    dns.getIPV4ByDomain(std::string(argv[4]), [&done](std::optional<QelDNSError> error,
                                                      std::optional<std::vector<std::string>> ips) {
        if (error)
            std::fprintf(stderr, "error %lld: %s\n", static_cast<long long>(error->code()),
                         error->localizedDescription().c_str());
        if (ips)
            for (const std::string& ip : *ips) std::printf("%s\n", ip.c_str());
        done.set_value(error ? 1 : 0);
    });
    std::future<int> result = done.get_future();
    if (result.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return 1;
    return result.get();
}
