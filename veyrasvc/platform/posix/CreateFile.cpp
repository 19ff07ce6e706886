// CreateFileA and CreateFileW: opening files, and the way to the client end of a pipe.
#include "veyrasvc/platform/posix/File.h"
#include "veyrasvc/platform/posix/PipeClient.h"
#include "veyrasvc/platform/posix/ShareMode.h"
#include "veyrasvc/platform/posix/UniqueFd.h"
#include "veyrasvc/platform/posix/Utf8.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cwchar>
#include <string>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr wchar_t kPipePrefix[] = L"\\\\.\\pipe\\";
constexpr mode_t kNewFileMode = 0666; // less what the process's umask takes away
// Attributes of a file that does not exist here mean nothing; of the flags, only write-through does.
constexpr DWORD kAttributeBits = 0xFFFF;

bool IsPipeName(LPCWSTR name) {
    for (const wchar_t* expected = kPipePrefix; *expected != L'\0'; ++expected, ++name) {
        const wchar_t unit = *name >= L'A' && *name <= L'Z' ? *name + (L'a' - L'A') : *name;
        if (unit != *expected) {
            return false;
        }
    }
    return true;
}

// GENERIC_ALL spelled out.
DWORD ReadWriteBits(DWORD access) {
    return (access & GENERIC_ALL) != 0 ? GENERIC_READ | GENERIC_WRITE : access & (GENERIC_READ | GENERIC_WRITE);
}

int OpenRetrying(const std::string& path, int flags) {
    int descriptor = -1;
    do {
        descriptor = open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, kNewFileMode);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

// Opens the file, or makes it when that is asked for; `existed` tells which. Never truncates: that has to wait until
// the share mode is known to allow it.
int OpenOrMake(const std::string& path, DWORD access, DWORD disposition, DWORD flags, bool& existed) {
    const bool writes = (access & GENERIC_WRITE) != 0 || disposition == CREATE_ALWAYS;
    const bool reads = (access & GENERIC_READ) != 0;
    const int mode =
        (writes ? (reads ? O_RDWR : O_WRONLY) : O_RDONLY) | ((flags & FILE_FLAG_WRITE_THROUGH) != 0 ? O_DSYNC : 0);
    for (;;) {
        existed = true;
        int descriptor = OpenRetrying(path, mode);
        if (descriptor >= 0 || errno != ENOENT || disposition != CREATE_ALWAYS) {
            return descriptor;
        }
        existed = false;
        descriptor = OpenRetrying(path, mode | O_CREAT | O_EXCL);
        if (descriptor >= 0 || errno != EEXIST) {
            return descriptor;
        }
        // Somebody made it in between. A link that leads nowhere is there as well, and would be for ever.
        struct stat status {};
        if (stat(path.c_str(), &status) != 0 && errno == ENOENT) {
            return -1;
        }
    }
}

// "No such file" and "no such directory" are two errors.
DWORD OpenError(int error, const std::string& path) {
    if (error == ENOENT) {
        const auto slash = path.find_last_of('/');
        const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
        return path.empty() || access(folder.c_str(), F_OK) != 0 ? ERROR_PATH_NOT_FOUND : ERROR_FILE_NOT_FOUND;
    }
    return ErrorFromErrno(error);
}

// The checks that need the opened file; NO_ERROR when it may be used.
DWORD Settle(int descriptor, DWORD access, DWORD share, DWORD disposition, UniqueFd& marks) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        return ErrorFromErrno(errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return ERROR_ACCESS_DENIED;
    }
    if (!S_ISREG(status.st_mode)) {
        return NO_ERROR;
    }
    if (!ClaimShare(descriptor, access, share, marks)) {
        return ERROR_SHARING_VIOLATION;
    }
    if (disposition == CREATE_ALWAYS && status.st_size > 0 && ftruncate(descriptor, 0) != 0) {
        return ErrorFromErrno(errno);
    }
    return NO_ERROR;
}

HANDLE Failed(DWORD error) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
}

HANDLE OpenRegularFile(const std::string& path, DWORD access, DWORD share, const SECURITY_ATTRIBUTES* attributes,
                       DWORD disposition, DWORD flags) {
    constexpr DWORD kKnownFlags = kAttributeBits | FILE_FLAG_WRITE_THROUGH;
    if ((disposition != CREATE_ALWAYS && disposition != OPEN_EXISTING) || (flags & ~kKnownFlags) != 0) {
        return Failed(ERROR_INVALID_PARAMETER);
    }
    bool existed = false;
    UniqueFd descriptor(OpenOrMake(path, ReadWriteBits(access), disposition, flags, existed));
    if (!descriptor.Valid()) {
        return Failed(OpenError(errno, path));
    }
    UniqueFd marks;
    const DWORD error = Settle(descriptor.Get(), ReadWriteBits(access), share, disposition, marks);
    if (error != NO_ERROR) {
        return Failed(error);
    }
    const bool inheritable = attributes != nullptr && attributes->bInheritHandle != FALSE;
    const HANDLE handle = AddHandle(std::make_shared<File>(descriptor.Release(), ReadWriteBits(access), inheritable,
                                                           File::Ownership::kOwned, std::move(marks)));
    if (handle == nullptr) {
        return INVALID_HANDLE_VALUE;
    }
    SetLastError(disposition == CREATE_ALWAYS && existed ? ERROR_ALREADY_EXISTS : NO_ERROR);
    return handle;
}

} // namespace

HANDLE CreateFileA(LPCSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    if (name == nullptr || templateFile != nullptr) {
        return Failed(ERROR_INVALID_PARAMETER);
    }
    // A narrow file name is the system's own bytes, whatever they spell; only a pipe's name has to be text.
    std::wstring wide;
    const DWORD before = GetLastError();
    if (Utf8ToWide(name, wide) && IsPipeName(wide.c_str())) {
        return CreateFileW(wide.c_str(), access, share, attributes, disposition, flags, templateFile);
    }
    SetLastError(before);
    return OpenRegularFile(name, access, share, attributes, disposition, flags);
}

HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    if (name == nullptr || templateFile != nullptr) {
        return Failed(ERROR_INVALID_PARAMETER);
    }
    if (IsPipeName(name)) {
        return disposition == OPEN_EXISTING ? OpenPipeClient(name, access, flags) : Failed(ERROR_INVALID_PARAMETER);
    }
    std::string path;
    if (!WideToUtf8(name, path)) {
        return INVALID_HANDLE_VALUE;
    }
    return OpenRegularFile(path, access, share, attributes, disposition, flags);
}

} // namespace Vantor::Sentrix::Platform
