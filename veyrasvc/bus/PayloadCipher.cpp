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

struct KeyOfTheBuild {
    KeyOfTheBuild() {
        auto* const mode = reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(BCRYPT_CHAIN_MODE_CBC));
        if (BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, nullptr, 0) < 0 ||
            BCryptSetProperty(algorithm, BCRYPT_CHAINING_MODE, mode, sizeof BCRYPT_CHAIN_MODE_CBC, 0) < 0 ||
            BCryptGenerateSymmetricKey(algorithm, &key, nullptr, 0, cipherKey, sizeof cipherKey, 0) < 0) {
            key = nullptr;
        }
    }
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_KEY_HANDLE key = nullptr; // null when the system has no such cipher: every call with it fails
};

// Never destroyed: threads may still encrypt while the process ends.
BCRYPT_KEY_HANDLE CipherKey() {
    static const KeyOfTheBuild made;
    return made.key;
}

using Transform = decltype(&BCryptEncrypt);

// Whole blocks, continuing the chain in `iv`.
bool RunBlocks(Transform transform, unsigned char* iv, const unsigned char* in, std::size_t length,
               unsigned char* out) {
    for (std::size_t done = 0; done < length;) {
        const auto piece = static_cast<ULONG>(std::min(length - done, kMostBytesPerCall));
        ULONG written = 0;
        auto* const from = const_cast<PUCHAR>(in + done); // only read
        if (transform(CipherKey(), from, piece, nullptr, iv, kCipherBlockSize, out + done, piece, &written, 0) < 0 ||
            written != piece) {
            return false;
        }
        done += piece;
    }
    return true;
}

int RunOneBlock(Transform transform, const unsigned char* in, unsigned char* out) {
    unsigned char noChain[kCipherBlockSize] = {};
    return RunBlocks(transform, noChain, in, kCipherBlockSize, out) ? kDone : kFailed;
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
    Block made = Allocate(length);
    if (!made || DecryptCbc(iv, cipher, length, made.get(), plainLength) != kDone) {
        return kFailed;
    }
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
    unsigned char chain[kCipherBlockSize];
    std::memcpy(chain, iv, sizeof chain);
    if (!RunBlocks(&BCryptEncrypt, chain, in, whole, out) ||
        !RunBlocks(&BCryptEncrypt, chain, last, sizeof last, out + whole)) {
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
    unsigned char chain[kCipherBlockSize];
    std::memcpy(chain, iv, sizeof chain);
    if (!RunBlocks(&BCryptDecrypt, chain, in, length, out)) {
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
