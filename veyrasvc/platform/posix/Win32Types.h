// The types and error codes of the calls in Win32Subset.h, as Microsoft documents them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Vantor::Sentrix::Platform {

// NOLINTBEGIN(readability-identifier-naming): the names are Microsoft's

// ---- Basic types ---------------------------------------------------------------------------------------------------

using BYTE = unsigned char;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using BOOL = int;
using UINT = unsigned int;
using LONGLONG = std::int64_t;
using ULONG_PTR = std::uintptr_t;
using SIZE_T = std::size_t;
using HANDLE = void*;
using HLOCAL = void*;
using LPCWSTR = const wchar_t*;
using LPWSTR = wchar_t*;
using LPCSTR = const char*;
using PUCHAR = unsigned char*;

union LARGE_INTEGER {
    struct Parts {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};

struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    void* lpSecurityDescriptor;
    BOOL bInheritHandle;
};

// Internal holds the outcome (the pending mark below, else 0 or the error code), InternalHigh the bytes transferred.
struct OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent;
};

constexpr BOOL FALSE = 0;
constexpr BOOL TRUE = 1;
constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;
inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(std::intptr_t{-1});

// ---- Errors --------------------------------------------------------------------------------------------------------

constexpr DWORD NO_ERROR = 0;
constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_HANDLE_EOF = 38;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_BROKEN_PIPE = 109;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_SEM_TIMEOUT = 121;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_INVALID_LEVEL = 124;
constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
constexpr DWORD ERROR_PROC_NOT_FOUND = 127;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_ENVVAR_NOT_FOUND = 203;
constexpr DWORD ERROR_PIPE_BUSY = 231;
constexpr DWORD ERROR_PIPE_NOT_CONNECTED = 233;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD ERROR_NOT_OWNER = 288;
constexpr DWORD ERROR_INVALID_ADDRESS = 487;
constexpr DWORD ERROR_PIPE_LISTENING = 536;
constexpr DWORD ERROR_HANDLES_CLOSED = 676;
constexpr DWORD ERROR_ABANDONED_WAIT_0 = 735;
constexpr DWORD ERROR_OPERATION_ABORTED = 995;
constexpr DWORD ERROR_IO_INCOMPLETE = 996;
constexpr DWORD ERROR_IO_PENDING = 997;
constexpr DWORD ERROR_OLD_WIN_VERSION = 1150;
constexpr DWORD ERROR_RESOURCE_TYPE_NOT_FOUND = 1813;

DWORD GetLastError();
void SetLastError(DWORD error);

// NOLINTEND(readability-identifier-naming)

} // namespace Vantor::Sentrix::Platform
