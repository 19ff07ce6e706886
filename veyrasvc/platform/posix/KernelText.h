// The texts in which the kernel tells its counters.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Vantor::Sentrix::Platform {

// Fails: false when the file cannot be read; `text` may have a part of it then.
bool ReadWhole(const std::string& path, std::string& text);

// The bytes behind "Name:   1234 kB"; 0 when the kernel does not count that, as for a process that has ended.
std::uint64_t BytesOf(std::string_view text, std::string_view name);

} // namespace Vantor::Sentrix::Platform
