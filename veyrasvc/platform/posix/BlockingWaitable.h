// Objects that know how to wait for themselves: their signal comes from the kernel, not from a call of this process.
// WaitForSingleObject takes them, WaitForMultipleObjects does not.
#pragma once

#include "veyrasvc/platform/posix/Handle.h"

namespace Vantor::Sentrix::Platform {

class BlockingWaitable : public Object {
public:
    // WAIT_OBJECT_0, WAIT_ABANDONED or WAIT_TIMEOUT; WAIT_FAILED with the last error set. INFINITE waits without limit.
    virtual DWORD BlockingWait(DWORD milliseconds) = 0;
};

} // namespace Vantor::Sentrix::Platform
