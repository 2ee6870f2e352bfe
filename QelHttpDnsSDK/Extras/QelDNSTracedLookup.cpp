#include "QelHttpDnsSDK/Extras/QelDNSTracedLookup.h"

#include <utility>

#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"
#include "QelHttpDnsSDK/Extras/QelDNSTracedBlock.h"

QelDNSTracedLookup::QelDNSTracedLookup(const std::optional<std::string>& domain, int64_t type,
                                       QelHttpDnsManager::ReturnBlock& callback) {
    const uint64_t installation = QelDNSTraceHub::shared().installation();
    if (installation == 0) return;
    recorder_ = std::make_shared<QelDNSLookupRecorder>(installation, domain, type);
    callback = QelDNSTracedBlock(recorder_, std::move(callback));
}

// Only this thread has touched the trace unless it was handed off, so reading it here needs
// no more than the recorder's own flags.
QelDNSTracedLookup::~QelDNSTracedLookup() {
    if (recorder_ && !recorder_->handedOffOrFinished()) recorder_->finishUnanswered();
}
