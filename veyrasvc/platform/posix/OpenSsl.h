// OpenSSL, prepared the one way that suits a library: call before anything else of OpenSSL's.
#pragma once

#include <openssl/crypto.h>

namespace Vantor::Sentrix::Platform {

// Threads may still encrypt and hash while the process ends, so OpenSSL must not clean up at exit. Whoever uses it
// first in the process decides; a host program that was earlier keeps its own choice.
inline void PrepareOpenSsl() {
    static const int prepared = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    static_cast<void>(prepared);
}

} // namespace Vantor::Sentrix::Platform
