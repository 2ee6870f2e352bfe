#include "QelHttpDnsSDK/Const/QelDNSConst.h"

const unsigned char QelHttpDnsSDKVersionString[] =
    "@(#)PROGRAM:QelHttpDnsSDK  PROJECT:QelHttpDnsSDK-1\n";
const double QelHttpDnsSDKVersionNumber = 1.0;

const int64_t QelDNS_SDK_REQ_NEED_RETRY_CODE = -30000;
const int64_t QelDNS_SDK_REQ_FORBIDDEN_CODE = 403;

const char QelDNS_SDK_NET_DEFAULT_BASE_URL[] = "http://127.0.0.1:18053";

const char QelDNS_SDK_VERSION[] = "1.0.0";
