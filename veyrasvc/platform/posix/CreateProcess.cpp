// CreateProcessW: a child with a clean slate. It gets the environment, the three standard streams, and no other
// descriptor, no blocked signal and no ignored SIGPIPE of this process.
#include "veyrasvc/platform/posix/CommandLine.h"
#include "veyrasvc/platform/posix/Environment.h"
#include "veyrasvc/platform/posix/File.h"
#include "veyrasvc/platform/posix/Process.h"
#include "veyrasvc/platform/posix/UniqueFd.h"
#include "veyrasvc/platform/posix/Utf8.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr int kFirstOther = 3; // behind the standard streams

// posix_spawn's preparations, made and unmade together.
class SpawnPlan {
public:
    SpawnPlan() {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawnattr_init(&m_attributes);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&m_attributes, &signals);
        sigaddset(&signals, SIGPIPE);
        posix_spawnattr_setsigdefault(&m_attributes, &signals);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    // The child's stream becomes that handle's file; without a handle it is empty.
    bool SetStream(int stream, HANDLE handle) {
        if (handle == nullptr || handle == INVALID_HANDLE_VALUE) {
            return posix_spawn_file_actions_addopen(&m_actions, stream, "/dev/null", O_RDWR, 0) == 0;
        }
        const auto file = Find<File>(handle);
        if (!file || !file->Inheritable()) {
            return Fail(ERROR_INVALID_HANDLE) != FALSE;
        }
        // By way of a number above the streams, so that no stream overwrites one that is still to be copied.
        UniqueFd& copy = m_copies[static_cast<std::size_t>(stream)];
        copy.Reset(fcntl(file->Descriptor(), F_DUPFD_CLOEXEC, kFirstOther));
        if (!copy.Valid()) {
            return Fail(ErrorFromErrno(errno)) != FALSE;
        }
        return posix_spawn_file_actions_adddup2(&m_actions, copy.Get(), stream) == 0;
    }

    // The child's id; -1 with the last error set.
    pid_t Spawn(const std::string& program, bool searchPath, std::vector<std::string>& arguments) {
        std::vector<char*> pointers;
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        posix_spawn_file_actions_addclosefrom_np(&m_actions, kFirstOther);
        pid_t child = -1;
        const std::lock_guard guard(EnvironmentMutex());
        const auto spawn = searchPath ? posix_spawnp : posix_spawn;
        const int error = spawn(&child, program.c_str(), &m_actions, &m_attributes, pointers.data(), environ);
        SetLastError(ErrorFromErrno(error));
        return error == 0 ? child : -1;
    }

private:
    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
    std::array<UniqueFd, kFirstOther> m_copies;
};

bool SetStreams(SpawnPlan& plan, const STARTUPINFOW& startup) {
    if ((startup.dwFlags & STARTF_USESTDHANDLES) == 0) {
        return true;
    }
    return plan.SetStream(STDIN_FILENO, startup.hStdInput) && plan.SetStream(STDOUT_FILENO, startup.hStdOutput) &&
           plan.SetStream(STDERR_FILENO, startup.hStdError);
}

bool Arguments(LPCWSTR application, LPCWSTR commandLine, std::vector<std::string>& arguments) {
    const std::vector<std::wstring> wide =
        commandLine == nullptr ? std::vector<std::wstring>{application} : SplitCommandLine(commandLine);
    for (const std::wstring& argument : wide) {
        if (!WideToUtf8(argument, arguments.emplace_back())) {
            return false;
        }
    }
    return true;
}

// Handles for a child that runs already. A child that cannot be watched is not let loose.
BOOL Adopt(pid_t child, PROCESS_INFORMATION& information) {
    UniqueFd descriptor(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    const DWORD error = descriptor.Valid() ? DWORD{ERROR_NOT_ENOUGH_MEMORY} : ErrorFromErrno(errno);
    const auto process = descriptor.Valid() ? MakeObject<Process>(child, std::move(descriptor)) : nullptr;
    if (!process) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        return Fail(error);
    }
    const HANDLE forProcess = AddHandle(process);
    const HANDLE forThread = forProcess == nullptr ? nullptr : AddHandle(process);
    if (forThread == nullptr) {
        process->Terminate(0);
        if (forProcess != nullptr) {
            CloseHandle(forProcess);
        }
        return Fail(ERROR_TOO_MANY_OPEN_FILES);
    }
    const auto id = static_cast<DWORD>(child);
    information = {forProcess, forThread, id, id};
    return TRUE;
}

} // namespace

BOOL CreateProcessW(LPCWSTR application, LPWSTR commandLine, SECURITY_ATTRIBUTES* /*processAttributes*/,
                    SECURITY_ATTRIBUTES* /*threadAttributes*/, BOOL inheritHandles, DWORD flags, void* environment,
                    LPCWSTR directory, STARTUPINFOW* startup, PROCESS_INFORMATION* information) {
    const bool isSupported = flags == 0 && environment == nullptr && directory == nullptr && startup != nullptr &&
                             information != nullptr && (application != nullptr || commandLine != nullptr);
    if (!isSupported || ((startup->dwFlags & STARTF_USESTDHANDLES) != 0 && inheritHandles == FALSE)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    return IfMemoryLasts(FALSE, [&] {
        std::vector<std::string> arguments;
        std::string program;
        SpawnPlan plan;
        if (!Arguments(application, commandLine, arguments) ||
            (application != nullptr && !WideToUtf8(application, program)) || !SetStreams(plan, *startup)) {
            return FALSE;
        }
        const bool searchPath = application == nullptr;
        const pid_t child = plan.Spawn(searchPath ? arguments[0] : program, searchPath, arguments);
        return child < 0 ? FALSE : Adopt(child, *information);
    });
}

} // namespace Vantor::Sentrix::Platform
