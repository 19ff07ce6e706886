#include "campaigns/soak/Bus.h"

#include "bench/compare/Machine.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <utility>

namespace Vantor::Sentrix::Soak {

namespace {

std::vector<std::string> Command(std::vector<std::string> front, const Settings& settings) {
    const std::vector<std::string> words = settings.Words();
    front.insert(front.end(), words.begin(), words.end());
    return front;
}

// Memory that was given back and that the system has not taken yet.
double LazyFreeMiB(const std::string& folder) {
    constexpr double kKiBPerMiB = 1024;
    const std::string text = Compare::ReadTextFile(folder + "/smaps_rollup");
    const std::string key = "LazyFree:";
    const std::size_t at = text.find(key);
    double number = 0;
    if (at != std::string::npos) {
        std::istringstream(text.substr(at + key.size())) >> number;
    }
    return number / kKiBPerMiB;
}

} // namespace

bool Holdings::IsWithin(const Holdings& before, const Holdings& kept) const {
    return memoryMiB <= before.memoryMiB + kept.memoryMiB && threads <= before.threads + kept.threads &&
           descriptors <= before.descriptors + kept.descriptors;
}

std::string Holdings::Text() const {
    char text[100];
    std::snprintf(text, sizeof text, "%.1f MiB, %.0f threads, %.0f descriptors", memoryMiB, threads, descriptors);
    return text;
}

Holdings HoldingsOf(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    std::error_code error;
    const std::filesystem::directory_iterator descriptors(folder + "/fd", error);
    return {Compare::MemoryOf(process).anonymousMiB - LazyFreeMiB(folder), Compare::UsageOf(process).threads,
            static_cast<double>(std::distance(begin(descriptors), end(descriptors)))};
}

Member::Member(std::string name, std::vector<std::string> command, const std::string& folder)
    : m_name(std::move(name)), m_process(std::move(command), folder, Compare::kAnyCpu) {
    m_process.AwaitReady();
}

Settings Member::Order(const std::string& what, const Settings& order) {
    Begin(what, order);
    return AwaitResult();
}

double Member::Figure(const std::string& name) {
    const Settings figures = Order("look");
    const std::vector<std::string> words = figures.Words();
    const bool isThere =
        std::any_of(words.begin(), words.end(), [&](const auto& word) { return word.starts_with(name + '='); });
    return isThere ? figures.Number(name) : 0;
}

Bus::Bus(const std::string& name) : m_name(name + '-' + std::to_string(getpid())) {
    StartHost();
}

Bus::~Bus() {
    Compare::EndProcess(m_host);
}

void Bus::BecomeCurrent() const {
    setenv("VEYRASVC_PIPE_NAMESPACE", m_name.c_str(), 1); // NOLINT(concurrency-mt-unsafe): only this thread asks
}

void Bus::StartHost() {
    BecomeCurrent();
    const std::string log = m_folder.Path() + "/broker.log";
    Compare::WriteTextFile(log, "");
    m_host = Compare::StartProcess({{Compare::ProgramBeside("veyra"), "serve"}, log});
    Compare::AwaitBroker(m_host, "the bus " + m_name,
                         [&] { return Compare::ReadTextFile(log).find("veyra: serving") != std::string::npos; });
}

void Bus::KillHost() {
    kill(m_host, SIGKILL);
    waitpid(std::exchange(m_host, 0), nullptr, 0);
}

bool Bus::HostLives() const {
    return waitpid(m_host, nullptr, WNOHANG) == 0;
}

std::unique_ptr<Member> Bus::Join(const std::string& role, const Settings& settings) const {
    BecomeCurrent();
    return std::make_unique<Member>(role, Command({Compare::OwnProgram(), "role", role}, settings), m_folder.Path());
}

std::unique_ptr<Member> Bus::JoinBench(const std::string& role, const Settings& settings) const {
    BecomeCurrent();
    const std::string program = Compare::ProgramBeside("veyra-compare-veyrasvc");
    return std::make_unique<Member>(role, Command({program, "role", role, "veyrasvc", m_name}, settings),
                                    m_folder.Path());
}

pid_t Bus::Start(const std::string& role, const Settings& settings) const {
    BecomeCurrent();
    return Compare::StartProcess(
        {Command({Compare::OwnProgram(), "role", role}, settings), m_folder.Path() + "/roles.log"});
}

} // namespace Vantor::Sentrix::Soak
