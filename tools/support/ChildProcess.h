// A child process of the benchmarks and tests: started, read from line by line, and never left behind.
#pragma once

#include "veyrasvc/platform/Win32.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Vantor::Sentrix::Support {

// The path of the running program, UTF-8; empty if the system does not tell.
std::string OwnProgramPath();

// The command line that a program splits back into exactly `program` and `arguments` by the Windows rules: backslashes
// are plain characters except before a double quote, where each stands for half of itself.
std::string CommandLine(std::string_view program, const std::vector<std::string>& arguments);

// One child process at most. Standard input and standard error of the child are its parent's unless
// Output says otherwise.
//
// Threads: one thread at a time, except that Kill() may come from any thread while the object lives and has started.
// Lifetime: the destructor kills a child that still runs and waits for its end. With Output::Pipe it also waits until
//   nobody holds the writing end, so the child must not leave processes of its own behind that keep its output.
class ChildProcess {
public:
    enum class Output {
        Inherit, // the child writes to its parent's standard output
        Pipe,    // the parent reads it with ReadLine()
        PipeAll, // and what it writes to standard error too
    };

    ChildProcess();
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts `program` (a path, UTF-8) with `arguments`; they arrive unchanged, whatever characters they hold.
    // Fails: false when the system refuses (GetLastError() tells) or a child was started before.
    bool Start(const std::string& program, const std::vector<std::string>& arguments, Output output = Output::Inherit);

    // The next line the child wrote, without its line end; waits up to `milliseconds` (INFINITE: without limit).
    // A last line without a line end counts. Needs Output::Pipe or PipeAll. Lines that nobody asks for are kept in
    // memory. Fails: nothing on time-out and at the end of the output; AtEnd() tells which.
    std::optional<std::string> ReadLine(DWORD milliseconds = INFINITE);

    // True once the child's output has ended and every line of it was read.
    bool AtEnd() const;

    // Ends the child at once, without a chance to clean up. Nothing happens to a child that has ended.
    void Kill();

    // The exit code once the child has ended, waiting up to `milliseconds`; a killed child has kKilledExitCode.
    // Fails: nothing when it still runs or none was started.
    std::optional<DWORD> WaitForExit(DWORD milliseconds = INFINITE);

    // 0 when no child was started.
    DWORD ProcessId() const { return m_processId; }

    // Resident memory in bytes; 0 when the system does not tell.
    std::size_t MemoryBytes() const;

    static constexpr UINT kKilledExitCode = 137;

private:
    class Lines;

    HANDLE m_process = nullptr;
    DWORD m_processId = 0;
    std::unique_ptr<Lines> m_lines; // what the reader has read, shared with ReadLine()
    std::thread m_reader;
};

} // namespace Vantor::Sentrix::Support
