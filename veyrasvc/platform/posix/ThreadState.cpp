#include "veyrasvc/platform/posix/ThreadState.h"

#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/UniqueFd.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr NTSTATUS kSuccess = 0;
constexpr auto kUnsuccessful = static_cast<NTSTATUS>(0xC0000001);
constexpr auto kInvalidInfoClass = static_cast<NTSTATUS>(0xC0000003);
constexpr auto kLengthMismatch = static_cast<NTSTATUS>(0xC0000004);
constexpr auto kInvalidHandle = static_cast<NTSTATUS>(0xC0000008);

// What OpenThread gives: an id with a handle.
class ThreadReference final : public Object {
public:
    explicit ThreadReference(pid_t id) : m_id(id) {}
    pid_t Id() const { return m_id; }

private:
    const pid_t m_id;
};

} // namespace

ThreadState StateOf(pid_t thread) {
    char text[128]; // the state follows an id and a name of at most 15 bytes in parentheses
    std::snprintf(text, sizeof text, "/proc/self/task/%d/stat", static_cast<int>(thread));
    const UniqueFd file(open(text, O_RDONLY | O_CLOEXEC));
    const ssize_t got = file.Valid() ? read(file.Get(), text, sizeof text - 1) : 0;
    if (got <= 0) {
        return ThreadState::kUnknown;
    }
    text[got] = '\0';
    const char* const name = std::strrchr(text, ')'); // the numbers behind the name have none
    if (name == nullptr || name[1] != ' ') {
        return ThreadState::kUnknown;
    }
    return name[2] == 'R' ? ThreadState::kRunnable : ThreadState::kBlocked;
}

HANDLE OpenThread(DWORD /*access*/, BOOL /*inheritHandle*/, DWORD threadId) {
    const auto id = static_cast<pid_t>(threadId);
    if (id <= 0 || syscall(SYS_tgkill, getpid(), id, 0) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return AddHandle(MakeObject<ThreadReference>(id));
}

NTSTATUS NtQueryInformationThread(HANDLE thread, THREADINFOCLASS informationClass, void* information, ULONG length,
                                  ULONG* returnLength) {
    if (informationClass != ThreadSystemThreadInformation) {
        return kInvalidInfoClass;
    }
    if (information == nullptr || length != sizeof(SYSTEM_THREAD_INFORMATION)) {
        return kLengthMismatch;
    }
    const auto reference = std::dynamic_pointer_cast<ThreadReference>(FindObject(thread));
    if (!reference) {
        return kInvalidHandle;
    }
    const ThreadState state = StateOf(reference->Id());
    if (state == ThreadState::kUnknown) {
        return kUnsuccessful;
    }
    SYSTEM_THREAD_INFORMATION told{};
    told.ClientId = {reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(getpid())),
                     reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(reference->Id()))};
    told.ThreadState = state == ThreadState::kRunnable ? StateReady : StateWait;
    std::memcpy(information, &told, sizeof told);
    if (returnLength != nullptr) {
        *returnLength = sizeof told;
    }
    return kSuccess;
}

} // namespace Vantor::Sentrix::Platform
