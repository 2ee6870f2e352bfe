#include "Upstream.h"

#include <ares.h>
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <poll.h>

#include <algorithm>
#include <stdexcept>

namespace qel::server {

namespace {

constexpr int kMaxRecords = 64;

void initialiseLibraryOnce() {
    static const int status = ares_library_init(ARES_LIB_INIT_ALL);
    if (status != ARES_SUCCESS) {
        throw std::runtime_error(std::string("c-ares: ") + ares_strerror(status));
    }
}

struct Lookup {
    AddressType type = AddressType::V4;
    bool done = false;
    Upstream::Result result;
};

void finish(void* argument, int status, int /*timeouts*/, unsigned char* answer, int length) {
    auto& lookup = *static_cast<Lookup*>(argument);
    lookup.done = true;
    Upstream::Result& result = lookup.result;
    if (status == ARES_ENOTFOUND || status == ARES_ENODATA) {
        result.kind = Upstream::Result::NoAddress;
        return;
    }
    if (status != ARES_SUCCESS) {
        result.kind = Upstream::Result::Failed;
        result.error = ares_strerror(status);
        return;
    }
    char text[INET6_ADDRSTRLEN];
    int count = kMaxRecords;
    int parsed;
    std::vector<std::pair<std::string, int>> records;
    if (lookup.type == AddressType::V4) {
        ares_addrttl found[kMaxRecords];
        parsed = ares_parse_a_reply(answer, length, nullptr, found, &count);
        for (int i = 0; parsed == ARES_SUCCESS && i < count; ++i) {
            inet_ntop(AF_INET, &found[i].ipaddr, text, sizeof text);
            records.emplace_back(text, found[i].ttl);
        }
    } else {
        ares_addr6ttl found[kMaxRecords];
        parsed = ares_parse_aaaa_reply(answer, length, nullptr, found, &count);
        for (int i = 0; parsed == ARES_SUCCESS && i < count; ++i) {
            inet_ntop(AF_INET6, &found[i].ip6addr, text, sizeof text);
            records.emplace_back(text, found[i].ttl);
        }
    }
    if (parsed == ARES_ENODATA || (parsed == ARES_SUCCESS && records.empty())) {
        result.kind = Upstream::Result::NoAddress;
        return;
    }
    if (parsed != ARES_SUCCESS) {
        result.kind = Upstream::Result::Failed;
        result.error = std::string("unreadable answer: ") + ares_strerror(parsed);
        return;
    }
    result.kind = Upstream::Result::Answer;
    result.addresses.ttl = records.front().second;
    for (const auto& [address, ttl] : records) {
        result.addresses.ttl = std::min(result.addresses.ttl, ttl);
        result.addresses.addresses.push_back(address);
    }
}

}  // namespace

struct Upstream::Channel {
    ares_channel channel = nullptr;
    ~Channel() {
        if (channel) ares_destroy(channel);
    }
};

Upstream::Upstream(const Endpoint& server, int timeoutMs) : server_(server), timeoutMs_(timeoutMs) {
    initialiseLibraryOnce();
    giveBack(borrow());  // refuses a bad server now rather than on the first lookup
}

Upstream::~Upstream() = default;

std::unique_ptr<Upstream::Channel> Upstream::borrow() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!idle_.empty()) {
            auto channel = std::move(idle_.back());
            idle_.pop_back();
            return channel;
        }
    }
    auto made = std::make_unique<Channel>();
    ares_options options{};
    // Two tries: the second waits twice as long, so the two together take about timeoutMs_.
    options.timeout = std::max(1, timeoutMs_ / 3);
    options.tries = 2;
    int status = ares_init_options(&made->channel, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES);
    if (status != ARES_SUCCESS)
        throw std::runtime_error(std::string("c-ares: ") + ares_strerror(status));
    status = ares_set_servers_ports_csv(made->channel, server_.text().c_str());
    if (status != ARES_SUCCESS) {
        throw std::runtime_error("upstream " + server_.text() + ": " + ares_strerror(status));
    }
    return made;
}

void Upstream::giveBack(std::unique_ptr<Channel> channel) {
    std::lock_guard<std::mutex> lock(mutex_);
    idle_.push_back(std::move(channel));
}

Upstream::Result Upstream::resolve(const std::string& name, AddressType type) {
    auto channel = borrow();
    Lookup lookup;
    lookup.type = type;
    ares_query(channel->channel, name.c_str(), ns_c_in,
               type == AddressType::V4 ? ns_t_a : ns_t_aaaa, &finish, &lookup);
    while (!lookup.done) {
        ares_socket_t sockets[ARES_GETSOCK_MAXNUM];
        const int bits = ares_getsock(channel->channel, sockets, ARES_GETSOCK_MAXNUM);
        pollfd fds[ARES_GETSOCK_MAXNUM];
        nfds_t count = 0;
        for (int i = 0; i < ARES_GETSOCK_MAXNUM; ++i) {
            const bool readable = ARES_GETSOCK_READABLE(bits, i),
                       writable = ARES_GETSOCK_WRITABLE(bits, i);
            if (!readable && !writable) continue;
            fds[count++] = {sockets[i],
                            static_cast<short>((readable ? POLLIN : 0) | (writable ? POLLOUT : 0)),
                            0};
        }
        timeval wait{};
        ares_timeout(channel->channel, nullptr, &wait);
        const int ready =
            poll(fds, count, static_cast<int>(wait.tv_sec * 1000 + wait.tv_usec / 1000) + 1);
        if (ready <= 0) {
            ares_process_fd(channel->channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);  // time-outs
            continue;
        }
        for (nfds_t i = 0; i < count; ++i) {
            if (!fds[i].revents) continue;
            const bool in = fds[i].revents & (POLLIN | POLLERR | POLLHUP);
            const bool out = fds[i].revents & POLLOUT;
            ares_process_fd(channel->channel, in ? fds[i].fd : ARES_SOCKET_BAD,
                            out ? fds[i].fd : ARES_SOCKET_BAD);
        }
    }
    giveBack(std::move(channel));
    return lookup.result;
}

}  // namespace qel::server
