// The few calls the manager and the resolver make to follow a lookup for the trace observer.
// Each starts with one relaxed load (`active`) and does nothing more while no observer is
// installed, so an untraced lookup pays only that load.
#pragma once

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSLookupRecorder.h"
#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"
#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"

namespace QelDNSTraceHooks {

/// Whether an observer is installed now.
inline bool active() { return QelDNSTraceHub::shared().active(); }

/// The trace a lookup's callback carries; null when untraced.
QelDNSLookupRecorder* traceOf(const QelHttpDnsManager::ReturnBlock& callback);
/// The trace a resolver completion carries; null when untraced.
QelDNSLookupRecorder* traceOf(const QelHttpDnsCenterManager::RecordsCompletion& completion);

/// The trace of `callback` while an observer is installed, else null.
inline QelDNSLookupRecorder* tracedOrNull(const QelHttpDnsManager::ReturnBlock& callback) {
    return active() ? traceOf(callback) : nullptr;
}
inline QelDNSLookupRecorder* tracedOrNull(
    const QelHttpDnsCenterManager::RecordsCompletion& completion) {
    return active() ? traceOf(completion) : nullptr;
}

/// `completion`, carrying `trace` along when there is one.
QelHttpDnsCenterManager::RecordsCompletion carry(QelDNSLookupRecorder* trace,
                                                 QelHttpDnsCenterManager::RecordsCompletion completion);

}  // namespace QelDNSTraceHooks
