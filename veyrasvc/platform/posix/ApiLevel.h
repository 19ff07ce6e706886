// The version that every query of this stand-in reports: that of the Windows calls it offers, not that of the kernel.
// No product has the name of a server or a release for it, so no system is taken for a Windows that it is not.
#pragma once

#include "veyrasvc/platform/posix/Win32Subset.h"

namespace Vantor::Sentrix::Platform {

constexpr WORD kApiMajor = 10;
constexpr WORD kApiMinor = 0;

} // namespace Vantor::Sentrix::Platform
