// Anonymous pipes, the standard streams, and which of these a child may have.
#include "veyrasvc/platform/posix/File.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Vantor::Sentrix::Platform {

namespace {

HANDLE BorrowStream(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0) {
        return nullptr; // this process was started without it
    }
    const int mode = flags & O_ACCMODE;
    const DWORD access = (mode != O_WRONLY ? GENERIC_READ : 0) | (mode != O_RDONLY ? GENERIC_WRITE : 0);
    return AddHandle(MakeObject<File>(descriptor, access, true, File::Ownership::kBorrowed));
}

// One handle a stream, the same at every call.
HANDLE Stream(int descriptor) {
    static const HANDLE handles[] = {BorrowStream(STDIN_FILENO), BorrowStream(STDOUT_FILENO),
                                     BorrowStream(STDERR_FILENO)};
    return handles[descriptor];
}

} // namespace

BOOL CreatePipe(HANDLE* readEnd, HANDLE* writeEnd, SECURITY_ATTRIBUTES* attributes, DWORD /*size*/) {
    if (readEnd == nullptr || writeEnd == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return Fail(ErrorFromErrno(errno));
    }
    const bool inheritable = attributes != nullptr && attributes->bInheritHandle != FALSE;
    const HANDLE reader = AddFile(ends[0], GENERIC_READ, inheritable);
    const HANDLE writer = AddFile(ends[1], GENERIC_WRITE, inheritable);
    if (reader == nullptr || writer == nullptr) {
        const DWORD error = GetLastError();
        CloseHandle(reader);
        CloseHandle(writer);
        return Fail(error);
    }
    *readEnd = reader;
    *writeEnd = writer;
    return TRUE;
}

BOOL SetHandleInformation(HANDLE handle, DWORD mask, DWORD flags) {
    const auto file = Find<File>(handle);
    if (!file) {
        return FALSE;
    }
    if (mask != HANDLE_FLAG_INHERIT) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    file->SetInheritable((flags & HANDLE_FLAG_INHERIT) != 0);
    return TRUE;
}

HANDLE GetStdHandle(DWORD which) {
    switch (which) {
    case STD_INPUT_HANDLE:
        return Stream(STDIN_FILENO);
    case STD_OUTPUT_HANDLE:
        return Stream(STDOUT_FILENO);
    case STD_ERROR_HANDLE:
        return Stream(STDERR_FILENO);
    default:
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_HANDLE_VALUE;
    }
}

} // namespace Vantor::Sentrix::Platform
