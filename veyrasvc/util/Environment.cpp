#include "veyrasvc/util/Environment.h"

#include "veyrasvc/platform/Win32.h"

namespace Vantor::Sentrix {

std::string EnvironmentText(const char* name) {
    std::string text;
    DWORD length = GetEnvironmentVariableA(name, nullptr, 0);
    while (length > text.size()) { // the size that is asked for counts a final zero, the length of what came does not
        text.resize(length);
        length = GetEnvironmentVariableA(name, text.data(), length);
    }
    text.resize(length);
    return text;
}

} // namespace Vantor::Sentrix
