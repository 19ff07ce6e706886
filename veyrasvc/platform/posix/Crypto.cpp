// The provider's random source: the kernel's.
#include "veyrasvc/platform/posix/Handle.h"

#include <sys/random.h>

#include <cerrno>

namespace Vantor::Sentrix::Platform {

namespace {

// A verify-only context keeps no state, so that all of them are this one.
constexpr HCRYPTPROV kContext = 0x56435250;

} // namespace

BOOL CryptAcquireContextA(HCRYPTPROV* provider, LPCSTR container, LPCSTR providerName, DWORD type, DWORD flags) {
    if (provider == nullptr || container != nullptr || providerName != nullptr || type != PROV_RSA_AES ||
        flags != CRYPT_VERIFYCONTEXT) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    *provider = kContext;
    return TRUE;
}

BOOL CryptGenRandom(HCRYPTPROV provider, DWORD length, BYTE* buffer) {
    if (provider != kContext || (buffer == nullptr && length > 0)) {
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
    return provider == kContext && flags == 0 ? TRUE : Fail(ERROR_INVALID_PARAMETER);
}

} // namespace Vantor::Sentrix::Platform
