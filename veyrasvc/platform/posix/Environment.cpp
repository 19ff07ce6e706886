#include "veyrasvc/platform/posix/Environment.h"

#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/Namespace.h"
#include "veyrasvc/platform/posix/Utf8.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Vantor::Sentrix::Platform {

std::mutex& EnvironmentMutex() {
    static auto* const mutex = new std::mutex; // never destroyed: threads may run while the process exits
    return *mutex;
}

std::string EnvironmentValue(const char* name) {
    const std::lock_guard guard(EnvironmentMutex());
    const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe)
    return value == nullptr ? std::string() : std::string(value);
}

std::string PipeNamespace() {
    std::string value = EnvironmentValue("VEYRASVC_PIPE_NAMESPACE");
    return value.empty() ? "local" : value;
}

BOOL SetEnvironmentVariableW(LPCWSTR name, LPCWSTR value) {
    std::string narrowName;
    std::string narrowValue;
    if (name == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    const bool isText = IfMemoryLasts(
        false, [&] { return WideToUtf8(name, narrowName) && (value == nullptr || WideToUtf8(value, narrowValue)); });
    if (!isText) {
        return FALSE;
    }
    const std::lock_guard guard(EnvironmentMutex());
    const int result = value == nullptr
                           ? unsetenv(narrowName.c_str())                        // NOLINT(concurrency-mt-unsafe)
                           : setenv(narrowName.c_str(), narrowValue.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    return result == 0 ? TRUE : Fail(ErrorFromErrno(errno));
}

DWORD GetEnvironmentVariableA(LPCSTR name, char* value, DWORD size) {
    const std::lock_guard guard(EnvironmentMutex());
    const char* found = name == nullptr ? nullptr : std::getenv(name); // NOLINT(concurrency-mt-unsafe)
    if (found == nullptr) {
        SetLastError(name == nullptr ? ERROR_INVALID_PARAMETER : ERROR_ENVVAR_NOT_FOUND);
        return 0;
    }
    const std::size_t length = std::strlen(found);
    if (length >= size) {
        return static_cast<DWORD>(length + 1);
    }
    std::memcpy(value, found, length + 1);
    return static_cast<DWORD>(length);
}

} // namespace Vantor::Sentrix::Platform
