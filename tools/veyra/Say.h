// What the program has to say to its user.
#pragma once

#include <string_view>

namespace Vantor::Sentrix::Tool {

// "veyra: TEXT" on a line of its own, to standard error.
void Say(std::string_view text);

} // namespace Vantor::Sentrix::Tool
