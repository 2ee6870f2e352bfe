#include "QelHttpDnsSDK/Const/QelDNSConst.h"

#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"

// QEL_VERSION and its parts come from the build, which takes them from the project's version.
#define QEL_TEXT(x) #x
#define QEL_TEXT_OF(x) QEL_TEXT(x)

const unsigned char QelHttpDnsSDKVersionString[] =
    "@(#)PROGRAM:QelHttpDnsSDK  PROJECT:QelHttpDnsSDK-" QEL_TEXT_OF(QEL_VERSION_MAJOR) "\n";
const double QelHttpDnsSDKVersionNumber = QEL_VERSION_NUMBER;

const int64_t QelDNS_SDK_REQ_NEED_RETRY_CODE = QelDNSErrorCodes::kNeedRetry;
const int64_t QelDNS_SDK_REQ_FORBIDDEN_CODE = QelDNSErrorCodes::kForbidden;

const char QelDNS_SDK_NET_DEFAULT_BASE_URL[] = "http://127.0.0.1:18053";

const char QelDNS_SDK_VERSION[] = QEL_VERSION;
