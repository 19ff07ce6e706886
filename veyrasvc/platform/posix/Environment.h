// The process's environment. The C library's own calls race with each other; these exclude one another, and are the
// only ones the project uses.
#pragma once

#include <mutex>
#include <string>

namespace Vantor::Sentrix::Platform {

// Empty when the variable is unset.
std::string EnvironmentValue(const char* name);

// Held while the whole environment is handed to a new process.
std::mutex& EnvironmentMutex();

} // namespace Vantor::Sentrix::Platform
