// veyra-soak: hours of hardship for the bus, or two minutes. `./dev soak` builds and runs it.
#include "campaigns/soak/Member.h"
#include "campaigns/soak/Soak.h"
#include "tools/support/Program.h"
#include "tools/support/StandardIo.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace Vantor::Sentrix::Soak {

namespace {

int RunRole(const std::vector<std::string>& arguments) {
    static const std::map<std::string, void (*)(const Settings&)> roles = {
        {"echo", PlayEcho},       {"asker", PlayAsker},         {"service", PlayService},
        {"rows", PlayRows},       {"publisher", PlayPublisher}, {"viewer", PlayViewer},
        {"flooder", PlayFlooder}, {"newcomer", PlayNewcomer},   {"visitor", PlayVisitor}};
    roles.at(arguments.at(0))(Settings({arguments.begin() + 1, arguments.end()}));
    return Support::kDone;
}

// Says every ten seconds what has been counted.
class Teller {
public:
    explicit Teller(const Ledger& ledger)
        : m_thread([this, &ledger](const std::stop_token& stop) { Tell(ledger, stop); }) {}

private:
    void Tell(const Ledger& ledger, const std::stop_token& stop) {
        std::unique_lock lock(m_mutex);
        while (!m_ends.wait_for(lock, stop, std::chrono::seconds(10), [&] { return stop.stop_requested(); })) {
            char text[160];
            std::snprintf(text, sizeof text, "asked %.0f, answered %.0f, arrived %.0f, host kills %.0f, faults %zu",
                          ledger.Sum("asked"), ledger.Sum("answered"), ledger.Sum("arrived"), ledger.Sum("host-kills"),
                          ledger.Faults());
            Say(text);
        }
    }

    std::mutex m_mutex;
    std::condition_variable_any m_ends;
    std::jthread m_thread; // last: it uses the others
};

std::optional<int> Parse(Plan& plan, int argc, char** argv) {
    CLI::App program("Puts the bus through hardship for as long as wanted, and counts what becomes of every message.",
                     "veyra-soak");
    program.add_option("--minutes", plan.minutes, "How long; at least every scenario once")->check(CLI::PositiveNumber);
    program.add_option("--kills", plan.hostKills, "Nothing but kills of the host, that many")
        ->check(CLI::PositiveNumber);
    program.add_option("--seed", plan.seed, "Repeats a run's random choices");
    program.add_option("--only", plan.only, "Only these scenarios")
        ->delimiter(',')
        ->check(CLI::IsMember(ScenarioNames()));
    return Support::ParseArguments(program, argc, argv);
}

int Main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    if (argc > 2 && argv[1] == std::string("role")) {
        return RunRole({argv + 2, argv + argc});
    }
    Plan plan;
    if (const auto exitCode = Parse(plan, argc, argv)) {
        return *exitCode;
    }
    if (plan.hostKills != 0) {
        plan.only = {"kills"};
    }
    // Requests that time out are ordinary here, and every one of them would have its warning.
    setenv("VEYRA_LOG_LEVEL", "ERROR", 0); // NOLINT(concurrency-mt-unsafe): one thread yet
    Ledger ledger;
    const Teller teller(ledger);
    Soak soak(plan, ledger);
    soak.Run();
    Support::WriteOutput(soak.Report());
    return ledger.Faults() == 0 ? Support::kDone : Support::kFailed;
}

} // namespace

} // namespace Vantor::Sentrix::Soak

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    return Support::RunProgram("veyra-soak", [&] { return Soak::Main(argc, argv); });
}
