// WaitForSingleObject and WaitForMultipleObjects.
#include "veyrasvc/platform/posix/BlockingWaitable.h"
#include "veyrasvc/platform/posix/Wait.h"
#include "veyrasvc/platform/posix/WorkPool.h"

#include <algorithm>

namespace Vantor::Sentrix::Platform {

namespace {

using Objects = std::vector<std::shared_ptr<Waitable>>;

constexpr DWORD kNone = WAIT_FAILED;

// The lowest index wins, as the system promises.
DWORD AcquireFirst(const Objects& objects) {
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (objects[i]->TryAcquire()) {
            return WAIT_OBJECT_0 + static_cast<DWORD>(i);
        }
    }
    return kNone;
}

// Puts a waiter on all the objects for one scope.
class Registration {
public:
    Registration(const Objects& objects, Waiter& waiter) : m_objects(objects), m_waiter(waiter) {
        for (const auto& object : m_objects) {
            object->AddWaiter(&m_waiter);
        }
    }
    ~Registration() {
        for (const auto& object : m_objects) {
            object->RemoveWaiter(&m_waiter);
        }
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

private:
    const Objects& m_objects;
    Waiter& m_waiter;
};

using Sources = std::vector<Waiter::Polled>;

// Lets every pipe behind the events move what it can, and collects them.
void MakeProgress(const Objects& objects, Sources& sources) {
    sources.clear();
    for (const auto& object : objects) {
        auto source = object->Source();
        const auto known = [&](const Waiter::Polled& one) { return one.source == source; };
        if (source && std::none_of(sources.begin(), sources.end(), known)) {
            source->Progress(0);
            sources.push_back({std::move(source), -1, 0, 0});
        }
    }
}

// Keeps the sources that have something to wait for.
void AskForDescriptors(Sources& sources) {
    for (auto& one : sources) {
        one.descriptor = one.source->PollDescriptor(one.events);
    }
    std::erase_if(sources, [](const Waiter::Polled& one) { return one.descriptor < 0; });
}

void SleepOnce(Waiter& waiter, Sources& sources, std::int64_t timeoutMs) {
    AskForDescriptors(sources);
    if (sources.empty()) {
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

DWORD WaitAny(const Objects& objects, DWORD milliseconds) {
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
        return WaitAny({std::move(waitable)}, milliseconds);
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
    Objects objects;
    objects.reserve(count);
    for (DWORD i = 0; i < count; ++i) {
        objects.push_back(Find<Waitable>(handles[i]));
        if (!objects.back()) {
            return WAIT_FAILED;
        }
    }
    return WaitAny(objects, milliseconds);
}

} // namespace Vantor::Sentrix::Platform
