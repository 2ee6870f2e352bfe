// The resolver's records completion of a traced lookup: calls the inner completion unchanged
// and carries the trace through retries and node switches, where the resolver finds it by
// this type (std::function::target).
#pragma once

#include <memory>
#include <utility>

#include "QelHttpDnsSDK/Extras/QelDNSLookupRecorder.h"
#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"

class QelDNSTracedRecords {
public:
    QelDNSTracedRecords(std::shared_ptr<QelDNSLookupRecorder> recorder,
                        QelHttpDnsCenterManager::RecordsCompletion inner)
        : recorder_(std::move(recorder)), inner_(std::move(inner)) {}

    void operator()(std::optional<QelDNSError> error, QelDNSIPModelListRef records) const {
        if (inner_) inner_(std::move(error), std::move(records));
    }

    QelDNSLookupRecorder* recorder() const { return recorder_.get(); }

private:
    std::shared_ptr<QelDNSLookupRecorder> recorder_;
    QelHttpDnsCenterManager::RecordsCompletion inner_;
};
