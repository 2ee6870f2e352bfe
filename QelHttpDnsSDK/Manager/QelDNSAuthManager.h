// The process-wide registry of the service account (AuthId, AuthSecret), of an optional custom
// service URL and of the resolve nodes handed out by the last login, with the index of the node
// in use. It sends the login itself (QelDNSAppAuth) and steps through the nodes on fail-over.
//
// Threads: every operation may be called from any thread; the fields are guarded by one mutex
// that is never held while a completion or another class runs. Login answers arrive on the
// platform thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Other/QelDNSError.h"

class QelDNSAuthManager {
public:
    /// Receives (error, nothing) on failure or (nothing, node) on success.
    using Completion =
        std::function<void(std::optional<QelDNSError> error, std::optional<std::string> node)>;

    /// The one registry of the process, made on first use and never destroyed.
    static QelDNSAuthManager& shared();

    /// Stores both credentials (copies). No check, nothing sent.
    void setupWithAuthId(std::optional<std::string> authId, std::optional<std::string> authSecret);

    /// Logs in and reports the node to use.
    /// - AuthId absent or empty: (-30000 "parameter invalid"), on the calling thread, at once;
    /// - AuthSecret absent or empty: (-30001 "parameter invalid"), likewise;
    /// - otherwise sends the login to the custom service URL when it is set and not empty, else
    ///   to QelDNS_SDK_NET_DEFAULT_BASE_URL. When the answer arrives (platform thread) its node
    ///   list replaces `hostList` in every case (a failed login clears it), the index is left
    ///   as it is, and the completion receives (error, node).
    void authWithCompletion(Completion completion);

    /// Fail-over: advances `activateHostIndex` and returns the node there, or nothing when the
    /// list has no further node. Element 0 counts as the node already in use, and there is no
    /// wrap-around, not even after a new list is stored. With no list at all the index still
    /// advances and nothing is returned.
    /// @throws std::out_of_range when a present list is too short for the advanced index (an
    ///   empty "service_node_list"): a service fault that is reported, never read past the
    ///   list. The index has then advanced.
    std::optional<std::string> getNextHost();

    std::optional<std::string> authId() const;
    void setAuthId(std::optional<std::string> authId);
    std::optional<std::string> authSecret() const;
    void setAuthSecret(std::optional<std::string> authSecret);
    std::optional<std::string> customServUrl() const;
    void setCustomServUrl(std::optional<std::string> customServUrl);
    int32_t activateHostIndex() const;
    std::optional<std::vector<std::string>> hostList() const;
    void setHostList(std::optional<std::vector<std::string>> hostList);

private:
    QelDNSAuthManager() = default;

    mutable qel::platform::Mutex mutex_;
    std::optional<std::string> authId_ QEL_GUARDED_BY(mutex_);
    std::optional<std::string> authSecret_ QEL_GUARDED_BY(mutex_);
    int32_t activateHostIndex_ QEL_GUARDED_BY(mutex_) = 0;
    std::optional<std::vector<std::string>> hostList_ QEL_GUARDED_BY(mutex_);
    std::optional<std::string> customServUrl_ QEL_GUARDED_BY(mutex_);
};
