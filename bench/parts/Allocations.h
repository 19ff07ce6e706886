// Counts what a program allocates with operator new, in all of its code. Whoever links Allocations.cpp gets the count;
// no other program pays for it.
#pragma once

#include <cstddef>

namespace Vantor::Sentrix {

// Since the start of the program, on all threads.
std::size_t Allocations();

} // namespace Vantor::Sentrix
