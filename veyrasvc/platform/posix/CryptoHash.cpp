// The providers' hash objects, over OpenSSL's EVP digests.
//
// A hash is open until its value is asked for. From then on it holds the value alone, which may be read again, and
// takes no more data.
#include "veyrasvc/platform/posix/CryptoProvider.h"
#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/OpenSsl.h"

#include <cstring>
#include <memory>
#include <new>

namespace Vantor::Sentrix::Platform {

namespace {

struct Digest {
    ALG_ID id;
    bool inFull; // whether PROV_RSA_FULL knows it; PROV_RSA_AES knows them all
    const char* name;
    const EVP_MD* method; // null when there is no OpenSSL, or it is not allowed to compute it
};

// Fetched once: a look-up by name costs more than a short message. Never freed.
const Digest* FindDigest(HCRYPTPROV provider, ALG_ID id) {
    struct Table {
        Table() {
            const OpenSsl* const ssl = OpenSsl::Load();
            for (Digest& digest : digests) {
                digest.method = ssl == nullptr ? nullptr : ssl->EVP_MD_fetch(nullptr, digest.name, nullptr);
            }
        }
        Digest digests[5] = {{CALG_MD5, true, "MD5", nullptr},
                             {CALG_SHA1, true, "SHA1", nullptr},
                             {CALG_SHA_256, false, "SHA256", nullptr},
                             {CALG_SHA_384, false, "SHA384", nullptr},
                             {CALG_SHA_512, false, "SHA512", nullptr}};
    };
    static const auto* const table = new Table;
    for (const Digest& digest : table->digests) {
        if (digest.id == id && digest.method != nullptr && (digest.inFull || provider == kAesContext)) {
            return &digest;
        }
    }
    return nullptr;
}

struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { OpenSsl::Load()->EVP_MD_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_MD_CTX, FreeContext>;

constexpr std::uint32_t kHashMark = 0x48415348;

struct Hash {
    std::uint32_t mark = kHashMark;
    Context context; // null once the value was asked for; it lies in `value` then
    unsigned int length = 0;
    BYTE value[EVP_MAX_MD_SIZE] = {};
};

Hash* FindHash(HCRYPTHASH handle) {
    auto* const hash = reinterpret_cast<Hash*>(handle); // NOLINT(performance-no-int-to-ptr): the system's handle type
    if (hash == nullptr || hash->mark != kHashMark) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return hash;
}

bool Finish(Hash& hash) {
    if (hash.context && OpenSsl::Load()->EVP_DigestFinal_ex(hash.context.get(), hash.value, &hash.length) != 1) {
        return false;
    }
    hash.context.reset();
    return true;
}

} // namespace

BOOL CryptCreateHash(HCRYPTPROV provider, ALG_ID algorithm, HCRYPTKEY key, DWORD flags, HCRYPTHASH* hash) {
    if (!IsProvider(provider) || key != 0 || flags != 0 || hash == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    const Digest* const digest = FindDigest(provider, algorithm);
    if (digest == nullptr) {
        return Fail(static_cast<DWORD>(NTE_BAD_ALGID));
    }
    std::unique_ptr<Hash> made(new (std::nothrow) Hash);
    if (made) {
        made->context.reset(OpenSsl::Load()->EVP_MD_CTX_new());
    }
    if (!made || !made->context ||
        OpenSsl::Load()->EVP_DigestInit_ex(made->context.get(), digest->method, nullptr) != 1) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
    *hash = reinterpret_cast<HCRYPTHASH>(made.release());
    return TRUE;
}

BOOL CryptHashData(HCRYPTHASH handle, const BYTE* data, DWORD length, DWORD flags) {
    Hash* const hash = FindHash(handle);
    if (hash == nullptr) {
        return FALSE;
    }
    if ((data == nullptr && length > 0) || flags != 0) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (!hash->context) {
        return Fail(static_cast<DWORD>(NTE_BAD_HASH_STATE));
    }
    return OpenSsl::Load()->EVP_DigestUpdate(hash->context.get(), data, length) == 1 ? TRUE : Fail(ERROR_GEN_FAILURE);
}

BOOL CryptGetHashParam(HCRYPTHASH handle, DWORD parameter, BYTE* data, DWORD* length, DWORD flags) {
    Hash* const hash = FindHash(handle);
    if (hash == nullptr) {
        return FALSE;
    }
    if (parameter != HP_HASHVAL || data == nullptr || length == nullptr || flags != 0) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (!Finish(*hash)) {
        return Fail(ERROR_GEN_FAILURE);
    }
    const DWORD room = *length;
    *length = hash->length;
    if (room < hash->length) {
        return Fail(ERROR_MORE_DATA);
    }
    std::memcpy(data, hash->value, hash->length);
    return TRUE;
}

BOOL CryptDestroyHash(HCRYPTHASH handle) {
    Hash* const hash = FindHash(handle);
    delete hash;
    return hash != nullptr ? TRUE : FALSE;
}

} // namespace Vantor::Sentrix::Platform
