// Collects the exit status of children that nobody has a handle to any more, so that none stays a zombie.
#pragma once

#include "veyrasvc/platform/posix/UniqueFd.h"

#include <list>

namespace Vantor::Sentrix::Platform {

// A child's pidfd on a list of its own, so that to hand it on takes no memory.
using Child = std::list<UniqueFd>;

// Owns: the child. One thread waits for all such children; it exists only while there are any.
void ReapWhenEnded(Child child);

} // namespace Vantor::Sentrix::Platform
