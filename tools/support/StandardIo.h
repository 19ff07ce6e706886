// The standard streams, byte by byte: no line end is translated on any system.
// Threads: any; a write is one piece unless the system splits it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Vantor::Sentrix::Support {

// While it lives, a console shows what is written as the UTF-8 that it is. Without a console it does nothing.
class Utf8Console {
public:
    Utf8Console();
    ~Utf8Console();
    Utf8Console(const Utf8Console&) = delete;
    Utf8Console& operator=(const Utf8Console&) = delete;

private:
    const unsigned int m_before; // 0: there is no console
};

// Data goes to standard output. Fails: false when it takes no more.
bool WriteOutput(std::string_view bytes);

// Talk goes to standard error.
void WriteTalk(std::string_view text);

// All of standard input. Fails: nothing when it cannot be read or holds more than `limit` bytes.
std::optional<std::string> ReadInput(std::size_t limit);

// The same of a file.
std::optional<std::string> ReadFileBytes(const std::string& path, std::size_t limit);

// Fails: false; a part of the file may remain.
bool WriteFileBytes(const std::string& path, std::string_view bytes);

} // namespace Vantor::Sentrix::Support
