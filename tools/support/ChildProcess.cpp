#include "tools/support/ChildProcess.h"

#include "tools/support/Utf8.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <mutex>
#include <utility>

namespace Vantor::Sentrix::Support {

namespace {

class OwnedHandle {
public:
    OwnedHandle() = default;
    explicit OwnedHandle(HANDLE handle) : m_handle(handle) {}
    ~OwnedHandle() { Close(); }
    OwnedHandle(const OwnedHandle&) = delete;
    OwnedHandle& operator=(const OwnedHandle&) = delete;

    HANDLE Get() const { return m_handle; }
    HANDLE* Out() { return &m_handle; }
    HANDLE Release() { return std::exchange(m_handle, nullptr); }
    void Close() {
        if (m_handle != nullptr) {
            CloseHandle(std::exchange(m_handle, nullptr));
        }
    }

private:
    HANDLE m_handle = nullptr;
};

// A child inherits every inheritable handle its parent has at that moment, so only one pipe may be half handed over:
// otherwise another child would keep its writing end open, and its output would not end with the process.
std::mutex startLock;

bool NeedsQuotes(std::string_view argument) {
    return argument.empty() || argument.find_first_of(" \t\n\v\"") != std::string_view::npos;
}

void AppendArgument(std::string& line, std::string_view argument) {
    if (!NeedsQuotes(argument)) {
        line += argument;
        return;
    }
    line += '"';
    std::size_t backslashes = 0;
    for (const char c : argument) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        // Before a quote the backslashes count double, and one more makes the quote a plain character.
        line.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
        backslashes = 0;
        line += c;
    }
    line.append(2 * backslashes, '\\'); // they stand before the closing quote
    line += '"';
}

bool MakeOutputPipe(OwnedHandle& readEnd, OwnedHandle& writeEnd) {
    SECURITY_ATTRIBUTES inheritable{};
    inheritable.nLength = sizeof inheritable;
    inheritable.bInheritHandle = TRUE;
    return CreatePipe(readEnd.Out(), writeEnd.Out(), &inheritable, 0) != FALSE &&
           SetHandleInformation(readEnd.Get(), HANDLE_FLAG_INHERIT, 0) != FALSE;
}

// The time that is left of a wait of some milliseconds.
class Deadline {
public:
    explicit Deadline(DWORD milliseconds)
        : m_endless(milliseconds == INFINITE), m_end(Clock::now() + std::chrono::milliseconds(milliseconds)) {}

    DWORD Left() const {
        if (m_endless) {
            return INFINITE;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now()).count();
        return static_cast<DWORD>(std::max<std::int64_t>(left, 0));
    }

private:
    using Clock = std::chrono::steady_clock;
    bool m_endless;
    Clock::time_point m_end;
};

} // namespace

std::string OwnProgramPath() {
    constexpr std::size_t kLongestPath = 32768;
    std::wstring path(kLongestPath, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return Utf8FromWide(path);
}

std::string CommandLine(std::string_view program, const std::vector<std::string>& arguments) {
    // The program's own name is split by a simpler rule: it ends at the closing quote, and backslashes mean nothing.
    std::string line = '"' + std::string(program) + '"';
    for (const std::string& argument : arguments) {
        line += ' ';
        AppendArgument(line, argument);
    }
    return line;
}

// ---- What a child writes -------------------------------------------------------------------------------------------

class ChildProcess::Lines {
public:
    // Owns: the reading end of the pipe, from now on.
    explicit Lines(HANDLE readEnd) : m_readEnd(readEnd), m_changed(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

    // Cuts the output into lines until every writing end is closed; the reader thread's whole life.
    void ReadAll() {
        std::string line;
        char bytes[4096];
        DWORD count = 0;
        while (ReadFile(m_readEnd.Get(), bytes, sizeof bytes, &count, nullptr) != FALSE && count != 0) {
            line.append(bytes, count);
            Take(line);
        }
        const std::lock_guard guard(m_lock);
        if (!line.empty()) {
            m_lines.push_back(std::move(line));
        }
        m_ended = true;
        SetEvent(m_changed.Get());
    }

    std::optional<std::string> Next(DWORD milliseconds) {
        const Deadline deadline(milliseconds);
        for (;;) {
            {
                const std::lock_guard guard(m_lock);
                if (!m_lines.empty()) {
                    std::string line = std::move(m_lines.front());
                    m_lines.pop_front();
                    return line;
                }
                if (m_ended) {
                    return std::nullopt;
                }
                ResetEvent(m_changed.Get());
            }
            if (WaitForSingleObject(m_changed.Get(), deadline.Left()) != WAIT_OBJECT_0) {
                return std::nullopt;
            }
        }
    }

    bool AtEnd() const {
        const std::lock_guard guard(m_lock);
        return m_ended && m_lines.empty();
    }

private:
    // Moves the complete lines at the front of `text` to the queue.
    void Take(std::string& text) {
        const std::lock_guard guard(m_lock);
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
            const bool carriageReturn = end > begin && text[end - 1] == '\r';
            m_lines.push_back(text.substr(begin, end - begin - (carriageReturn ? 1 : 0)));
        }
        text.erase(0, begin);
        SetEvent(m_changed.Get());
    }

    // Constant after construction.
    OwnedHandle m_readEnd;
    OwnedHandle m_changed; // manual-reset: set whenever the members below change

    // Guarded by m_lock.
    mutable std::mutex m_lock;
    std::deque<std::string> m_lines;
    bool m_ended = false;
};

// ---- The process ---------------------------------------------------------------------------------------------------

ChildProcess::ChildProcess() = default;

ChildProcess::~ChildProcess() {
    if (m_process != nullptr) {
        Kill();
        WaitForSingleObject(m_process, INFINITE);
        CloseHandle(m_process);
    }
    if (m_reader.joinable()) {
        m_reader.join();
    }
}

bool ChildProcess::Start(const std::string& program, const std::vector<std::string>& arguments, Output output) {
    if (m_process != nullptr) {
        return false;
    }
    OwnedHandle readEnd;
    OwnedHandle writeEnd;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);

    const std::lock_guard guard(startLock);
    if (output != Output::Inherit && !MakeOutputPipe(readEnd, writeEnd)) {
        return false;
    }
    startup.hStdOutput = output != Output::Inherit ? writeEnd.Get() : GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = output == Output::PipeAll ? writeEnd.Get() : GetStdHandle(STD_ERROR_HANDLE);

    std::wstring commandLine = WideFromUtf8(CommandLine(program, arguments));
    PROCESS_INFORMATION started{};
    if (CreateProcessW(WideFromUtf8(program).c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                       &startup, &started) == FALSE) {
        return false;
    }
    if (started.hThread != nullptr) {
        CloseHandle(started.hThread);
    }
    m_process = started.hProcess;
    m_processId = started.dwProcessId;
    writeEnd.Close(); // only the child's own copy keeps the output open
    if (output != Output::Inherit) {
        m_lines = std::make_unique<Lines>(readEnd.Release());
        m_reader = std::thread([lines = m_lines.get()] { lines->ReadAll(); });
    }
    return true;
}

std::optional<std::string> ChildProcess::ReadLine(DWORD milliseconds) {
    return m_lines == nullptr ? std::nullopt : m_lines->Next(milliseconds);
}

bool ChildProcess::AtEnd() const {
    return m_lines == nullptr || m_lines->AtEnd();
}

void ChildProcess::Kill() {
    if (m_process != nullptr) {
        TerminateProcess(m_process, kKilledExitCode);
    }
}

std::optional<DWORD> ChildProcess::WaitForExit(DWORD milliseconds) {
    DWORD exitCode = 0;
    if (m_process == nullptr || WaitForSingleObject(m_process, milliseconds) != WAIT_OBJECT_0 ||
        GetExitCodeProcess(m_process, &exitCode) == FALSE) {
        return std::nullopt;
    }
    return exitCode;
}

std::size_t ChildProcess::MemoryBytes() const {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    if (m_process == nullptr || K32GetProcessMemoryInfo(m_process, &counters, sizeof counters) == FALSE) {
        return 0;
    }
    return counters.WorkingSetSize;
}

} // namespace Vantor::Sentrix::Support
