// Umbrella header for C++ applications: every installed header of the library except the C
// interface, QelHttpDnsSDK/Extras/qel_httpdns.h.
#pragma once

#include "QelHttpDnsSDK/Const/QelDNSConst.h"
#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSAddressCheck.h"
#include "QelHttpDnsSDK/Extras/QelDNSBlockingLookup.h"
#include "QelHttpDnsSDK/Extras/QelDNSCurlPinning.h"
#include "QelHttpDnsSDK/Extras/QelDNSLookupTrace.h"
#include "QelHttpDnsSDK/Extras/QelDNSResilience.h"
#include "QelHttpDnsSDK/Extras/QelDNSCacheProfile.h"
#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"
#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Model/QelDNSPreResolveModel.h"
#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorTable.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/QelDNSApplication.h"
#include "QelHttpDnsSDK/QelDNSExport.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"
#include "QelHttpDnsSDK/Reachability/QelDNSReachability.h"
