// The C++ names of the error table (QelDNSErrorTable.h): for each row `kName`, its code, and
// `kNameMessage`, the message QelDNSError carries ("" where it varies). Internal: applications
// compare codes with the numbers of docs/errors.md, the C names and the two exported constants
// of QelDNSConst.h.
#pragma once

#include <cstdint>

#include "QelHttpDnsSDK/Other/QelDNSErrorTable.h"

namespace QelDNSErrorCodes {

#define QEL_DNS_ERROR_CONSTANTS_(name, cName, code, message, gloss) \
    inline constexpr int64_t name = code;                           \
    inline constexpr char name##Message[] = message;
QEL_DNS_ERROR_TABLE(QEL_DNS_ERROR_CONSTANTS_)
#undef QEL_DNS_ERROR_CONSTANTS_

}  // namespace QelDNSErrorCodes
