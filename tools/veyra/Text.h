// Bytes as text for people and for scripts.
// Threads: any.
#pragma once

#include <string>
#include <string_view>

namespace Vantor::Sentrix::Tool {

// In double quotes on one line; what is no printable ASCII is escaped as in C: \n, \", \\, \x1b.
std::string Quoted(std::string_view bytes);

bool IsUtf8(std::string_view bytes);

// A JSON string with its quotes. Requires: IsUtf8(text).
std::string JsonString(std::string_view text);

std::string Base64(std::string_view bytes);

} // namespace Vantor::Sentrix::Tool
