// Files through their descriptors. Reading and writing loop until the request is served, as the system's files do;
// only a stream hands out what it has.
#include "veyrasvc/platform/posix/File.h"

#include "veyrasvc/platform/posix/Event.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace Vantor::Sentrix::Platform {

namespace {

bool IsStream(int descriptor) {
    struct stat status {};
    return fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

// Calls `step(done)` until `count` bytes are moved, nothing more comes, or it fails. The bytes moved; -1 with errno
// when the first step failed.
template <class Step> long MoveAll(DWORD count, bool wholeOnly, Step step) {
    DWORD done = 0;
    while (done < count) {
        const ssize_t moved = step(done);
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved < 0) {
            return done > 0 && !wholeOnly ? static_cast<long>(done) : -1L;
        }
        if (moved == 0) {
            break;
        }
        done += static_cast<DWORD>(moved);
    }
    return done;
}

// Keeps a write to a pipe without a reader from raising SIGPIPE: the caller gets an error code instead. A signal that
// was pending before stays pending.
class NoPipeSignal {
public:
    NoPipeSignal() {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }
    ~NoPipeSignal() {
        const int error = errno;
        if (!m_wasPending) {
            const timespec atOnce{};
            while (sigtimedwait(&m_pipe, nullptr, &atOnce) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        errno = error;
    }
    NoPipeSignal(const NoPipeSignal&) = delete;
    NoPipeSignal& operator=(const NoPipeSignal&) = delete;

private:
    sigset_t m_pipe{};
    sigset_t m_before{};
    bool m_wasPending = false;
};

off_t OffsetOf(const OVERLAPPED& overlapped) {
    return static_cast<off_t>((std::uint64_t{overlapped.OffsetHigh} << 32) | overlapped.Offset);
}

} // namespace

File::File(int descriptor, DWORD access, bool inheritable, Ownership ownership, UniqueFd marks)
    : m_descriptor(descriptor), m_access(access), m_ownership(ownership), m_marks(std::move(marks)),
      m_isStream(IsStream(descriptor)), m_inheritable(inheritable) {}

File::~File() {
    if (m_ownership == Ownership::kOwned) {
        close(m_descriptor);
    }
}

HANDLE AddFile(int descriptor, DWORD access, bool inheritable) {
    auto file = MakeObject<File>(descriptor, access, inheritable);
    if (!file) {
        close(descriptor);
    }
    return AddHandle(std::move(file));
}

// Reports the outcome of a transfer where the caller looks for it.
BOOL File::Deliver(long result, bool endIsError, DWORD* transferred, OVERLAPPED* overlapped) {
    DWORD error = result < 0 ? ErrorFromErrno(errno) : NO_ERROR;
    const DWORD count = result < 0 ? 0 : static_cast<DWORD>(result);
    if (result == 0 && endIsError) {
        error = m_isStream ? ERROR_BROKEN_PIPE : ERROR_HANDLE_EOF;
    }
    if (transferred != nullptr) {
        *transferred = count;
    }
    if (overlapped != nullptr) {
        overlapped->Internal = error;
        overlapped->InternalHigh = count;
        if (const auto event = std::dynamic_pointer_cast<Event>(FindObject(overlapped->hEvent))) {
            event->Set();
        }
    }
    return error == NO_ERROR ? TRUE : Fail(error);
}

BOOL File::Read(void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) {
    if ((m_access & GENERIC_READ) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    auto* const bytes = static_cast<char*>(buffer);
    const bool positioned = overlapped != nullptr && !m_isStream;
    bool enough = false;
    const long result = MoveAll(count, false, [&](DWORD done) -> ssize_t {
        if (enough) {
            return 0;
        }
        enough = m_isStream;
        return positioned ? pread(m_descriptor, bytes + done, count - done, OffsetOf(*overlapped) + done)
                          : read(m_descriptor, bytes + done, count - done);
    });
    return Deliver(result, count > 0 && (m_isStream || positioned), transferred, overlapped);
}

BOOL File::Write(const void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) {
    if ((m_access & GENERIC_WRITE) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    const auto* const bytes = static_cast<const char*>(buffer);
    if (m_isStream) {
        const NoPipeSignal guard;
        return Deliver(
            MoveAll(count, true, [&](DWORD done) { return write(m_descriptor, bytes + done, count - done); }), false,
            transferred, overlapped);
    }
    DWORD written = 0;
    const long result = MoveAll(count, true, [&](DWORD done) {
        written = done;
        return overlapped != nullptr ? pwrite(m_descriptor, bytes + done, count - done, OffsetOf(*overlapped) + done)
                                     : write(m_descriptor, bytes + done, count - done);
    });
    const BOOL isDone = Deliver(result, false, transferred, overlapped);
    if (isDone == FALSE && transferred != nullptr) {
        *transferred = written; // the file has these, and its position is behind them
    }
    return isDone;
}

BOOL File::Seek(LONGLONG distance, LARGE_INTEGER* newPosition, DWORD method) {
    const int origins[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    if (method > FILE_END) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    const off_t position = lseek(m_descriptor, static_cast<off_t>(distance), origins[method]);
    if (position < 0) {
        return Fail(ErrorFromErrno(errno));
    }
    if (newPosition != nullptr) {
        newPosition->QuadPart = position;
    }
    return TRUE;
}

BOOL File::Truncate() {
    const off_t position = lseek(m_descriptor, 0, SEEK_CUR);
    if ((m_access & GENERIC_WRITE) == 0) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    int result = -1;
    do {
        result = position < 0 ? -1 : ftruncate(m_descriptor, position);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? TRUE : Fail(ErrorFromErrno(errno));
}

DWORD File::Type() const {
    struct stat status {};
    if (m_isStream) {
        return FILE_TYPE_PIPE;
    }
    if (fstat(m_descriptor, &status) != 0) {
        SetLastError(ErrorFromErrno(errno));
        return FILE_TYPE_UNKNOWN;
    }
    return S_ISCHR(status.st_mode) ? FILE_TYPE_CHAR : FILE_TYPE_DISK;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) {
    const auto object = Find<IoObject>(file);
    if (!object) {
        return FALSE;
    }
    if ((buffer == nullptr && count > 0) || (transferred == nullptr && overlapped == nullptr)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (transferred != nullptr) {
        *transferred = 0;
    }
    return object->Read(buffer, count, transferred, overlapped);
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) {
    const auto object = Find<IoObject>(file);
    if (!object) {
        return FALSE;
    }
    if ((buffer == nullptr && count > 0) || (transferred == nullptr && overlapped == nullptr)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (transferred != nullptr) {
        *transferred = 0;
    }
    return object->Write(buffer, count, transferred, overlapped);
}

BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* newPosition, DWORD method) {
    const auto object = Find<File>(file);
    return object ? object->Seek(distance.QuadPart, newPosition, method) : FALSE;
}

BOOL SetEndOfFile(HANDLE file) {
    const auto object = Find<File>(file);
    return object ? object->Truncate() : FALSE;
}

DWORD GetFileAttributesA(LPCSTR name) {
    struct stat status {};
    if (name == nullptr || stat(name, &status) != 0) {
        SetLastError(name == nullptr ? ERROR_INVALID_PARAMETER : ErrorFromErrno(errno));
        return INVALID_FILE_ATTRIBUTES;
    }
    if (S_ISDIR(status.st_mode)) {
        return FILE_ATTRIBUTE_DIRECTORY;
    }
    return S_ISREG(status.st_mode) || S_ISBLK(status.st_mode) ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_DEVICE;
}

DWORD GetFileType(HANDLE file) {
    const auto object = Find<File>(file);
    return object ? object->Type() : FILE_TYPE_UNKNOWN;
}

} // namespace Vantor::Sentrix::Platform
