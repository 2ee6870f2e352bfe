// Prints the SDK's version and default service address.
#include <cstdio>

#include "QelHttpDnsSDK/QelHttpDnsSDK.h"

int main() {
    std::printf("QelHttpDnsSDK %s (version number %.1f)\n", QelDNS_SDK_VERSION,
                QelHttpDnsSDKVersionNumber);
    std::printf("default service: %s\n", QelDNS_SDK_NET_DEFAULT_BASE_URL);
    return 0;
}
