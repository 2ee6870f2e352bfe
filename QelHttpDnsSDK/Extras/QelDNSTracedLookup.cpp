#include "QelHttpDnsSDK/Extras/QelDNSTracedLookup.h"

#include <utility>

#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"
#include "QelHttpDnsSDK/Extras/QelDNSTracedBlock.h"

namespace {

// The recorder of this thread's last lookup that was answered without leaving the thread: the
// next lookup reuses it, and with it its strings' storage, instead of allocating them again.
thread_local std::shared_ptr<QelDNSLookupRecorder> spareRecorder;

}  // namespace

QelDNSTracedLookup::QelDNSTracedLookup(const std::optional<std::string>& domain, int64_t type,
                                       QelHttpDnsManager::ReturnBlock& callback) {
    QelDNSTraceHub::Installation* const installation = QelDNSTraceHub::shared().current();
    if (!installation) return;
    if (spareRecorder && spareRecorder.use_count() == 1) {
        recorder_ = std::move(spareRecorder);
        recorder_->restart(installation, domain, type);
    } else {
        recorder_ = std::make_shared<QelDNSLookupRecorder>(installation, domain, type);
    }
    callback = QelDNSTracedBlock(recorder_, std::move(callback));
}

// Only this thread has touched the trace unless it was handed off, so reading it here needs
// no more than the recorder's own flags. A recorder handed off belongs to the platform thread
// now and is never reused.
QelDNSTracedLookup::~QelDNSTracedLookup() {
    if (!recorder_) return;
    if (!recorder_->handedOffOrFinished()) recorder_->finishUnanswered();
    if (!recorder_->handedOff()) spareRecorder = std::move(recorder_);
}
