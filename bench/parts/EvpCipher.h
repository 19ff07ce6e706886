// The cipher of the bodies as OpenSSL alone runs it: one context, whose key is set once, between buffers that exist.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>

namespace Vantor::Sentrix {

class EvpCipher {
public:
    static constexpr int kEncrypt = 1;
    static constexpr int kDecrypt = 0;
    static constexpr std::size_t kBlock = 16;

    explicit EvpCipher(int direction) : m_context(EVP_CIPHER_CTX_new()) {
        constexpr unsigned char kKey[32] = {};
        EVP_CipherInit_ex(m_context.get(), EVP_aes_256_cbc(), nullptr, kKey, m_iv, direction);
    }

    // `out` has a block more than `in`. Returns the bytes written; 0 when it failed.
    std::size_t Run(const std::string& in, std::size_t length, std::string& out) {
        auto* const to = reinterpret_cast<unsigned char*>(out.data());
        const auto* const from = reinterpret_cast<const unsigned char*>(in.data());
        int whole = 0;
        int last = 0;
        const bool done = EVP_CipherInit_ex(m_context.get(), nullptr, nullptr, nullptr, m_iv, -1) == 1 &&
                          EVP_CipherUpdate(m_context.get(), to, &whole, from, static_cast<int>(length)) == 1 &&
                          EVP_CipherFinal_ex(m_context.get(), to + whole, &last) == 1;
        return done ? static_cast<std::size_t>(whole + last) : 0;
    }

private:
    struct Free {
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    };
    std::unique_ptr<EVP_CIPHER_CTX, Free> m_context;
    const unsigned char m_iv[kBlock] = {};
};

} // namespace Vantor::Sentrix
