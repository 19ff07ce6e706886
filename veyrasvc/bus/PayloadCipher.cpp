// The system's cipher runs whole blocks; padding is ours. A text that ends inside a block goes through it in two
// calls, the whole blocks first, and the IV that the first call leaves carries the chain into the second.
#include "veyrasvc/bus/PayloadCipher.h"

#include "veyrasvc/platform/Win32.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace Vantor::Sentrix {

namespace {

constexpr int kDone = 0;
constexpr int kFailed = -1;

// The system's calls count in 32 bits; longer texts take several of them.
constexpr std::size_t kMostBytesPerCall = std::size_t{1} << 30;

unsigned char cipherKey[] = {
#include "CipherKey.inc"
};
static_assert(sizeof cipherKey == 32);

struct OperatorDelete {
    void operator()(unsigned char* block) const { operator delete(block); }
};
using Block = std::unique_ptr<unsigned char, OperatorDelete>;

Block Allocate(std::size_t size) {
    return Block(static_cast<unsigned char*>(operator new(size, std::nothrow)));
}

// Null when the system has no such cipher. Never closed: threads may still encrypt while the process ends.
BCRYPT_ALG_HANDLE AesCbc() {
    static const BCRYPT_ALG_HANDLE algorithm = [] {
        BCRYPT_ALG_HANDLE opened = nullptr;
        auto* const mode = reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(BCRYPT_CHAIN_MODE_CBC));
        const bool usable = BCryptOpenAlgorithmProvider(&opened, BCRYPT_AES_ALGORITHM, nullptr, 0) >= 0 &&
                            BCryptSetProperty(opened, BCRYPT_CHAINING_MODE, mode, sizeof BCRYPT_CHAIN_MODE_CBC, 0) >= 0;
        return usable ? opened : nullptr;
    }();
    return algorithm;
}

using Transform = decltype(&BCryptEncrypt);

// The chain of one message. It has a key object of its own: not every system leaves the chain to the caller's IV alone.
class Chain {
public:
    Chain(Transform transform, const unsigned char* iv) : m_transform(transform) {
        std::memcpy(m_iv, iv, sizeof m_iv);
        if (BCryptGenerateSymmetricKey(AesCbc(), &m_key, nullptr, 0, cipherKey, sizeof cipherKey, 0) < 0) {
            m_key = nullptr; // every call with it fails
        }
    }
    ~Chain() {
        if (m_key != nullptr) {
            BCryptDestroyKey(m_key);
        }
    }
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;

    // Whole blocks, which follow those of the call before.
    bool Run(const unsigned char* in, std::size_t length, unsigned char* out) {
        for (std::size_t done = 0; done < length;) {
            const auto piece = static_cast<ULONG>(std::min(length - done, kMostBytesPerCall));
            ULONG written = 0;
            auto* const from = const_cast<PUCHAR>(in + done); // only read
            if (m_transform(m_key, from, piece, nullptr, m_iv, sizeof m_iv, out + done, piece, &written, 0) < 0 ||
                written != piece) {
                return false;
            }
            done += piece;
        }
        return true;
    }

private:
    const Transform m_transform;
    BCRYPT_KEY_HANDLE m_key = nullptr;
    unsigned char m_iv[kCipherBlockSize];
};

int RunOneBlock(Transform transform, const unsigned char* in, unsigned char* out) {
    constexpr unsigned char kNoChain[kCipherBlockSize] = {};
    return Chain(transform, kNoChain).Run(in, kCipherBlockSize, out) ? kDone : kFailed;
}

// How many bytes of the last plaintext block are text: 16 less the padding. -1 when the padding is malformed. A final
// byte of 0 announces no padding at all.
int TextInLastBlock(const unsigned char* block) {
    const unsigned char pad = block[kCipherBlockSize - 1];
    if (pad > kCipherBlockSize) {
        return kFailed;
    }
    const unsigned char* const end = block + kCipherBlockSize;
    const bool isWhole = std::all_of(end - pad, end, [pad](unsigned char byte) { return byte == pad; });
    return isWhole ? static_cast<int>(kCipherBlockSize) - pad : kFailed;
}

} // namespace

bool GenerateRandom(unsigned char* buffer, std::size_t length) {
    HCRYPTPROV provider = 0;
    if (length > UINT32_MAX ||
        CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT) == FALSE) {
        return false;
    }
    const bool filled = CryptGenRandom(provider, static_cast<DWORD>(length), buffer) != FALSE;
    CryptReleaseContext(provider, 0);
    return filled;
}

int EncryptPayload(const unsigned char* plain, std::size_t length, unsigned char** cipher, std::size_t* cipherLength,
                   unsigned char** iv) {
    if (plain == nullptr || length == 0 || length > SIZE_MAX - kCipherBlockSize || cipher == nullptr ||
        cipherLength == nullptr || iv == nullptr) {
        return kFailed;
    }
    *cipher = nullptr;
    *iv = nullptr;
    Block newIv = Allocate(kCipherBlockSize);
    if (!newIv) {
        return kFailed;
    }
    std::memset(newIv.get(), 0, kCipherBlockSize);
    if (!GenerateRandom(newIv.get(), kCipherBlockSize)) {
        return kFailed;
    }
    Block made = Allocate(length - length % kCipherBlockSize + kCipherBlockSize);
    if (!made || EncryptCbc(newIv.get(), plain, length, made.get(), cipherLength) != kDone) {
        return kFailed;
    }
    *cipher = made.release();
    *iv = newIv.release();
    return kDone;
}

int DecryptPayload(const unsigned char* iv, const unsigned char* cipher, std::size_t length, unsigned char** plain,
                   std::size_t* plainLength) {
    if (iv == nullptr || cipher == nullptr || length == 0 || plain == nullptr || plainLength == nullptr) {
        return kFailed;
    }
    *plain = nullptr;
    Block made = Allocate(length + 1);
    if (!made || DecryptCbc(iv, cipher, length, made.get(), plainLength) != kDone) {
        return kFailed;
    }
    made.get()[*plainLength] = 0;
    *plain = made.release();
    return kDone;
}

int EncryptCbc(const unsigned char* iv, const unsigned char* in, std::size_t length, unsigned char* out,
               std::size_t* outLength) {
    if (iv == nullptr || in == nullptr || length == 0 || out == nullptr || outLength == nullptr) {
        return kFailed;
    }
    const std::size_t rest = length % kCipherBlockSize;
    const std::size_t whole = length - rest;
    const auto pad = static_cast<unsigned char>(kCipherBlockSize - rest);
    unsigned char last[kCipherBlockSize];
    std::memcpy(last, in + whole, rest);
    std::memset(last + rest, pad, pad);
    Chain chain(&BCryptEncrypt, iv);
    if (!chain.Run(in, whole, out) || !chain.Run(last, sizeof last, out + whole)) {
        return kFailed;
    }
    *outLength = length + pad;
    return kDone;
}

int DecryptCbc(const unsigned char* iv, const unsigned char* in, std::size_t length, unsigned char* out,
               std::size_t* outLength) {
    if (iv == nullptr || in == nullptr || length == 0 || length % kCipherBlockSize != 0 || out == nullptr ||
        outLength == nullptr) {
        return kFailed;
    }
    if (!Chain(&BCryptDecrypt, iv).Run(in, length, out)) {
        return kFailed;
    }
    const int text = TextInLastBlock(out + length - kCipherBlockSize);
    if (text < 0) {
        return kFailed;
    }
    *outLength = length - kCipherBlockSize + static_cast<std::size_t>(text);
    return kDone;
}

int EncryptBlock(const unsigned char* in, unsigned char* out) {
    return RunOneBlock(&BCryptEncrypt, in, out);
}

int DecryptBlock(const unsigned char* in, unsigned char* out) {
    return RunOneBlock(&BCryptDecrypt, in, out);
}

} // namespace Vantor::Sentrix
