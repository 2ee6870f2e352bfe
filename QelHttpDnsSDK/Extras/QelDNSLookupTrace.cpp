#include "QelHttpDnsSDK/Extras/QelDNSLookupTrace.h"

const char* QelDNSLookupTrace::sourceName(Source source) {
    switch (source) {
        case Source::Memory:
            return "memory";
        case Source::Store:
            return "store";
        case Source::Service:
            return "service";
        case Source::Refused:
            return "refused";
        case Source::Unanswered:
            return "unanswered";
    }
    return "unknown";
}
