// Tells whether a thread that makes no progress computes or is blocked.
#pragma once

#include "veyrasvc/platform/Win32.h"

namespace Vantor::Sentrix {

// Of the thread that makes it; any thread may ask.
// Lifetime: may outlive that thread; what it says then means nothing.
class ThreadProbe {
public:
    // Fails: a probe that cannot be had answers every question with false.
    ThreadProbe();
    ~ThreadProbe();
    ThreadProbe(const ThreadProbe&) = delete;
    ThreadProbe& operator=(const ThreadProbe&) = delete;

    // True when the thread runs or waits for a processor; false when it is blocked, or the system does not tell. Takes
    // some microseconds and no memory.
    // Threads: any.
    bool IsRunnable() const;

private:
    const HANDLE m_thread;
};

} // namespace Vantor::Sentrix
