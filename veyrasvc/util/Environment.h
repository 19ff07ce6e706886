// The environment of the process.
#pragma once

#include <string>

namespace Vantor::Sentrix {

// Empty when there is no such variable.
std::string EnvironmentText(const char* name);

} // namespace Vantor::Sentrix
