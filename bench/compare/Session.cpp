#include "bench/compare/Session.h"

#include <stdexcept>
#include <utility>

namespace Vantor::Sentrix::Compare {

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
        sum.peakMiB += memory.peakMiB;
    }
    return sum;
}

} // namespace Vantor::Sentrix::Compare
