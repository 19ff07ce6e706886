// What the kernel says of a thread of this process.
#pragma once

#include <sys/types.h>

namespace Vantor::Sentrix::Platform {

enum class ThreadState { kUnknown, kRunnable, kBlocked };

// Runnable: it has a processor, or would run if it got one. Unknown when it has ended, and when no descriptor is left.
// Takes a few microseconds and no memory.
ThreadState StateOf(pid_t thread);

} // namespace Vantor::Sentrix::Platform
