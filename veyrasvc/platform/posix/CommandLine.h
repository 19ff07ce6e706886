// Command lines as Windows programs take them apart.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Platform {

// The arguments, the program's name first. Arguments stand between blanks or tabs. Quotation marks group; before one,
// two backslashes mean one, and an odd one makes the mark a plain character; elsewhere backslashes are themselves. The
// program's name knows quotation marks only.
std::vector<std::wstring> SplitCommandLine(std::wstring_view line);

} // namespace Vantor::Sentrix::Platform
