#include "tools/veyra/bench/Processes.h"

#include "tools/support/Stop.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/platform/Win32.h"

namespace Vantor::Sentrix::Tool {

namespace {

constexpr wchar_t kNamespaceVariable[] = L"VEYRASVC_PIPE_NAMESPACE";
constexpr std::chrono::seconds kLinePatience{30};

} // namespace

// ---- Worker --------------------------------------------------------------------------------------------------------

Worker::Worker(const std::string& program, const std::vector<std::string>& arguments) {
    if (!m_process.Start(program, arguments, Support::ChildProcess::Output::Pipe)) {
        throw BenchFailure("'" + program + "' cannot be started, error " + std::to_string(GetLastError()));
    }
}

std::string Worker::AwaitLine() {
    const auto deadline = std::chrono::steady_clock::now() + kLinePatience;
    while (std::chrono::steady_clock::now() < deadline) {
        if (Support::StopAsked()) {
            throw BenchFailure("stopped");
        }
        if (auto line =
                m_process.ReadLine(static_cast<DWORD>(Support::kStopCheckInterval / std::chrono::milliseconds(1)))) {
            return *line;
        }
        if (m_process.AtEnd()) {
            throw BenchFailure("a process of the measurement has failed");
        }
    }
    throw BenchFailure("a process of the measurement does not answer");
}

Worker& Worker::AwaitReady() {
    if (AwaitLine() != kReadyLine) {
        throw BenchFailure("a process of the measurement said something unexpected");
    }
    return *this;
}

Settings Worker::AwaitResult() {
    const std::string line = AwaitLine();
    std::vector<std::string> words;
    for (std::size_t begin = line.find(' '); begin != std::string::npos;) {
        const std::size_t end = line.find(' ', begin + 1);
        words.push_back(line.substr(begin + 1, end == std::string::npos ? end : end - begin - 1));
        begin = end;
    }
    return Settings(words);
}

// ---- What they run -------------------------------------------------------------------------------------------------

std::vector<std::string> BusRole(const std::string& role, const Settings& settings) {
    std::vector<std::string> arguments = settings.Words();
    arguments.insert(arguments.begin(), {"bench-worker", role});
    return arguments;
}

std::vector<std::string> FloorRole(const std::string& role, const Settings& settings) {
    std::vector<std::string> arguments = settings.Words();
    arguments.insert(arguments.begin(), role);
    return arguments;
}

std::string FloorProgram() {
    const auto path = Support::PathFromUtf8(Support::OwnProgramPath()).replace_filename("veyra-floor");
    std::error_code error;
    return std::filesystem::is_regular_file(path, error) ? path.string() : std::string();
}

// ---- The bus -------------------------------------------------------------------------------------------------------

PrivateBus::PrivateBus() {
    static int number = 0;
    const std::string name = "bench-" + std::to_string(GetCurrentProcessId()) + '-' + std::to_string(++number);
    SetEnvironmentVariableW(kNamespaceVariable, Support::WideFromUtf8(name).c_str());
    // Where a system has but one bus for the machine, the benchmark does not disturb the one that is in use.
    if (IsIPCServerPresent(0)) {
        throw BenchFailure("the bus of this machine is in use");
    }
    m_host = std::make_unique<Worker>(Support::OwnProgramPath(), BusRole("host", {}));
    m_host->AwaitReady();
}

PrivateBus::~PrivateBus() = default;

} // namespace Vantor::Sentrix::Tool
