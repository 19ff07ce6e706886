// AES in CBC mode over OpenSSL's EVP: the part of the system's cipher interface without padding.
//
// A key is its bytes and a number; the work is done in a cipher context of the calling thread, so that any number of
// threads may use one key at once. The context remembers the number of the key it was last set up for: a thread that
// stays with one key pays for the key schedule once, and for a fresh IV at every call.
#include "veyrasvc/platform/posix/OpenSsl.h"
#include "veyrasvc/platform/posix/Win32Subset.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <cwchar>
#include <new>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr ULONG kBlockSize = 16;
// EVP counts in int; a chunk is a whole number of blocks below that.
constexpr ULONG kChunk = 1U << 30;

constexpr NTSTATUS Status(std::uint32_t code) {
    return static_cast<NTSTATUS>(code);
}
constexpr NTSTATUS kSuccess = 0;
constexpr NTSTATUS kUnsuccessful = Status(0xC0000001);
constexpr NTSTATUS kInvalidHandle = Status(0xC0000008);
constexpr NTSTATUS kInvalidParameter = Status(0xC000000D);
constexpr NTSTATUS kNoMemory = Status(0xC0000017);
constexpr NTSTATUS kBufferTooSmall = Status(0xC0000023);
constexpr NTSTATUS kNotSupported = Status(0xC00000BB);
constexpr NTSTATUS kInvalidBufferSize = Status(0xC0000206);
constexpr NTSTATUS kNotFound = Status(0xC0000225);

enum Direction { kDecrypt = 0, kEncrypt = 1 };

constexpr std::uint32_t kAlgorithmMark = 0x41455341;
constexpr std::uint32_t kKeyMark = 0x4145534B;

struct Algorithm {
    std::uint32_t mark;
};

struct Key {
    std::uint32_t mark;
    std::uint64_t number; // never used twice, unlike an address
    const EVP_CIPHER* cipher;
    unsigned char bytes[32];
};

template <class T> T* As(void* handle, std::uint32_t mark) {
    auto* const object = static_cast<T*>(handle);
    return object != nullptr && object->mark == mark ? object : nullptr;
}

// The three ciphers, fetched once: a look-up by name costs more than a short message. Never freed.
const EVP_CIPHER* CipherFor(ULONG keySize) {
    struct Ciphers {
        Ciphers() {
            if (const OpenSsl* const ssl = OpenSsl::Load()) {
                aes128 = ssl->EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
                aes192 = ssl->EVP_CIPHER_fetch(nullptr, "AES-192-CBC", nullptr);
                aes256 = ssl->EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
            }
        }
        const EVP_CIPHER* aes128 = nullptr;
        const EVP_CIPHER* aes192 = nullptr;
        const EVP_CIPHER* aes256 = nullptr;
    };
    static const auto* const ciphers = new Ciphers;
    switch (keySize) {
    case 16:
        return ciphers->aes128;
    case 24:
        return ciphers->aes192;
    case 32:
        return ciphers->aes256;
    default:
        return nullptr;
    }
}

class Context {
public:
    Context() : m_context(m_ssl.EVP_CIPHER_CTX_new()) {}
    ~Context() { m_ssl.EVP_CIPHER_CTX_free(m_context); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    bool Run(const Key& key, Direction direction, const unsigned char* iv, const unsigned char* in, ULONG size,
             unsigned char* out) {
        if (m_context == nullptr || !SetUp(key, direction, iv)) {
            return false;
        }
        for (ULONG done = 0; done < size;) {
            const ULONG piece = std::min(size - done, kChunk);
            int written = 0;
            if (m_ssl.EVP_CipherUpdate(m_context, out + done, &written, in + done, static_cast<int>(piece)) != 1 ||
                static_cast<ULONG>(written) != piece) {
                return false;
            }
            done += piece;
        }
        return true;
    }

private:
    bool SetUp(const Key& key, Direction direction, const unsigned char* iv) {
        const bool isKnown = m_keyNumber == key.number;
        m_keyNumber = 0; // until the set-up has succeeded
        const int done = isKnown ? m_ssl.EVP_CipherInit_ex(m_context, nullptr, nullptr, nullptr, iv, direction)
                                 : m_ssl.EVP_CipherInit_ex(m_context, key.cipher, nullptr, key.bytes, iv, direction);
        if (done != 1 || m_ssl.EVP_CIPHER_CTX_set_padding(m_context, 0) != 1) {
            return false;
        }
        m_keyNumber = key.number;
        return true;
    }

    const OpenSsl& m_ssl = *OpenSsl::Load(); // there is a key, so it is loaded
    EVP_CIPHER_CTX* const m_context;
    std::uint64_t m_keyNumber = 0;
};

// One context a direction, for the schedules differ. A thread that encrypts after its thread-local objects are gone
// (from a destructor of a static object, say) works with one for the call.
thread_local bool contextsGone = false;

struct Contexts {
    ~Contexts() { contextsGone = true; }
    Context byDirection[2];
};

bool Run(const Key& key, Direction direction, const unsigned char* iv, const unsigned char* in, ULONG size,
         unsigned char* out) {
    if (contextsGone) {
        return Context().Run(key, direction, iv, in, size, out);
    }
    static thread_local Contexts contexts;
    return contexts.byDirection[direction].Run(key, direction, iv, in, size, out);
}

// Encryption and decryption are one path. As the system does, the caller's IV ends as the last ciphertext block, so
// that the next call goes on with the chain.
NTSTATUS Transform(Direction direction, BCRYPT_KEY_HANDLE handle, PUCHAR input, ULONG inputSize, void* paddingInfo,
                   PUCHAR iv, ULONG ivSize, PUCHAR output, ULONG outputSize, ULONG* resultSize, ULONG flags) {
    const Key* const key = As<Key>(handle, kKeyMark);
    if (key == nullptr) {
        return kInvalidHandle;
    }
    if (resultSize == nullptr || (input == nullptr && inputSize > 0) || paddingInfo != nullptr || flags != 0) {
        return kInvalidParameter;
    }
    if (inputSize % kBlockSize != 0) {
        return kInvalidBufferSize;
    }
    *resultSize = inputSize;
    if (output == nullptr) {
        return kSuccess; // the caller asks for the size
    }
    if (iv == nullptr || ivSize != kBlockSize) {
        return kInvalidParameter;
    }
    if (outputSize < inputSize) {
        return kBufferTooSmall;
    }
    if (inputSize == 0) {
        return kSuccess;
    }
    unsigned char next[kBlockSize];
    if (direction == kDecrypt) {
        std::memcpy(next, input + inputSize - kBlockSize, kBlockSize); // before work in place overwrites it
    }
    if (!Run(*key, direction, iv, input, inputSize, output)) {
        return kUnsuccessful;
    }
    std::memcpy(iv, direction == kDecrypt ? next : output + inputSize - kBlockSize, kBlockSize);
    return kSuccess;
}

} // namespace

NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR id, LPCWSTR implementation, ULONG flags) {
    if (algorithm == nullptr || id == nullptr || flags != 0) {
        return kInvalidParameter;
    }
    if (std::wcscmp(id, BCRYPT_AES_ALGORITHM) != 0 || implementation != nullptr) {
        return kNotFound;
    }
    *algorithm = new (std::nothrow) Algorithm{kAlgorithmMark};
    return *algorithm == nullptr ? kNoMemory : kSuccess;
}

NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE handle, ULONG flags) {
    Algorithm* const algorithm = As<Algorithm>(handle, kAlgorithmMark);
    if (algorithm == nullptr) {
        return kInvalidHandle;
    }
    if (flags != 0) {
        return kInvalidParameter;
    }
    delete algorithm;
    return kSuccess;
}

NTSTATUS BCryptSetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR value, ULONG valueSize, ULONG flags) {
    if (As<Algorithm>(object, kAlgorithmMark) == nullptr) {
        return kInvalidHandle;
    }
    if (property == nullptr || value == nullptr || flags != 0) {
        return kInvalidParameter;
    }
    // CBC is what an AES provider starts with, and the only mode there is.
    const bool isCbc =
        valueSize == sizeof BCRYPT_CHAIN_MODE_CBC && std::memcmp(value, BCRYPT_CHAIN_MODE_CBC, valueSize) == 0;
    return isCbc && std::wcscmp(property, BCRYPT_CHAINING_MODE) == 0 ? kSuccess : kNotSupported;
}

NTSTATUS BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE handle, BCRYPT_KEY_HANDLE* key, PUCHAR /*keyObject*/,
                                    ULONG /*keyObjectSize*/, PUCHAR secret, ULONG secretSize, ULONG flags) {
    static std::atomic<std::uint64_t> nextNumber{1};
    if (As<Algorithm>(handle, kAlgorithmMark) == nullptr) {
        return kInvalidHandle;
    }
    const EVP_CIPHER* const cipher = CipherFor(secretSize);
    if (key == nullptr || secret == nullptr || flags != 0 || cipher == nullptr) {
        return kInvalidParameter;
    }
    auto* const made = new (std::nothrow) Key{kKeyMark, nextNumber.fetch_add(1), cipher, {}};
    if (made == nullptr) {
        return kNoMemory;
    }
    std::memcpy(made->bytes, secret, secretSize);
    *key = made;
    return kSuccess;
}

NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE handle) {
    Key* const key = As<Key>(handle, kKeyMark);
    if (key == nullptr) {
        return kInvalidHandle;
    }
    OpenSsl::Load()->OPENSSL_cleanse(key, sizeof *key);
    delete key;
    return kSuccess;
}

NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputSize, void* paddingInfo, PUCHAR iv, ULONG ivSize,
                       PUCHAR output, ULONG outputSize, ULONG* resultSize, ULONG flags) {
    return Transform(kEncrypt, key, input, inputSize, paddingInfo, iv, ivSize, output, outputSize, resultSize, flags);
}

NTSTATUS BCryptDecrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputSize, void* paddingInfo, PUCHAR iv, ULONG ivSize,
                       PUCHAR output, ULONG outputSize, ULONG* resultSize, ULONG flags) {
    return Transform(kDecrypt, key, input, inputSize, paddingInfo, iv, ivSize, output, outputSize, resultSize, flags);
}

} // namespace Vantor::Sentrix::Platform
