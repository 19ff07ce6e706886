// Between wide strings (one wchar_t a character, as POSIX has them) and UTF-8.
#pragma once

#include "veyrasvc/platform/posix/Win32Subset.h"

#include <string>
#include <string_view>

namespace Vantor::Sentrix::Platform {

// Fails: false with ERROR_INVALID_NAME, leaving `utf8` empty, for a value that is no character: a surrogate or
// anything above U+10FFFF.
bool WideToUtf8(std::wstring_view wide, std::string& utf8);

// Fails: false with ERROR_INVALID_NAME, leaving `wide` empty, for bytes that are not well-formed UTF-8.
bool Utf8ToWide(std::string_view utf8, std::wstring& wide);

} // namespace Vantor::Sentrix::Platform
