#include "tools/veyra/Say.h"

#include "tools/support/Program.h"

namespace Vantor::Sentrix::Tool {

void Say(std::string_view text) {
    Support::Say("veyra", text);
}

} // namespace Vantor::Sentrix::Tool
