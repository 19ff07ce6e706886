// veyra crashdumps: the crash dumps of this machine.
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/ServiceRun.h"
#include "tools/veyra/ServiceVerbs.h"
#include "veyrasvc/diagnosis/BSODClient.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <list>
#include <memory>

namespace Vantor::Sentrix::Tool {

namespace {

constexpr Service kService{0x830000, "the crash-dump service", "veyra-crashdumpd"};

using Options = std::shared_ptr<ServiceOptions>;

// ---- The list ------------------------------------------------------------------------------------------------------

std::string HistoryAsJson(const std::list<std::string>& dumps, double status) {
    Json::Value json;
    json["result_status"] = static_cast<Json::Int64>(std::clamp(status, -1e9, 1e9)); // whole, as the service writes it
    json["minidump"] = Json::Value(Json::arrayValue);
    for (const std::string& dump : dumps) {
        json["minidump"].append(dump);
    }
    return JsonLine(json);
}

std::string HistoryAsLines(const std::list<std::string>& dumps) {
    std::string lines;
    for (const std::string& dump : dumps) {
        lines += Printable(dump) + '\n';
    }
    return lines;
}

int List(const ServiceOptions& options, ServiceWatch& watch) {
    constexpr double kNone = -1;
    constexpr double kRead = 0;
    BSODClient client(static_cast<int>(options.from));
    std::list<std::string> dumps;
    double status = kNone;
    client.GetBsodHistory(dumps, status);
    if (status == kNone) {
        return watch.NoAnswer();
    }
    const bool written = Support::WriteOutput(options.json ? HistoryAsJson(dumps, status) : HistoryAsLines(dumps));
    if (status != kRead) {
        Say("the service cannot read the folder of the crash dumps");
    } else if (dumps.empty()) {
        Say("there are no crash dumps");
    }
    return written && status == kRead ? kDone : kFailed;
}

// ---- The analysis --------------------------------------------------------------------------------------------------

class RunClient final : public BSODClient {
public:
    RunClient(std::uint32_t moduleId, RunOutcomes& outcomes)
        : BSODClient(static_cast<int>(moduleId)), m_outcomes(outcomes) {}
    ~RunClient() { EndHooks(); }
    RunClient(const RunClient&) = delete;
    RunClient& operator=(const RunClient&) = delete;

    void OnRecvBsodAnalysis(TagIPCMessageItem& item) override { m_outcomes.Take(item); }

private:
    RunOutcomes& m_outcomes;
};

std::string DescribeDump(const Json::Value& outcome) {
    constexpr std::size_t kPercentWidth = 5;
    constexpr std::size_t kTypeWidth = 11;
    std::string line = Padded(outcome["Percent"].asString() + " %", kPercentWidth) + "  " +
                       Padded(Printable(outcome["Type"].asString()), kTypeWidth) + "  " +
                       Printable(outcome["File"].asString());
    if (outcome["Time"].isIntegral()) {
        line += ", " + UtcTime(outcome["Time"].asInt64()) + " UTC";
    }
    if (outcome["Size"].isIntegral()) {
        line += ", " + outcome["Size"].asString() + " bytes";
    }
    const char* said = outcome["Error"].isNull() ? "Text" : "Error";
    return outcome[said].isNull() ? line : line + ": " + Printable(outcome[said].asString());
}

int FollowAnalysis(const ServiceOptions& options, ServiceWatch& watch) {
    RunOutcomes outcomes;
    RunClient client(options.from, outcomes);
    SayHowToCancel("crashdumps", options);
    return FollowRun(watch, outcomes,
                     {[&] { return client.StartBsodAnalysis(); }, [&] { return client.CancelAnalysis(); }, DescribeDump,
                      options.json});
}

int Analyse(const ServiceOptions& options) {
    Support::CatchStopSignals();
    return WithService(kService, [&](ServiceWatch& watch) { return FollowAnalysis(options, watch); });
}

int Cancel(const ServiceOptions& options, ServiceWatch& watch) {
    BSODClient client(static_cast<int>(options.from));
    return ReportCancel(options, watch, client.CancelAnalysis() == 0);
}

// ---- Options -------------------------------------------------------------------------------------------------------

using Question = int (*)(const ServiceOptions&, ServiceWatch&);

std::function<int()> Asking(const Options& options, Question question) {
    return [options, question] {
        return AskService(kService, [&](ServiceWatch& watch) { return question(*options, watch); });
    };
}

} // namespace

Verb AddCrashDumps(CLI::App& program) {
    auto options = std::make_shared<ServiceOptions>();
    CLI::App* group = program.add_subcommand("crashdumps", "List and analyse the crash dumps of this machine");
    group->require_subcommand(1);
    const Verb list = AddServiceVerb(*group, *options, "list", "Print the paths of the dumps", Asking(options, List));
    const Verb analyse = AddServiceVerb(*group, *options, "analyse", "Tell of each dump what it is and why it was made",
                                        [options] { return Analyse(*options); });
    AddActingModule(analyse, *options);
    const Verb cancel = AddServiceVerb(*group, *options, "cancel", "Cancel the analysis that a module has started",
                                       Asking(options, Cancel));
    AddCancelledModule(cancel, *options, "That module; `analyse` tells its own");
    return {group, [list, analyse, cancel] { return RunChosen({list, analyse, cancel}); }};
}

} // namespace Vantor::Sentrix::Tool
