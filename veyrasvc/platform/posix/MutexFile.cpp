#include "veyrasvc/platform/posix/MutexFile.h"

#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/Namespace.h"
#include "veyrasvc/platform/posix/OpenSsl.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr char kFolder[] = "/dev/shm/";
constexpr mode_t kEveryone = 0666;
// "VMTX" and what the programs have to agree on.
constexpr std::uint64_t kLayout = 0x58544D5600000000 | (sizeof(SharedMutex) << 8) | offsetof(SharedMutex, mutex);

int OpenRetrying(const std::string& path, int flags) {
    int descriptor = -1;
    do {
        descriptor = open(path.c_str(), flags | O_RDWR | O_CLOEXEC | O_NOFOLLOW, kEveryone);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

// Opens before it creates: in a sticky folder the kernel may refuse O_CREAT for a file that another user owns.
int OpenOrCreate(const std::string& path, MutexFile::Mode mode) {
    for (;;) {
        int descriptor = OpenRetrying(path, 0);
        if (descriptor >= 0 || errno != ENOENT || mode == MutexFile::Mode::kOpenOnly) {
            return descriptor;
        }
        descriptor = OpenRetrying(path, O_CREAT | O_EXCL);
        if (descriptor >= 0) {
            fchmod(descriptor, kEveryone); // the umask must not keep other users out
        }
        if (descriptor >= 0 || errno != EEXIST) {
            return descriptor;
        }
    }
}

bool LockFile(int descriptor, int kind) {
    int result = -1;
    do {
        result = flock(descriptor, kind);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// Letters, digits, '-' and '_' stand for themselves.
std::string PercentEncoded(const std::string& text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= 'a' && byte <= 'z') || byte == '-' || byte == '_';
        if (plain) {
            encoded += c;
        } else {
            encoded += '%';
            encoded += kDigits[byte >> 4];
            encoded += kDigits[byte & 15];
        }
    }
    return encoded;
}

// Empty when there is nothing to compute it with.
std::string Sha256Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    std::size_t size = 0;
    const OpenSsl* const ssl = OpenSsl::Load();
    if (ssl == nullptr || ssl->EVP_Q_digest(nullptr, "SHA256", nullptr, text.data(), text.size(), digest, &size) != 1) {
        return {};
    }
    return PercentEncoded(std::string(reinterpret_cast<const char*>(digest), size));
}

} // namespace

bool InitRobustMutex(pthread_mutex_t* mutex, int shared) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutexattr_setpshared(&attributes, shared);
    const int error = pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return error == 0;
}

std::string MutexFile::PathFor(const std::string& name) {
    const std::string file = "veyrasvc." + PercentEncoded(PipeNamespace()) + "." + PercentEncoded(name);
    if (file.size() <= NAME_MAX) {
        return kFolder + file;
    }
    const std::string hash = Sha256Hex(file);
    return hash.empty() ? "" : kFolder + ("veyrasvc.#" + hash); // no name has a '#', so none is taken for a hash
}

std::unique_ptr<MutexFile> MutexFile::Open(const std::string& path, Mode mode, bool& created) {
    for (;;) {
        const int descriptor = OpenOrCreate(path, mode);
        if (descriptor < 0) {
            SetLastError(ErrorFromErrno(errno));
            return nullptr;
        }
        std::unique_ptr<MutexFile> file(new MutexFile(path, descriptor));
        const Outcome outcome = file->Join(mode, created);
        if (outcome == Outcome::kDone) {
            return file;
        }
        if (outcome == Outcome::kFailed) {
            return nullptr;
        }
    }
}

// Takes the shared lock of a user, having initialised the file if nobody else uses it.
MutexFile::Outcome MutexFile::Join(Mode mode, bool& created) {
    std::uint64_t mine = 0;
    if (LockFile(m_descriptor, LOCK_EX | LOCK_NB)) {
        if (!IsLinked()) {
            return Outcome::kAgain;
        }
        if (mode == Mode::kOpenOnly) {
            SetLastError(ERROR_FILE_NOT_FOUND); // what is there was left behind
            return Outcome::kFailed;
        }
        if (!Initialise()) {
            return Outcome::kFailed;
        }
        mine = m_shared->incarnation;
    }
    if (!LockFile(m_descriptor, LOCK_SH)) {
        SetLastError(ErrorFromErrno(errno));
        return Outcome::kFailed;
    }
    if (!IsLinked()) {
        return Outcome::kAgain;
    }
    if (!Map()) {
        return Outcome::kFailed;
    }
    if (m_shared->layout == 0) {
        return Outcome::kAgain; // its creator died at work
    }
    if (m_shared->layout != kLayout) {
        SetLastError(ERROR_INVALID_HANDLE); // the name is taken by something that is no mutex of ours
        return Outcome::kFailed;
    }
    created = mine != 0 && m_shared->incarnation == mine;
    return Outcome::kDone;
}

bool MutexFile::IsLinked() const {
    struct stat mine {};
    struct stat named {};
    return fstat(m_descriptor, &mine) == 0 && lstat(m_path.c_str(), &named) == 0 && mine.st_dev == named.st_dev &&
           mine.st_ino == named.st_ino;
}

bool MutexFile::Map() {
    if (m_shared != nullptr) {
        return true;
    }
    // A file that is too short would turn the first access into a signal.
    struct stat status {};
    if (fstat(m_descriptor, &status) != 0 || (status.st_size < static_cast<off_t>(sizeof(SharedMutex)) &&
                                              ftruncate(m_descriptor, sizeof(SharedMutex)) != 0)) {
        SetLastError(ErrorFromErrno(errno));
        return false;
    }
    void* const memory = mmap(nullptr, sizeof(SharedMutex), PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor, 0);
    if (memory == MAP_FAILED) {
        SetLastError(ErrorFromErrno(errno));
        return false;
    }
    m_shared = static_cast<SharedMutex*>(memory);
    return true;
}

// Requires: the exclusive lock.
bool MutexFile::Initialise() {
    if (!Map()) {
        return false;
    }
    std::memset(m_shared, 0, sizeof *m_shared);
    if (getrandom(&m_shared->incarnation, sizeof m_shared->incarnation, 0) !=
            static_cast<ssize_t>(sizeof m_shared->incarnation) ||
        !InitRobustMutex(&m_shared->mutex, PTHREAD_PROCESS_SHARED)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    std::atomic_ref(m_shared->layout).store(kLayout, std::memory_order_release);
    return true;
}

MutexFile::~MutexFile() {
    if (m_shared != nullptr) {
        munmap(m_shared, sizeof *m_shared);
    }
    // The last user takes the name away. In vain when another user owns the file: then it stays, and its next opener
    // initialises it.
    if (LockFile(m_descriptor, LOCK_EX | LOCK_NB) && IsLinked()) {
        unlink(m_path.c_str());
    }
    close(m_descriptor);
}

} // namespace Vantor::Sentrix::Platform
