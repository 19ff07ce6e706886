// The processes of a measurement: started, pinned, ended; and the folder they share.
// Threads: one at a time.
// Fails: std::system_error and std::runtime_error, unless a line says otherwise.
#pragma once

#include "bench/compare/Sockets.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Compare {

inline constexpr int kAnyCpu = -1;

// From now on this process, and what it starts, runs on that processor only; kAnyCpu: wherever it could before.
// Fails: silently where there is no such processor; then the measurement says what it says.
void PinSelf(int cpu);

// While it lives, what is started runs on that processor.
class Pinned {
public:
    explicit Pinned(int cpu) { PinSelf(cpu); }
    ~Pinned() { PinSelf(kAnyCpu); }
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;
};

struct Launch {
    std::vector<std::string> command; // a path, or a program that the PATH knows
    std::string log;                  // gets standard error, and standard output unless `output` is given
    int input = -1;                   // descriptors that become the child's standard streams; -1: as above
    int output = -1;
};

// The child is killed by the system when this process ends.
pid_t StartProcess(const Launch& launch);
// Asks it to end, kills it after a second, and waits for its end.
void EndProcess(pid_t process);

// Returns when `isReady` is true. An exception that leaves it means: not yet.
// Fails: when the broker ends before, or after five seconds.
void AwaitBroker(pid_t broker, const std::string& what, const std::function<bool()>& isReady);

// The same for somebody who accepts connections there.
void AwaitUnix(const std::string& path, pid_t broker);
void AwaitTcp(int port, pid_t broker); // of 127.0.0.1

// Lengthens the PATH: some distributions keep brokers in folders that not everybody searches.
void SearchSystemFolders();
// True when it is a path or the PATH knows it.
bool IsInstalled(const std::string& program);
// The path of this program, and of one that was built beside it.
std::string OwnProgram();
std::string ProgramBeside(const std::string& name);

void WriteTextFile(const std::string& path, const std::string& text);
// Empty when it cannot be read.
std::string ReadTextFile(const std::string& path);

// A new folder, which ends with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

} // namespace Vantor::Sentrix::Compare
