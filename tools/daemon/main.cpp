// qel-httpdnsd: the SDK hosted once for the machine, answering every program through a Unix
// socket (the name-service module libnss_qelhttpdns and `qeldns --daemon`) and, when
// configured, a DNS stub. See qel-httpdnsd(8).
#include <signal.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include <arpa/inet.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "DaemonConfig.h"
#include "DnsStub.h"
#include "ResolveServer.h"
#include "SdkResolver.h"

namespace {

using qel::daemon::DaemonConfig;

constexpr char kUsage[] =
    "Usage: qel-httpdnsd [--config FILE]\n"
    "\n"
    "Resolves names for every program of the machine through the HTTP name-resolution\n"
    "service: one login, one cache, answers on a Unix socket (and a DNS stub when configured).\n"
    "\n"
    "  --config FILE   the configuration (default /etc/qel-httpdns/qel-httpdnsd.conf)\n"
    "  -h, --help      this text\n"
    "\n"
    "Signals: SIGHUP reloads the configuration (a file that does not load leaves the old one in\n"
    "place, and says why); SIGTERM and SIGINT stop. Exit status: 0 after a stop by signal, 2 for\n"
    "a bad command line or configuration, 3 when the socket cannot be listened on.\n";

// One line per write(2) on standard error, whole even when threads log at once; the journal
// adds the time.
void log(const std::string& line) {
    std::string out = "qel-httpdnsd: " + line + "\n";
    if (::write(STDERR_FILENO, out.data(), out.size()) < 0) {
    }
}

// What a reload cannot change while running.
void sayWhatNeedsARestart(const DaemonConfig& was, const DaemonConfig& now) {
    const std::pair<const char*, bool> changes[] = {
        {"service_url", was.serviceUrl != now.serviceUrl},
        {"auth_id", was.authId != now.authId},
        {"auth_secret_file", was.authSecret != now.authSecret},
        {"app_id", was.appId != now.appId},
        {"socket", was.socket != now.socket},
        {"store", was.store != now.store},
        {"dns_listen", was.dnsListen != now.dnsListen},
        {"dns_upstream", was.dnsUpstream != now.dnsUpstream},
    };
    for (const auto& [key, changed] : changes) {
        if (changed) log(std::string("reload: ") + key + " changed; it takes effect at the next start");
    }
}

// Questions of the DNS stub being resolved: the resolver must outlive them.
std::atomic<int> stubQuestions{0};

// A resolver's answer as the DNS stub takes it.
qel::daemon::StubAnswer stubAnswer(const qel::daemon::ResolveAnswer& answer) {
    using qel::daemon::StubAnswer;
    StubAnswer stub;
    stub.kind = answer.status == QEL_STATUS_ANSWERED    ? StubAnswer::Addresses
                : answer.status == QEL_STATUS_NOT_FOUND ? StubAnswer::NoName
                                                        : StubAnswer::Failure;
    for (const auto& address : answer.addresses) {
        char text[INET6_ADDRSTRLEN];
        const int af = address.family == QEL_FAMILY_V4 ? AF_INET : AF_INET6;
        if (inet_ntop(af, address.bytes.data(), text, sizeof text)) stub.addresses.emplace_back(text, address.ttl);
    }
    return stub;
}

// The DNS stub, when dns_listen asks for one. Its resolver must not block the stub's thread: a
// cached name is answered at once, any other question waited for on a thread of its own,
// bounded by the stub's questions in flight.
std::unique_ptr<qel::daemon::DnsStub> startStub(const DaemonConfig& config, qel::daemon::SdkResolver& sdk) {
    using qel::daemon::StubAnswer;
    qel::daemon::DnsStub::Options options;
    options.listen = config.dnsListen;
    options.forward = config.dnsUpstream != "refuse";
    if (options.forward && config.dnsUpstream != "resolv.conf") options.upstream = config.dnsUpstream;
    options.resolveTimeout = std::chrono::milliseconds(static_cast<int64_t>(config.timeout * 1000) + 100);
    auto resolve = [&sdk, millis = static_cast<uint32_t>(config.timeout * 1000)](
                       const std::string& name, int family, std::function<void(StubAnswer)> done) {
        std::shared_ptr<qel::daemon::Resolution> resolution = sdk.begin({family, millis, name});
        if (resolution->ready()) return done(stubAnswer(resolution->answer()));
        ++stubQuestions;
        std::thread([resolution, done = std::move(done)] {
            done(stubAnswer(resolution->answer()));
            --stubQuestions;
        }).detach();
    };
    auto stub = std::make_unique<qel::daemon::DnsStub>(options, resolve);
    stub->start();
    return stub;
}

}  // namespace

int main(int argc, char** argv) {
    std::string path = DaemonConfig::kDefaultPath;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--config" && i + 1 < argc) {
            path = argv[++i];
        } else {
            std::fprintf(stderr, "qel-httpdnsd: unknown argument \"%s\"\n%s", arg.c_str(), kUsage);
            return 2;
        }
    }
    std::string error;
    std::optional<DaemonConfig> config = DaemonConfig::load(path, error);
    if (!config) {
        log(error);
        return 2;
    }
    // Signals are taken by sigwait on this thread only: every thread made later inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGHUP, SIGTERM, SIGINT}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    qel::daemon::SdkResolver sdk(*config, log);
    qel::daemon::ResolveServer server(
        [&sdk](const qel::daemon::ResolveRequest& request) { return sdk.begin(request); }, log);
    if (!server.start(config->socket, config->maxPerPeer, error)) {
        log(error);
        return 3;
    }
    std::unique_ptr<qel::daemon::DnsStub> stub;
    if (!config->dnsListen.empty()) {
        try {
            stub = startStub(*config, sdk);
        } catch (const std::exception& failure) {
            log(std::string("DNS stub: ") + failure.what());
            return 3;
        }
        log("DNS stub on " + config->dnsListen);
    }
    log("answering on " + config->socket);
    sd_notify(0, "READY=1\nSTATUS=answering");
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0) continue;
        if (signal != SIGHUP) {
            log(std::string("stopping on ") + strsignal(signal));
            sd_notify(0, "STOPPING=1");
            break;
        }
        sd_notify(0, "RELOADING=1");
        std::optional<DaemonConfig> next = DaemonConfig::load(path, error);
        if (!next) {
            log("reload: " + error + "; the configuration in use is kept");
        } else {
            sayWhatNeedsARestart(*config, *next);
            sdk.apply(*next);
            server.setMaxPerPeer(next->maxPerPeer);
            config = std::move(next);
            log("reloaded " + path);
        }
        sd_notify(0, "READY=1");
    }
    if (stub) stub->stop();
    server.stop();
    // Each question ends within the lookup's deadline.
    for (int waited = 0; stubQuestions.load() > 0 && waited < 100 * (config->timeout + 1); ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    log("stopped");
    return 0;  // the store writes what it still holds at exit
}
