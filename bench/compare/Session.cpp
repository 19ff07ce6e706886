#include "bench/compare/Session.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <utility>

namespace Vantor::Sentrix::Compare {

namespace {

constexpr double kPatienceSeconds = 25;

struct Pipe {
    Descriptor read;
    Descriptor write;
};

Pipe NewPipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        FailWithErrno("pipe2");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// While it lives, what is started runs on that processor.
class Pinned {
public:
    explicit Pinned(int cpu) { PinSelf(cpu); }
    ~Pinned() { PinSelf(kAnyCpu); }
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;
};

} // namespace

// ---- RoleProcess ---------------------------------------------------------------------------------------------------

std::string LogsIn(const std::string& folder) {
    constexpr std::size_t kMost = 1000;
    std::string logs = ReadTextFile(folder + "/roles.log") + ReadTextFile(folder + "/broker.log");
    return logs.size() > kMost ? logs.substr(logs.size() - kMost) : logs;
}

RoleProcess::RoleProcess(std::vector<std::string> command, std::string folder, int cpu) : m_folder(std::move(folder)) {
    Pipe input = NewPipe();
    Pipe output = NewPipe();
    const Pinned pinned(cpu);
    m_process = StartProcess({std::move(command), m_folder + "/roles.log", input.read.Get(), output.write.Get()});
    m_toRole = std::move(input.write);
    m_fromRole = std::move(output.read);
}

RoleProcess::~RoleProcess() {
    m_toRole.Close();
    EndProcess(m_process);
}

void RoleProcess::AwaitReady() {
    AwaitLine(Tool::kReadyLine);
}

void RoleProcess::Begin() const {
    if (write(m_toRole.Get(), "go\n", 3) != 3) {
        Fail("a role is gone");
    }
}

Settings RoleProcess::AwaitResult() {
    std::istringstream line(AwaitLine(Tool::kResultWord));
    std::vector<std::string> words;
    for (std::string word; line >> word;) {
        words.push_back(word);
    }
    words.erase(words.begin());
    return Settings(words);
}

std::string RoleProcess::AwaitLine(std::string_view firstWord) {
    const double end = Now() + kPatienceSeconds;
    for (;;) {
        if (const std::size_t lineEnd = m_received.find('\n'); lineEnd != std::string::npos) {
            std::string line = m_received.substr(0, lineEnd);
            m_received.erase(0, lineEnd + 1);
            if (line.starts_with(firstWord)) {
                return line;
            }
            continue; // a library has something to say
        }
        pollfd readable{m_fromRole.Get(), POLLIN, 0};
        const double left = end - Now();
        if (left <= 0 || poll(&readable, 1, static_cast<int>(left * 1000)) <= 0) {
            Fail("a role does not say '" + std::string(firstWord) + "'");
        }
        char bytes[1024];
        const ssize_t got = read(m_fromRole.Get(), bytes, sizeof bytes);
        if (got <= 0) {
            Fail("a role ended before it said '" + std::string(firstWord) + "'");
        }
        m_received.append(bytes, static_cast<std::size_t>(got));
    }
}

void RoleProcess::Fail(const std::string& what) const {
    throw std::runtime_error(what + "; " + LogsIn(m_folder));
}

// ---- Session -------------------------------------------------------------------------------------------------------

Session::Session(const Backend& backend, int brokerCpu) : m_backend(backend), m_broker(backend.makeBroker()) {
    const Pinned pinned(brokerCpu);
    try {
        m_broker->Start(m_folder.Path());
    } catch (const std::exception& error) {
        m_broker->Stop();
        throw std::runtime_error(std::string(error.what()) + "; " + LogsIn(m_folder.Path()));
    }
}

Session::~Session() {
    m_roles.clear();
    m_broker->Stop();
}

std::unique_ptr<RoleProcess> Session::Start(const std::string& role, const Settings& settings, int cpu) const {
    std::vector<std::string> command = {m_backend.roleProgram.empty() ? OwnProgram() : m_backend.roleProgram, "role",
                                        role, m_backend.name, m_broker->Address()};
    const std::vector<std::string> words = settings.Words();
    command.insert(command.end(), words.begin(), words.end());
    auto process = std::make_unique<RoleProcess>(std::move(command), m_folder.Path(), cpu);
    process->AwaitReady();
    return process;
}

RoleProcess& Session::Add(const std::string& role, const Settings& settings, int cpu) {
    return *m_roles.emplace_back(Start(role, settings, cpu));
}

void Session::Visit(const std::string& role, const Settings& settings) {
    Start(role, settings, kAnyCpu);
}

void Session::Count(std::map<pid_t, Usage>& usages) const {
    for (const auto& role : m_roles) {
        usages[role->Process()] = UsageOf(role->Process());
    }
    for (const pid_t process : m_broker->Processes()) {
        usages[process] = UsageOf(process);
    }
}

Usage Session::UsageBetween(pid_t process) const {
    return m_after.at(process).Since(m_before.at(process));
}

Usage Session::OfBroker() const {
    Usage sum;
    for (const pid_t process : m_broker->Processes()) {
        sum += UsageBetween(process);
    }
    return sum;
}

Memory Session::MemoryOfBroker() const {
    Memory sum;
    for (const pid_t process : m_broker->Processes()) {
        const Memory memory = MemoryOf(process);
        sum.residentMiB += memory.residentMiB;
        sum.anonymousMiB += memory.anonymousMiB;
    }
    return sum;
}

} // namespace Vantor::Sentrix::Compare
