// UTF-8, in which the programs keep their texts, to and from the wide strings of the Windows calls.
//
// A wchar_t is a UTF-16 unit on Windows and a character elsewhere; both are handled. Bytes that are no UTF-8 and
// surrogates without a partner become U+FFFD, so a conversion never fails.
// Threads: any.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Vantor::Sentrix::Support {

std::wstring WideFromUtf8(std::string_view text);
std::string Utf8FromWide(std::wstring_view text);

// File names: elsewhere than on Windows any bytes may be one, and stay as they are.
std::filesystem::path PathFromUtf8(std::string_view text);
std::string Utf8FromPath(const std::filesystem::path& path);

} // namespace Vantor::Sentrix::Support
