// A lookup's callback with its trace attached: the form an application's callback takes
// while an observer is installed. Finishes the trace, then calls the application's callback
// with the same arguments (an empty one is skipped). The resolver finds the trace again by
// this type (std::function::target), wherever the callback has travelled.
#pragma once

#include <memory>
#include <utility>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSLookupRecorder.h"

class QelDNSTracedBlock {
public:
    QelDNSTracedBlock(std::shared_ptr<QelDNSLookupRecorder> recorder,
                      QelHttpDnsManager::ReturnBlock inner)
        : recorder_(std::move(recorder)), inner_(std::move(inner)) {}

    void operator()(std::optional<QelDNSError> error,
                    std::optional<std::vector<std::string>> ips) const {
        recorder_->finish(error);
        if (inner_) inner_(std::move(error), std::move(ips));
    }

    QelDNSLookupRecorder* recorder() const { return recorder_.get(); }

private:
    std::shared_ptr<QelDNSLookupRecorder> recorder_;
    QelHttpDnsManager::ReturnBlock inner_;
};
