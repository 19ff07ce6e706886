// The provider contexts. A verify-only context keeps no state, so that all of one type are one.
#pragma once

#include "veyrasvc/platform/posix/Win32Subset.h"

namespace Vantor::Sentrix::Platform {

constexpr HCRYPTPROV kFullContext = 0x56435246; // of PROV_RSA_FULL
constexpr HCRYPTPROV kAesContext = 0x56435250;  // of PROV_RSA_AES

constexpr bool IsProvider(HCRYPTPROV provider) {
    return provider == kFullContext || provider == kAesContext;
}

} // namespace Vantor::Sentrix::Platform
