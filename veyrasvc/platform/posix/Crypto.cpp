// Provider contexts, and the random source: the kernel's.
#include "veyrasvc/platform/posix/CryptoProvider.h"
#include "veyrasvc/platform/posix/Handle.h"

#include <sys/random.h>

#include <cerrno>

namespace Vantor::Sentrix::Platform {

namespace {

BOOL AcquireContext(HCRYPTPROV* provider, bool isDefault, DWORD type, DWORD flags) {
    if (provider == nullptr || !isDefault || (type != PROV_RSA_FULL && type != PROV_RSA_AES) ||
        flags != CRYPT_VERIFYCONTEXT) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    *provider = type == PROV_RSA_FULL ? kFullContext : kAesContext;
    return TRUE;
}

} // namespace

BOOL CryptAcquireContextA(HCRYPTPROV* provider, LPCSTR container, LPCSTR providerName, DWORD type, DWORD flags) {
    return AcquireContext(provider, container == nullptr && providerName == nullptr, type, flags);
}

BOOL CryptAcquireContextW(HCRYPTPROV* provider, LPCWSTR container, LPCWSTR providerName, DWORD type, DWORD flags) {
    return AcquireContext(provider, container == nullptr && providerName == nullptr, type, flags);
}

BOOL CryptGenRandom(HCRYPTPROV provider, DWORD length, BYTE* buffer) {
    if (!IsProvider(provider) || (buffer == nullptr && length > 0)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    for (DWORD done = 0; done < length;) {
        const auto got = getrandom(buffer + done, length - done, 0);
        if (got < 0 && errno != EINTR) {
            return Fail(ErrorFromErrno(errno));
        }
        done += got < 0 ? 0 : static_cast<DWORD>(got);
    }
    return TRUE;
}

BOOL CryptReleaseContext(HCRYPTPROV provider, DWORD flags) {
    return IsProvider(provider) && flags == 0 ? TRUE : Fail(ERROR_INVALID_PARAMETER);
}

} // namespace Vantor::Sentrix::Platform
