#include "bench/compare/Processes.h"

#include "tools/support/ChildProcess.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace Vantor::Sentrix::Compare {

namespace {

constexpr std::chrono::milliseconds kLookAgain{5};
constexpr int kCannotStart = 127; // the shell's exit code for it

bool HasEnded(pid_t process) {
    const pid_t waited = waitpid(process, nullptr, WNOHANG);
    return waited == process || (waited < 0 && errno == ECHILD);
}

// Runs between fork and exec, so it calls nothing that allocates.
[[noreturn]] void Become(char* const* arguments, const Launch& launch, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(kCannotStart);
    }
    const int log = open(launch.log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (launch.input >= 0) {
        dup2(launch.input, STDIN_FILENO);
    }
    dup2(launch.output >= 0 ? launch.output : log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    if (log > STDERR_FILENO) {
        close(log);
    }
    execvp(arguments[0], arguments);
    _exit(kCannotStart);
}

} // namespace

void PinSelf(int cpu) {
    static const cpu_set_t all = [] {
        cpu_set_t set;
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    cpu_set_t set = all;
    if (cpu != kAnyCpu) {
        CPU_ZERO(&set);
        CPU_SET(static_cast<unsigned int>(cpu), &set);
    }
    sched_setaffinity(0, sizeof set, &set);
}

pid_t StartProcess(const Launch& launch) {
    std::vector<char*> arguments;
    for (const std::string& argument : launch.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        FailWithErrno("fork");
    }
    if (child == 0) {
        Become(arguments.data(), launch, parent);
    }
    return child;
}

void EndProcess(pid_t process) {
    if (process <= 0) {
        return;
    }
    kill(process, SIGTERM);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < end) {
        if (HasEnded(process)) {
            return;
        }
        std::this_thread::sleep_for(kLookAgain);
    }
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

void AwaitBroker(pid_t broker, const std::string& what, const std::function<bool()>& isReady) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < end) {
        try {
            if (isReady()) {
                return;
            }
        } catch (const std::system_error&) { // nobody listens yet
        }
        if (HasEnded(broker)) {
            throw std::runtime_error("the broker ended before it served " + what);
        }
        std::this_thread::sleep_for(kLookAgain);
    }
    throw std::runtime_error("the broker does not serve " + what);
}

void AwaitUnix(const std::string& path, pid_t broker) {
    AwaitBroker(broker, path, [&] { return ConnectUnix(path).IsOpen(); });
}

void AwaitTcp(int port, pid_t broker) {
    AwaitBroker(broker, "port " + std::to_string(port), [&] { return ConnectTcp(port).IsOpen(); });
}

void SearchSystemFolders() {
    const char* path = std::getenv("PATH"); // NOLINT(concurrency-mt-unsafe): one thread
    const std::string longer = std::string(path != nullptr ? path : "/usr/bin:/bin") + ":/usr/local/sbin:/usr/sbin";
    setenv("PATH", longer.c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
}

bool IsInstalled(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        return access(program.c_str(), X_OK) == 0;
    }
    const char* path = std::getenv("PATH"); // NOLINT(concurrency-mt-unsafe): one thread
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (access(folder.append(1, '/').append(program).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

std::string OwnProgram() {
    return Support::OwnProgramPath();
}

std::string ProgramBeside(const std::string& name) {
    return std::filesystem::path(OwnProgram()).replace_filename(name).string();
}

void WriteTextFile(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    if (!(file << text).flush()) {
        throw std::runtime_error(path + " cannot be written");
    }
}

std::string ReadTextFile(const std::string& path) {
    const std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf(); // what the kernel says of a process may fail in the middle, when it ends
    return std::move(text).str();
}

TemporaryFolder::TemporaryFolder() : m_path((std::filesystem::temp_directory_path() / "veyra-XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) {
        FailWithErrno(m_path);
    }
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

} // namespace Vantor::Sentrix::Compare
