// The namespace that system-wide names live in, which keeps test runs and several users of one machine apart.
#pragma once

#include <string>

namespace Vantor::Sentrix::Platform {

// VEYRASVC_PIPE_NAMESPACE, or "local" when that is unset or empty. Read afresh by every call.
std::string PipeNamespace();

} // namespace Vantor::Sentrix::Platform
