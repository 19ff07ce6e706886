// Handles: numbers that name reference-counted system objects.
//
// A HANDLE is an index into a process-wide table joined with the generation of its slot, so a handle that was closed
// is recognised (ERROR_INVALID_HANDLE) even after its slot is used again. Looking one up takes a reference: an object
// that one thread closes stays alive until the calls that already work on it have returned.
#pragma once

#include "veyrasvc/platform/posix/Win32Subset.h"

#include <memory>
#include <new>
#include <utility>

namespace Vantor::Sentrix::Platform {

class Object {
public:
    virtual ~Object() = default;

    // Called once, by CloseHandle, when the object's only handle is gone; references may still exist.
    virtual void OnClose() {}

protected:
    Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
};

// Fails: null with ERROR_TOO_MANY_OPEN_FILES when the table is full, or ERROR_NOT_ENOUGH_MEMORY. Null stays null.
HANDLE AddHandle(std::shared_ptr<Object> object);

// Calls `body`, for which memory may run short: `failure` with ERROR_NOT_ENOUGH_MEMORY then.
template <class Result, class Body> Result IfMemoryLasts(Result failure, Body&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return failure;
    }
}

// Null with ERROR_NOT_ENOUGH_MEMORY when memory is short.
template <class T, class... Arguments> std::shared_ptr<T> MakeObject(Arguments&&... arguments) {
    return IfMemoryLasts(std::shared_ptr<T>(),
                         [&] { return std::make_shared<T>(std::forward<Arguments>(arguments)...); });
}

// Null when the handle names nothing. Leaves the last error alone.
std::shared_ptr<Object> FindObject(HANDLE handle);

// The object behind the handle if it is a T, else null with ERROR_INVALID_HANDLE.
template <class T> std::shared_ptr<T> Find(HANDLE handle) {
    auto found = std::dynamic_pointer_cast<T>(FindObject(handle));
    if (!found) {
        SetLastError(ERROR_INVALID_HANDLE);
    }
    return found;
}

// FALSE with the error set, for `return Fail(ERROR_...)`.
inline BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

// The Windows error code for an errno value.
DWORD ErrorFromErrno(int errnoValue);

} // namespace Vantor::Sentrix::Platform
