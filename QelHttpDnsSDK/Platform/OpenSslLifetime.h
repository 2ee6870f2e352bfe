// OpenSSL, left alive until the process is gone. By default it frees its state from an atexit
// handler, while the platform thread may still be signing a request or in a TLS handshake (a
// login renewal, a lookup under way as the application exits): that thread would then crash.
// Called before the library's first use of OpenSSL (the signing digest, libcurl's start); an
// application that used OpenSSL earlier keeps OpenSSL's own choice.
#pragma once

namespace qel::platform {

void keepOpenSslUntilExit();

}  // namespace qel::platform
