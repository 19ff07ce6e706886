// The only door to the operating system. On Windows it is the system's own headers; elsewhere it is posix/,
// a stand-in for exactly the services that this project calls, under the same names and with the same results.
// README.md beside this file has one row for every call.
#pragma once

#ifdef _WIN32

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef NOGDI
#define NOGDI
#endif
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0A00
#endif

#include <windows.h>

#include <aclapi.h>
#include <bcrypt.h>
#include <lmcons.h>
// Needs what lmcons.h names.
#include <lmapibuf.h>
#include <lmerr.h>
#include <lmwksta.h>
#include <psapi.h>
#include <sddl.h>
#include <wincrypt.h>
#include <winternl.h>
#include <winver.h>

// Macros of the system headers that collide with ordinary names.
#undef ERROR
#undef DELETE
#undef interface
#undef small
#undef near
#undef far
#undef GetMessage
#undef SendMessage
#undef Yield

namespace Vantor::Sentrix {

// The system's headers leave these out.
inline const auto ThreadSystemThreadInformation = static_cast<THREADINFOCLASS>(40);
constexpr ULONG StateWait = 5;

} // namespace Vantor::Sentrix

#else

#include "veyrasvc/platform/posix/Win32Subset.h"

namespace Vantor::Sentrix {
using namespace Platform; // NOLINT(google-build-using-namespace): the stand-in's names are the library's vocabulary
}

#endif
