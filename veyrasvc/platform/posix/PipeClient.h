// The client end of a named pipe, as CreateFileW opens it.
#pragma once

#include "veyrasvc/platform/posix/Win32Subset.h"

namespace Vantor::Sentrix::Platform {

// `name` starts with \\.\pipe\ in any case of letters.
// Fails: INVALID_HANDLE_VALUE with the last error set.
HANDLE OpenPipeClient(LPCWSTR name, DWORD access, DWORD flags);

} // namespace Vantor::Sentrix::Platform
