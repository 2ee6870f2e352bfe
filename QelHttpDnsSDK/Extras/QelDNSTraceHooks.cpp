#include "QelHttpDnsSDK/Extras/QelDNSTraceHooks.h"

#include <utility>

#include "QelHttpDnsSDK/Extras/QelDNSTracedBlock.h"
#include "QelHttpDnsSDK/Extras/QelDNSTracedRecords.h"

namespace QelDNSTraceHooks {

QelDNSLookupRecorder* traceOf(const QelHttpDnsManager::ReturnBlock& callback) {
    const auto* traced = callback.target<QelDNSTracedBlock>();
    return traced ? traced->recorder() : nullptr;
}

QelDNSLookupRecorder* traceOf(const QelHttpDnsCenterManager::RecordsCompletion& completion) {
    const auto* traced = completion.target<QelDNSTracedRecords>();
    return traced ? traced->recorder() : nullptr;
}

QelHttpDnsCenterManager::RecordsCompletion carry(
    QelDNSLookupRecorder* trace, QelHttpDnsCenterManager::RecordsCompletion completion) {
    if (!trace) return completion;
    return QelDNSTracedRecords(trace->shared_from_this(), std::move(completion));
}

}  // namespace QelDNSTraceHooks
