// WaitForSingleObject and WaitForMultipleObjects.
#include "veyrasvc/platform/posix/BlockingWaitable.h"
#include "veyrasvc/platform/posix/Wait.h"
#include "veyrasvc/platform/posix/WorkPool.h"

#include <algorithm>
#include <span>

namespace Vantor::Sentrix::Platform {

namespace {

// An object that is waited for, and the waiter's place on its list.
struct Awaited {
    std::shared_ptr<Waitable> object;
    WaitLink link;
};
using Objects = std::span<Awaited>;
using Sources = Waiter::PolledList;

constexpr DWORD kNone = WAIT_FAILED;

// The lowest index wins, as the system promises.
DWORD AcquireFirst(Objects objects) {
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (objects[i].object->TryAcquire()) {
            return WAIT_OBJECT_0 + static_cast<DWORD>(i);
        }
    }
    return kNone;
}

// Puts a waiter on all the objects for one scope.
class Registration {
public:
    Registration(Objects objects, Waiter& waiter) : m_objects(objects) {
        for (Awaited& one : m_objects) {
            one.link.waiter = &waiter;
            one.object->AddWaiter(one.link);
        }
    }
    ~Registration() {
        for (Awaited& one : m_objects) {
            one.object->RemoveWaiter(one.link);
        }
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

private:
    const Objects m_objects;
};

// Lets every pipe behind the events move what it can, and collects them.
void MakeProgress(Objects objects, Sources& sources) {
    sources.Clear();
    for (const Awaited& one : objects) {
        auto source = one.object->Source();
        const auto known = [&](const Waiter::Polled& other) { return other.source == source; };
        if (source && std::none_of(sources.begin(), sources.end(), known)) {
            source->Progress(0);
            sources.Add(std::move(source));
        }
    }
}

// True when a source has something to wait for.
bool AskForDescriptors(Sources& sources) {
    bool any = false;
    for (auto& one : sources) {
        one.descriptor = one.source->PollDescriptor(one.events);
        any = any || one.descriptor >= 0;
    }
    return any;
}

void SleepOnce(Waiter& waiter, Sources& sources, std::int64_t timeoutMs) {
    if (!AskForDescriptors(sources)) {
        if (timeoutMs != 0) {
            waiter.Sleep(timeoutMs);
        }
        return;
    }
    waiter.SleepPolling(sources, timeoutMs);
    for (const auto& one : sources) {
        if (one.revents != 0) {
            one.source->Progress(one.revents);
        }
    }
}

DWORD WaitAny(Objects objects, DWORD milliseconds) {
    WakeForDeferredWork();
    if (const DWORD index = AcquireFirst(objects); index != kNone) {
        return index;
    }
    const Deadline deadline(milliseconds);
    Waiter& waiter = Waiter::OfThisThread();
    Sources sources;
    const Registration registration(objects, waiter);
    for (bool slept = false;; slept = true) {
        waiter.Prepare();
        MakeProgress(objects, sources);
        if (const DWORD index = AcquireFirst(objects); index != kNone) {
            return index;
        }
        if (slept && deadline.Passed()) {
            return WAIT_TIMEOUT;
        }
        SleepOnce(waiter, sources, deadline.Remaining());
    }
}

} // namespace

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    const auto object = FindObject(handle);
    if (auto waitable = std::dynamic_pointer_cast<Waitable>(object)) {
        if (waitable->TryAcquire()) {
            WakeForDeferredWork();
            return WAIT_OBJECT_0;
        }
        if (milliseconds == 0 && !waitable->Source()) {
            WakeForDeferredWork();
            return WAIT_TIMEOUT; // a look, as those who spin take many
        }
        Awaited awaited{std::move(waitable), {}};
        return WaitAny({&awaited, 1}, milliseconds);
    }
    if (const auto blocking = std::dynamic_pointer_cast<BlockingWaitable>(object)) {
        WakeForDeferredWork();
        return blocking->BlockingWait(milliseconds);
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || handles == nullptr || waitAll != FALSE) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    FixedVector<Awaited, MAXIMUM_WAIT_OBJECTS> objects;
    for (DWORD i = 0; i < count; ++i) {
        if (!objects.Add(Find<Waitable>(handles[i]), WaitLink()).object) {
            return WAIT_FAILED;
        }
    }
    return WaitAny({objects.begin(), objects.end()}, milliseconds);
}

} // namespace Vantor::Sentrix::Platform
