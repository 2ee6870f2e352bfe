// qel-httpdns-server: wires the command line, the files, the signals and the listeners.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include "AccessLog.h"
#include "Accounts.h"
#include "Listener.h"
#include "Options.h"
#include "Service.h"
#include "Upstream.h"
#include "Zone.h"

using namespace qel::server;

namespace {

constexpr int kBadConfiguration = 2;
constexpr int kCannotListen = 3;

int fail(int status, const std::string& message) {
    std::cerr << "qel-httpdns-server: " << message << "\n";
    return status;
}

void reload(const Options& options, Service& service, AccessLog& log) {
    try {
        Accounts accounts = Accounts::load(options.accountsFile);
        const size_t count = accounts.size();
        log.message("accounts reloaded: " + std::to_string(count) + (count == 1 ? " account" : " accounts"));
        service.setAccounts(std::move(accounts));
    } catch (const std::exception& error) {
        log.message(std::string("accounts not reloaded, the previous ones stay: ") + error.what());
    }
    if (options.zoneFile.empty()) return;
    try {
        Zone zone = Zone::load(options.zoneFile);
        log.message("zone reloaded: " + std::to_string(zone.names()) + " names");
        service.setZone(std::move(zone));
    } catch (const std::exception& error) {
        log.message(std::string("zone not reloaded, the previous one stays: ") + error.what());
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        options = parseOptions(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& error) {
        return fail(kBadConfiguration, std::string(error.what()) + " (see --help)");
    }
    if (options.help) {
        std::cout << usage();
        return 0;
    }

    std::FILE* accessFile = stdout;
    if (options.accessLog != "-" && !(accessFile = std::fopen(options.accessLog.c_str(), "a"))) {
        return fail(kBadConfiguration,
                    options.accessLog + ": cannot open: " + std::strerror(errno));
    }
    AccessLog log(accessFile, stderr);
    std::unique_ptr<Service> service;
    Listener::Tls tls;
    try {
        if (options.tls()) tls = Listener::Tls::load(options.tlsCertFile, options.tlsKeyFile);
        Accounts accounts = Accounts::load(options.accountsFile);
        Zone zone = options.zoneFile.empty() ? Zone() : Zone::load(options.zoneFile);
        service = std::make_unique<Service>(std::move(accounts), std::move(zone), log);
        if (options.upstream) {
            service->setUpstream(
                std::make_unique<Upstream>(*options.upstream, options.upstreamTimeoutMs));
        }
    } catch (const std::exception& error) {
        return fail(kBadConfiguration, error.what());
    }
    service->setWindow(std::chrono::seconds(options.windowSeconds));

    // Every thread made from here on inherits the mask: the signals are taken only by sigwait.
    sigset_t handled;
    sigemptyset(&handled);
    for (int signal : {SIGHUP, SIGINT, SIGTERM}) sigaddset(&handled, signal);
    pthread_sigmask(SIG_BLOCK, &handled, nullptr);
    ::signal(SIGPIPE, SIG_IGN);  // a client gone mid-answer is the write's error, not a stop

    // Every open connection is a descriptor: take all the system allows this process.
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    Listener::Limits limits;
    limits.threads = options.threads;
    limits.head = std::chrono::seconds(options.headTimeoutSeconds);
    limits.connections = options.maxConnections;
    limits.perPeer = options.maxPerPeer;
    std::unique_ptr<Listener> listener;
    try {
        listener =
            std::make_unique<Listener>(*service, options.listeners(), limits, std::move(tls));
    } catch (const ListenError& error) {
        return fail(kCannotListen, error.what());
    }
    const std::vector<std::string> nodes = options.nodeList(listener->endpoints());
    service->setNodes(nodes);
    try {
        listener->start();
    } catch (const ListenError& error) {
        return fail(kCannotListen, error.what());
    }

    std::string listening, handedOut;
    for (const Endpoint& endpoint : listener->endpoints())
        listening += " " + endpoint.url(options.tls());
    for (const std::string& node : nodes) handedOut += " " + node;
    log.message("listening on" + listening + "; resolve nodes:" + handedOut +
                (options.upstream ? "; upstream DNS " + options.upstream->text() : ""));

    for (;;) {
        int signal = 0;
        if (sigwait(&handled, &signal) != 0) continue;
        if (signal == SIGHUP) {
            reload(options, *service, log);
            continue;
        }
        log.message(std::string("stopping on ") + strsignal(signal));
        listener->stop();
        log.message("stopped");
        return 0;
    }
}
