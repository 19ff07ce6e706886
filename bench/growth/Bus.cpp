#include "bench/growth/Bus.h"

#include "tools/support/Utf8.h"
#include "veyrasvc/platform/Win32.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

namespace Vantor::Sentrix::Growth {

namespace {

constexpr int kFirstModule = 0x900000;
constexpr int kMostModules = 0x1000; // of a member

std::vector<std::string> Command(const std::string& role, const Settings& settings) {
    std::vector<std::string> command = {Compare::OwnProgram(), "role", role};
    const std::vector<std::string> words = settings.Words();
    command.insert(command.end(), words.begin(), words.end());
    return command;
}

Settings MemberOf(std::size_t number, int modules) {
    return Settings().Set("first", kFirstModule + static_cast<double>(number) * kMostModules).Set("modules", modules);
}

} // namespace

Party::Party(const std::string& role, const Settings& settings, const std::string& folder)
    : m_firstModule(role == "member" ? settings.Get<int>("first") : 0),
      m_process(Command(role, settings), folder, Compare::kAnyCpu) {}

Settings Party::Order(const std::string& order, const Settings& settings) {
    Begin(order, settings);
    return AwaitResult();
}

// Two questions in a row: the second tells what a question costs.
double Party::Allocations() {
    const double first = Order("allocations").Number("count");
    const double second = Order("allocations").Number("count");
    const double counted = second - m_askedFor;
    m_askedFor += 2 * (second - first);
    return counted;
}

Bus::Bus() {
    const std::string name = "growth-" + std::filesystem::path(m_folder.Path()).filename().string();
    SetEnvironmentVariableW(L"VEYRASVC_PIPE_NAMESPACE", Support::WideFromUtf8(name).c_str());
    m_host = std::make_unique<Party>("host", Settings(), m_folder.Path());
    m_host->AwaitReady();
}

Party& Bus::Start(int modules) {
    return *m_members.emplace_back(
        std::make_unique<Party>("member", MemberOf(m_members.size(), modules), m_folder.Path()));
}

Party& Bus::Join(int modules) {
    Party& party = Start(modules);
    party.AwaitReady();
    return party;
}

void Bus::Fill(std::size_t members) {
    constexpr std::size_t kBatch = 10;
    while (m_members.size() < members) {
        MakePlaces();
        const std::size_t before = m_members.size();
        while (m_members.size() < std::min(members, before + kBatch)) {
            Start(1);
        }
        for (std::size_t i = before; i < m_members.size(); ++i) {
            m_members[i]->AwaitReady();
        }
    }
}

// The host listens for 20 members, and for 20 again only when one has left. So one comes and goes.
void Bus::MakePlaces() {
    constexpr std::size_t kVisitor = 1000;
    Party("member", MemberOf(kVisitor, 1), m_folder.Path()).AwaitReady();
}

void Settle() {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

Settings Asking(int module, int message, double bytes, double seconds) {
    return Settings().Set("to", module).Set("message", message).Set("bytes", bytes).Set("seconds", seconds);
}

} // namespace Vantor::Sentrix::Growth
