// Collects the exit status of children that nobody has a handle to any more, so that none stays a zombie.
#pragma once

#include "veyrasvc/platform/posix/UniqueFd.h"

namespace Vantor::Sentrix::Platform {

// Owns: the child's pidfd. One thread waits for all such children; it exists only while there are any.
void ReapWhenEnded(UniqueFd child);

} // namespace Vantor::Sentrix::Platform
