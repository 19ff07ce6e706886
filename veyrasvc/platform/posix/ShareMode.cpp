#include "veyrasvc/platform/posix/ShareMode.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <string>
#include <thread>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr off_t kMarks = off_t{1} << 62;
// A step takes microseconds. A lock that is held for longer is not one of ours.
constexpr int kLockAttempts = 100;
constexpr std::chrono::milliseconds kLockPause{1};
constexpr std::uint32_t kCifs = 0xFF534D42; // not in every version of the kernel's list

enum Mark : off_t { kReads, kWrites, kDeniesReading, kDeniesWriting };

struct Claim {
    Mark mark;
    bool isMade;
    Mark opposite; // what nobody else may have marked
};

struct flock ByteOf(Mark mark, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = kMarks + mark;
    lock.l_len = 1;
    return lock;
}

bool IsMarkedByAnother(int descriptor, Mark mark) {
    struct flock lock = ByteOf(mark, F_WRLCK);
    return fcntl(descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool SetMark(int descriptor, Mark mark) {
    struct flock lock = ByteOf(mark, F_RDLCK);
    return fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

// There, flock and the locks of fcntl may be one and the same.
bool IsOfTheNetwork(int descriptor) {
    struct statfs system {};
    if (fstatfs(descriptor, &system) != 0) {
        return false;
    }
    const auto magic = static_cast<std::uint32_t>(system.f_type);
    return magic == NFS_SUPER_MAGIC || magic == SMB_SUPER_MAGIC || magic == SMB2_SUPER_MAGIC || magic == kCifs;
}

// 0, or the reason.
int LockForAStep(int descriptor) {
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
            return 0;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return errno;
        }
        std::this_thread::sleep_for(kLockPause);
    }
    return EWOULDBLOCK;
}

bool ClaimInAStep(int descriptor, DWORD access, DWORD share) {
    const Claim claims[] = {{kReads, (access & GENERIC_READ) != 0, kDeniesReading},
                            {kWrites, (access & GENERIC_WRITE) != 0, kDeniesWriting},
                            {kDeniesReading, (share & FILE_SHARE_READ) == 0, kReads},
                            {kDeniesWriting, (share & FILE_SHARE_WRITE) == 0, kWrites}};
    const bool isDenied = std::any_of(std::begin(claims), std::end(claims), [&](const Claim& claim) {
        return claim.isMade && IsMarkedByAnother(descriptor, claim.opposite);
    });
    if (isDenied) {
        return false;
    }
    for (const Claim& claim : claims) {
        if (claim.isMade && !SetMark(descriptor, claim.mark)) {
            return true; // no such locks here
        }
    }
    return true;
}

} // namespace

bool ClaimShare(int descriptor, DWORD access, DWORD share, UniqueFd& marks) {
    if (access == 0 || IsOfTheNetwork(descriptor)) {
        return true;
    }
    int marked = descriptor;
    if ((fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_WRONLY) {
        const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
        marks = UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!marks.Valid()) {
            return true;
        }
        marked = marks.Get();
    }
    if (const int error = LockForAStep(marked); error != 0) {
        return error != EWOULDBLOCK;
    }
    const bool isClaimed = ClaimInAStep(marked, access, share);
    flock(marked, LOCK_UN);
    return isClaimed;
}

} // namespace Vantor::Sentrix::Platform
