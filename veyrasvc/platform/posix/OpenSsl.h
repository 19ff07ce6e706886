// OpenSSL's libcrypto, loaded when somebody first encrypts or hashes: a process that does neither, as nearly every one
// on the bus, is spared the 1.4 MiB that it takes.
//
// Threads may still encrypt and hash while the process ends, so OpenSSL must not clean up at exit. Whoever uses it
// first in the process decides that; a host program that was earlier keeps its own choice.
#pragma once

#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace Vantor::Sentrix::Platform {

// The functions that are called, under their own names.
// Threads: any.
struct OpenSsl {
    decltype(&::OPENSSL_init_crypto) OPENSSL_init_crypto;
    decltype(&::OPENSSL_cleanse) OPENSSL_cleanse;
    decltype(&::EVP_CIPHER_fetch) EVP_CIPHER_fetch;
    decltype(&::EVP_CIPHER_CTX_new) EVP_CIPHER_CTX_new;
    decltype(&::EVP_CIPHER_CTX_free) EVP_CIPHER_CTX_free;
    decltype(&::EVP_CIPHER_CTX_set_padding) EVP_CIPHER_CTX_set_padding;
    decltype(&::EVP_CipherInit_ex) EVP_CipherInit_ex;
    decltype(&::EVP_CipherUpdate) EVP_CipherUpdate;
    decltype(&::EVP_MD_fetch) EVP_MD_fetch;
    decltype(&::EVP_MD_CTX_new) EVP_MD_CTX_new;
    decltype(&::EVP_MD_CTX_free) EVP_MD_CTX_free;
    decltype(&::EVP_DigestInit_ex) EVP_DigestInit_ex;
    decltype(&::EVP_DigestUpdate) EVP_DigestUpdate;
    decltype(&::EVP_DigestFinal_ex) EVP_DigestFinal_ex;
    decltype(&::EVP_Q_digest) EVP_Q_digest;

    // Null when the system has no libcrypto of the version that was built against; the same at every call.
    static const OpenSsl* Load();
};

} // namespace Vantor::Sentrix::Platform
