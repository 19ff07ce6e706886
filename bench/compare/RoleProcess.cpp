#include "bench/compare/RoleProcess.h"

#include "bench/compare/Bus.h"

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

} // namespace

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

void RoleProcess::Begin(const std::string& what, const Settings& order) const {
    std::string line = what;
    for (const std::string& word : order.Words()) {
        line += ' ' + word;
    }
    line += '\n';
    if (write(m_toRole.Get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
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

} // namespace Vantor::Sentrix::Compare
