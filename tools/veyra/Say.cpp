#include "tools/veyra/Say.h"

#include "tools/support/StandardIo.h"

#include <string>

namespace Vantor::Sentrix::Tool {

void Say(std::string_view text) {
    Support::WriteTalk("veyra: " + std::string(text) + '\n');
}

} // namespace Vantor::Sentrix::Tool
