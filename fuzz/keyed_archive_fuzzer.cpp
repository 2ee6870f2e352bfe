// The keyed archive on arbitrary bytes. Each input is used twice:
//  - as an archive, decoded with the cache's allow-list and with lists missing one class: a
//    missing class may only refuse, never change what decodes; whatever decodes is written
//    again and reads back the same; one byte more or one byte less is refused;
//  - as the source of a list of records, archived and decoded back, which must give the same
//    records (lookup time cut to whole seconds) and, written again, the same bytes.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "FuzzCheck.h"
#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"
#include "QelHttpDnsSDK/Platform/KeyedArchiver.h"
#include "QelHttpDnsSDK/Platform/KeyedUnarchiver.h"

using qel::platform::Data;
using qel::platform::KeyedArchiver;
using qel::platform::KeyedUnarchiver;
using Allowed = KeyedUnarchiver::AllowedClass;
using Records = std::vector<std::shared_ptr<QelDNSIPModel>>;
using Fields =
    std::tuple<std::optional<std::string>, int32_t, std::optional<std::string>, int64_t, double>;

namespace {

std::optional<Records> decode(const Data& data, const std::vector<Allowed>& allowed) {
    return KeyedUnarchiver::unarchivedArrayOfObjects<std::shared_ptr<QelDNSIPModel>>(data, allowed);
}

std::optional<Records> decodeAsCache(const Data& data) {
    return decode(data, {Allowed::array(), Allowed::of<QelDNSIPModel>(), Allowed::string()});
}

Data archive(const Records& records) {
    auto data = KeyedArchiver::archivedDataWithRootObjects(records);
    fuzzCheck(data.has_value(), "a list without holes always archives");
    return std::move(*data);
}

std::vector<Fields> fields(const Records& records) {
    std::vector<Fields> out;
    for (const auto& r : records) {
        out.emplace_back(r->domain(), r->type(), r->ip(), r->ttl(), r->lookupTime());
    }
    return out;
}

void checkArbitraryArchive(const Data& data) {
    const auto decoded = decodeAsCache(data);

    fuzzCheck(!decode(data, {Allowed::of<QelDNSIPModel>(), Allowed::string()}),
              "without the array class nothing decodes");
    const auto noRecords = decode(data, {Allowed::array(), Allowed::string()});
    fuzzCheck(!noRecords || (noRecords->empty() && decoded && decoded->empty()),
              "without the record class only an empty list decodes");
    const auto noStrings = decode(data, {Allowed::array(), Allowed::of<QelDNSIPModel>()});
    if (noStrings) {
        fuzzCheck(decoded && fields(*noStrings) == fields(*decoded),
                  "a shorter allow-list refuses or decodes the same");
        for (const auto& r : *noStrings) {
            fuzzCheck(!r->domain() && !r->ip(), "without the string class no string decodes");
        }
    }
    if (!decoded) return;

    Data longer = data;
    longer.push_back(0);
    fuzzCheck(!decodeAsCache(longer), "trailing bytes are refused");
    fuzzCheck(!decodeAsCache(Data(data.begin(), data.end() - 1)), "a truncated archive is refused");

    const Data again = archive(*decoded);
    const auto reread = decodeAsCache(again);
    fuzzCheck(reread && fields(*reread) == fields(*decoded),
              "what decodes is written back the same");
}

// The double a lookup time reads back as: cut toward zero to whole seconds, NaN as 0, and
// pinned to the 64-bit range.
double storedSeconds(double seconds) {
    if (std::isnan(seconds)) return 0;
    return std::clamp(std::trunc(seconds), -0x1p63, 0x1p63);
}

std::optional<std::string> maybeText(FuzzedDataProvider& input) {
    if (!input.ConsumeBool()) return std::nullopt;
    return input.ConsumeRandomLengthString(48);
}

Records recordsFrom(FuzzedDataProvider& input) {
    Records records(input.ConsumeIntegralInRange<size_t>(0, 8));
    for (auto& r : records) {
        r = std::make_shared<QelDNSIPModel>();
        r->setDomain(maybeText(input));
        r->setType(input.ConsumeIntegral<int32_t>());
        r->setIp(maybeText(input));
        r->setTtl(input.ConsumeIntegral<int64_t>());
        // Any bit pattern: NaN, infinities and values beyond 2^63 included.
        const uint64_t bits = input.ConsumeIntegral<uint64_t>();
        double lookupTime;
        std::memcpy(&lookupTime, &bits, sizeof lookupTime);
        r->setLookupTime(lookupTime);
    }
    return records;
}

void checkRoundTrip(FuzzedDataProvider& input) {
    const Records records = recordsFrom(input);
    const Data data = archive(records);
    const auto decoded = decodeAsCache(data);
    fuzzCheck(decoded && decoded->size() == records.size(), "an archive of records decodes");
    for (size_t i = 0; i < records.size(); ++i) {
        const QelDNSIPModel& in = *records[i];
        const QelDNSIPModel& out = *(*decoded)[i];
        fuzzCheck(out.domain() == in.domain() && out.ip() == in.ip(), "strings come back");
        fuzzCheck(out.type() == in.type() && out.ttl() == in.ttl(), "integers come back");
        fuzzCheck(out.lookupTime() == storedSeconds(in.lookupTime()),
                  "the lookup time comes back in whole seconds");
    }
    fuzzCheck(archive(*decoded) == data, "decoded records are written to the same bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    checkArbitraryArchive(Data(bytes, bytes + size));
    FuzzedDataProvider input(bytes, size);
    checkRoundTrip(input);
    return 0;
}
