// GetModuleHandleA, LoadLibraryA and GetProcAddress: shared libraries of the dynamic linker.
#include "veyrasvc/platform/posix/Handle.h"

#include <dlfcn.h>

namespace Vantor::Sentrix::Platform {

namespace {

HMODULE Open(LPCSTR name, int flags) {
    if (name == nullptr) { // the program itself, for dlopen
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    HMODULE const library = dlopen(name, flags);
    if (library == nullptr) {
        SetLastError(ERROR_MOD_NOT_FOUND);
    }
    return library;
}

} // namespace

HMODULE GetModuleHandleA(LPCSTR name) {
    HMODULE const library = Open(name, RTLD_LAZY | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library); // the caller gets no reference
    }
    return library;
}

HMODULE LoadLibraryA(LPCSTR name) {
    return Open(name, RTLD_NOW | RTLD_LOCAL);
}

FARPROC GetProcAddress(HMODULE library, LPCSTR name) {
    const auto function =
        library == nullptr || name == nullptr ? nullptr : reinterpret_cast<FARPROC>(dlsym(library, name));
    if (function == nullptr) {
        SetLastError(ERROR_PROC_NOT_FOUND);
    }
    return function;
}

} // namespace Vantor::Sentrix::Platform
