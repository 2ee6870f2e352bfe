#include "Listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gnutls/gnutls.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "Accounts.h"  // readFile
#include "HeadDeadlines.h"

namespace qel::server {

namespace {

int localPort(int fd) {
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
    if (local.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in&>(local).sin_port);
    if (local.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6&>(local).sin6_port);
    return 0;
}

// A non-blocking listening socket on `endpoint`; throws ListenError naming why not.
int listenOn(const Endpoint& endpoint) {
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    const int status =
        getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
    if (status != 0)
        throw ListenError("cannot listen on " + endpoint.text() + ": " + gai_strerror(status));
    std::string reason = "no address";
    int fd = -1;
    for (addrinfo* at = found; at && fd < 0; at = at->ai_next) {
        fd = socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, at->ai_protocol);
        if (fd < 0) {
            reason = std::strerror(errno);
            continue;
        }
        const int yes = 1;
        // Not SO_REUSEPORT: a second server must fail to bind a busy port, not share it.
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        // Accepted connections inherit it: without it a kept-alive connection waits for the
        // peer's delayed ACK on every answer.
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        if (bind(fd, at->ai_addr, at->ai_addrlen) != 0 || listen(fd, SOMAXCONN) != 0) {
            reason = std::strerror(errno);
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    if (fd < 0) throw ListenError("cannot listen on " + endpoint.text() + ": " + reason);
    return fd;
}

// "127.0.0.1:54321", "[::1]:54321".
std::string remoteText(const sockaddr* address) {
    char host[INET6_ADDRSTRLEN] = "?";
    int port = 0;
    if (address && address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        inet_ntop(AF_INET, &v4->sin_addr, host, sizeof host);
        port = ntohs(v4->sin_port);
        return std::string(host) + ":" + std::to_string(port);
    }
    if (address && address->sa_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
        inet_ntop(AF_INET6, &v6->sin6_addr, host, sizeof host);
        port = ntohs(v6->sin6_port);
    }
    return "[" + std::string(host) + "]:" + std::to_string(port);
}

}  // namespace

Listener::Tls Listener::Tls::load(const std::string& certificateFile, const std::string& keyFile) {
    Tls tls{readFile(certificateFile), readFile(keyFile)};
    // Checked with the library that will serve them (libmicrohttpd's TLS is GnuTLS): the
    // daemon would otherwise just fail to start, without saying why.
    gnutls_certificate_credentials_t credentials = nullptr;
    int status = gnutls_certificate_allocate_credentials(&credentials);
    if (status == GNUTLS_E_SUCCESS) {
        const auto datum = [](std::string& text) {
            return gnutls_datum_t{reinterpret_cast<unsigned char*>(text.data()),
                                  static_cast<unsigned>(text.size())};
        };
        const gnutls_datum_t certificate = datum(tls.certificate), key = datum(tls.key);
        status = gnutls_certificate_set_x509_key_mem(credentials, &certificate, &key,
                                                     GNUTLS_X509_FMT_PEM);
        gnutls_certificate_free_credentials(credentials);
    }
    if (status < 0) {
        throw std::runtime_error(
            certificateFile + " and " + keyFile +
            " are not a usable PEM certificate and key: " + gnutls_strerror(status));
    }
    return tls;
}

// The daemons' callbacks. All callbacks of one connection run on the event loop that owns it,
// so a connection's state needs no lock.
struct Listener::Callbacks {
    // Made when the connection is accepted and deleted when it closes; it is also the request
    // context of each of its requests, which follow one another.
    struct Connection {
        std::string remote;
        std::string target;     // of the request under way, still escaped
        bool headSeen = false;  // the request under way has its head whole
        bool answered = false;  // ... and its answer made
        bool queued = false;    // ... and counted in answering_
    };

    static Connection* of(MHD_Connection* connection) {
        const MHD_ConnectionInfo* info =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
        return info ? static_cast<Connection*>(info->socket_context) : nullptr;
    }

    static void notify(void* cls, MHD_Connection* connection, void** context,
                       MHD_ConnectionNotificationCode code) {
        auto* listener = static_cast<Listener*>(cls);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            const MHD_ConnectionInfo* client =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
            const MHD_ConnectionInfo* socket =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            auto* state = new Connection;
            state->remote = remoteText(client ? client->client_addr : nullptr);
            *context = state;
            if (socket) listener->deadlines_->accepted(state, socket->connect_fd);
        } else if (auto* state = static_cast<Connection*>(*context)) {
            listener->deadlines_->closed(state);
            delete state;
            *context = nullptr;
        }
    }

    // Called with the request line, before the fields, with the target as it came (the access
    // handler only sees it decoded, and the service reads the escapes itself).
    static void* requestLine(void*, const char* target, MHD_Connection* connection) {
        Connection* state = of(connection);
        if (state) state->target = target;
        return state;
    }

    static MHD_Result answer(void* cls, MHD_Connection* connection, const char*, const char* method,
                             const char*, const char*, size_t* uploadSize, void** context) {
        auto* listener = static_cast<Listener*>(cls);
        auto* state = static_cast<Connection*>(*context);
        if (!state) return MHD_NO;
        if (!state->headSeen) {
            // The head is whole. The answer waits for the next call, which tells whether a
            // body follows: an answer made now would close a kept-alive connection.
            state->headSeen = true;
            listener->deadlines_->arrived(state);
            return MHD_YES;
        }
        // No request here takes a body: answer at its first bytes, and stop reading after, or
        // a client could hold the connection for as long as it sends.
        if (state->answered) return *uploadSize == 0 ? MHD_YES : MHD_NO;
        *uploadSize = 0;
        state->answered = true;

        Service::Request request;
        request.method = method;
        request.target = state->target;
        const char* authorization =
            MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Authorization");
        request.authorization = authorization ? authorization : "";
        request.remote = state->remote;
        request.headerFields = static_cast<size_t>(
            std::max(0, MHD_get_connection_values(connection, MHD_HEADER_KIND, nullptr, nullptr)));
        const Service::Reply reply = listener->service_.handle(request);

        MHD_Response* response = MHD_create_response_from_buffer(
            reply.body.size(), const_cast<char*>(reply.body.data()), MHD_RESPMEM_MUST_COPY);
        if (!response) return MHD_NO;
        MHD_add_response_header(response, "Content-Type", "application/json");
        const MHD_Result queued =
            MHD_queue_response(connection, static_cast<unsigned>(reply.status), response);
        MHD_destroy_response(response);
        if (queued == MHD_YES) {
            state->queued = true;
            ++listener->answering_;
        }
        return queued;
    }

    static void completed(void* cls, MHD_Connection*, void** context,
                          MHD_RequestTerminationCode code) {
        auto* listener = static_cast<Listener*>(cls);
        auto* state = static_cast<Connection*>(*context);
        if (!state) return;
        if (state->queued) --listener->answering_;
        state->headSeen = state->answered = state->queued = false;
        state->target.clear();
        if (code == MHD_REQUEST_TERMINATED_COMPLETED_OK) listener->deadlines_->waiting(state);
    }
};

Listener::Listener(const Service& service, const std::vector<Endpoint>& endpoints, Limits limits,
                   Tls tls)
    : service_(service),
      limits_(limits),
      tls_(std::move(tls)),
      deadlines_(std::make_unique<HeadDeadlines>(limits.head)) {
    for (const Endpoint& endpoint : endpoints) {
        try {
            sockets_.push_back(listenOn(endpoint));
        } catch (const ListenError&) {
            for (int fd : sockets_) close(fd);
            sockets_.clear();
            throw;
        }
        Endpoint bound = endpoint;
        bound.port = localPort(sockets_.back());
        bound_.push_back(bound);
    }
}

Listener::~Listener() {
    stop();
    for (int fd : sockets_) close(fd);
}

void Listener::start() {
    // The connection limit is shared out among the event loops: each needs at least one.
    const auto threads = static_cast<unsigned>(std::min(limits_.threads, limits_.connections));
    const auto idle =
        static_cast<unsigned>(std::max<long long>(1, (limits_.head.count() + 999) / 1000));
    // libmicrohttpd does TLS through GnuTLS only (Debian's build included), not the OpenSSL
    // the SDK's libcurl uses: it takes the certificate and key as PEM text. The limits below
    // hold the same under TLS, and the idle timeout also ends a handshake left unfinished.
    // Without TLS the array ends at its first item.
    const bool tls = !tls_.certificate.empty();
    const MHD_OptionItem credentials[] = {
        {tls ? MHD_OPTION_HTTPS_MEM_CERT : MHD_OPTION_END, 0,
         const_cast<char*>(tls_.certificate.c_str())},
        {MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(tls_.key.c_str())},
        {MHD_OPTION_END, 0, nullptr}};
    for (const int fd : sockets_) {
        MHD_Daemon* daemon = MHD_start_daemon(
            MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_USE_ITC |
                (tls ? MHD_USE_TLS : MHD_NO_FLAG),
            0, nullptr, nullptr, &Callbacks::answer, this, MHD_OPTION_ARRAY, credentials,
            MHD_OPTION_LISTEN_SOCKET, fd, MHD_OPTION_THREAD_POOL_SIZE, threads > 1 ? threads : 0u,
            MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(limits_.connections),
            MHD_OPTION_PER_IP_CONNECTION_LIMIT, static_cast<unsigned>(limits_.perPeer),
            MHD_OPTION_CONNECTION_TIMEOUT, idle, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kHeadBytes,
            MHD_OPTION_NOTIFY_CONNECTION, &Callbacks::notify, this, MHD_OPTION_URI_LOG_CALLBACK,
            &Callbacks::requestLine, this, MHD_OPTION_NOTIFY_COMPLETED, &Callbacks::completed, this,
            MHD_OPTION_END);
        if (!daemon) {
            const std::string where = bound_[daemons_.size()].text();
            stop();
            throw ListenError("cannot listen on " + where + ": the HTTP event loop did not start");
        }
        daemons_.push_back(daemon);
    }
}

void Listener::stop() {
    if (daemons_.empty()) return;
    for (MHD_Daemon* daemon : daemons_) MHD_quiesce_daemon(daemon);
    for (int waited = 0; answering_ > 0 && waited < 500; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (MHD_Daemon* daemon : daemons_) MHD_stop_daemon(daemon);
    daemons_.clear();
    // Quiesced, the daemons leave the listening sockets to us: closing them refuses new
    // connections from now on.
    for (int fd : sockets_) close(fd);
    sockets_.clear();
}

}  // namespace qel::server
