#include "QelHttpDnsSDK/Manager/QelDNSCachedList.h"

#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

static_assert(sizeof(QelDNSCachedList) % alignof(double) == 0, "records follow the header");

void QelDNSCachedList::destroy(QelDNSCachedList* list) {
    list->~QelDNSCachedList();
    ::operator delete(list);
}

QelDNSCachedList::Ref QelDNSCachedList::make(const QelDNSIPModelList& records) {
    // Sizes first: one allocation for the header, the records and every text.
    size_t count = 0, textBytes = 0;
    const std::optional<std::string>* previousDomain = nullptr;
    for (const auto& record : records) {
        if (!record) continue;
        ++count;
        if (record->ip()) textBytes += sizeof(uint32_t) + record->ip()->size();
        const auto& domain = record->domain();
        if (domain && !(previousDomain && *previousDomain == domain)) {
            textBytes += sizeof(uint32_t) + domain->size();
        }
        previousDomain = &domain;
    }
    if (count > kAbsent / 2 || textBytes >= kAbsent) throw std::length_error("cached list");
    void* memory = ::operator new(sizeof(QelDNSCachedList) + count * sizeof(Record) + textBytes);
    auto* list = new (memory) QelDNSCachedList(static_cast<uint32_t>(count));
    char* const texts = const_cast<char*>(list->texts());
    uint32_t used = 0;
    const auto put = [&](const std::string& text) {
        const auto length = static_cast<uint32_t>(text.size());
        std::memcpy(texts + used, &length, sizeof length);
        std::memcpy(texts + used + sizeof length, text.data(), text.size());
        const uint32_t offset = used;
        used += static_cast<uint32_t>(sizeof length + text.size());
        return offset;
    };
    Record* out = list->recordsBegin();
    previousDomain = nullptr;
    uint32_t previousOffset = kAbsent;
    for (const auto& record : records) {
        if (!record) continue;
        const auto& domain = record->domain();
        uint32_t domainOffset = kAbsent;
        if (domain) {
            const bool same = previousDomain && *previousDomain == domain;
            domainOffset = same ? previousOffset : put(*domain);
        }
        previousDomain = &domain;
        previousOffset = domainOffset;
        const uint32_t ipOffset = record->ip() ? put(*record->ip()) : kAbsent;
        new (out++) Record{record->lookupTime(), record->ttl(), record->type(), domainOffset,
                           ipOffset};
    }
    return Ref(list);
}

std::string_view QelDNSCachedList::text(uint32_t offset) const {
    uint32_t length;
    std::memcpy(&length, texts() + offset, sizeof length);
    return {texts() + offset + sizeof length, length};
}

QelDNSIPModelListRef QelDNSCachedList::records() const {
    QelDNSIPModelList made;
    made.reserve(count_);
    for (const Record* r = recordsBegin(); r != recordsBegin() + count_; ++r) {
        auto record = std::make_shared<QelDNSIPModel>();
        record->setLookupTime(r->lookupTime);
        record->setTtl(r->ttl);
        record->setType(r->type);
        if (r->domain != kAbsent) record->setDomain(std::string(text(r->domain)));
        if (r->ip != kAbsent) record->setIp(std::string(text(r->ip)));
        made.push_back(std::move(record));
    }
    return std::make_shared<const QelDNSIPModelList>(std::move(made));
}

double QelDNSCachedList::appendAddresses(double now, bool expired,
                                         std::vector<std::string>& out) const {
    double earliest = std::numeric_limits<double>::quiet_NaN();
    for (const Record* r = recordsBegin(); r != recordsBegin() + count_; ++r) {
        const double end = static_cast<double>(r->ttl) + r->lookupTime;
        if (!expired && !(end > now)) continue;
        if (!(end >= earliest)) earliest = end;  // the first one, then any earlier
        if (r->ip != kAbsent) out.emplace_back(text(r->ip));
    }
    return earliest;
}
