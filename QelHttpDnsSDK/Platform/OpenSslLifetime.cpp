#include "QelHttpDnsSDK/Platform/OpenSslLifetime.h"

#include <openssl/crypto.h>

namespace qel::platform {

void keepOpenSslUntilExit() {
    static const bool done = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
    (void)done;
}

}  // namespace qel::platform
