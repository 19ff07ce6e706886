// File handles as the file streams use them: every failure is -1.
#pragma once

#include "veyrasvc/platform/Win32.h"

#include <cstdint>
#include <string>

namespace Vantor::Sentrix {

// Opens a file in a FileStream::Mode. Owns: the caller, who ends the handle with CloseFileHandle.
// Fails: INVALID_HANDLE_VALUE, for a mode that does not exist without touching the file system.
HANDLE OpenFileHandle(const std::string& name, std::uint16_t mode);
HANDLE OpenFileHandle(const std::wstring& name, std::uint16_t mode);
void CloseFileHandle(HANDLE handle);

// The bytes moved, or the new position; -1 on failure or for a null handle. A write that fails partway gives the bytes
// that the file has; the position is behind them.
std::int64_t ReadFileHandle(HANDLE handle, void* buffer, unsigned int count);
std::int64_t WriteFileHandle(HANDLE handle, const void* buffer, unsigned int count);
std::int64_t SeekFileHandle(HANDLE handle, std::int64_t offset, int origin);

} // namespace Vantor::Sentrix
