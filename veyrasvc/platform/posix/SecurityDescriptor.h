// Security descriptors, kept in as much detail as somebody here asks for: who is granted what.
#pragma once

#include "veyrasvc/platform/posix/Win32Subset.h"

namespace Vantor::Sentrix::Platform {

// Whether the attributes let every account of the machine read and write. Null attributes or a descriptor without an
// access list mean default security, which does not; an access list that is present but null denies nobody anything.
// Requires: a descriptor made by the calls of this stand-in. Nothing of it is needed after the call.
bool AllowsEveryone(const SECURITY_ATTRIBUTES* attributes);

} // namespace Vantor::Sentrix::Platform
