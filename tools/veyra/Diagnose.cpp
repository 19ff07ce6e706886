// veyra diagnose: what the diagnosis service knows, finds and repairs.
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/ServiceRun.h"
#include "tools/veyra/ServiceVerbs.h"
#include "veyrasvc/diagnosis/DFSClient.h"

#include <CLI/CLI.hpp>
#include <json/reader.h>

#include <algorithm>
#include <list>
#include <memory>
#include <utility>

namespace Vantor::Sentrix::Tool {

namespace {

constexpr Service kService{0x820000, "the diagnosis service", "veyra-diagnosisd"};

// What a repair does with the things that it finds: its operation scene.
constexpr int kDryRun = 0;
constexpr int kForReal = 1;

struct DiagnoseOptions : ServiceOptions {
    std::vector<std::string> items;
    bool forReal = false;
    // Of faults; the defaults match all.
    int eventId = 0;
    std::int64_t since = 0;
    std::int64_t until = 0;
    std::string eventType;
    std::string eventProvider;
};

using Options = std::shared_ptr<DiagnoseOptions>;

std::shared_ptr<DiagnosisDeviceInfo> ThisMachine() {
    return std::make_shared<DiagnosisDeviceInfo>();
}

int Result(bool done) {
    return done ? kDone : kFailed;
}

// ---- Questions -----------------------------------------------------------------------------------------------------

int Version(const DiagnoseOptions& options, DFSClient& client, ServiceWatch& watch) {
    const std::string version = client.GetSdkVersion();
    if (version.empty()) {
        return watch.NoAnswer();
    }
    Json::Value json;
    json["Version"] = version;
    return Result(Support::WriteOutput(options.json ? JsonLine(json) : Printable(version) + '\n'));
}

int Capabilities(const DiagnoseOptions& options, DFSClient& client, ServiceWatch& watch) {
    const std::list<std::string> detects = client.GetDetectCapability(ThisMachine());
    const std::list<std::string> repairs = client.GetRepairCapability(ThisMachine());
    if (detects.empty() || repairs.empty()) { // which is also what the client makes of an answer that is no JSON
        return watch.NoAnswer();
    }
    Json::Value json;
    std::string lines;
    for (const std::string& item : detects) {
        json["DetectCapability"].append(item);
        lines += "detect  " + Printable(item) + '\n';
    }
    for (const std::string& item : repairs) {
        json["RepairCapability"].append(item);
        lines += "repair  " + Printable(item) + '\n';
    }
    return Result(Support::WriteOutput(options.json ? JsonLine(json) : lines));
}

int Cancel(const DiagnoseOptions& options, DFSClient& client, ServiceWatch& watch) {
    const bool cancelled = client.CancelDetection(ThisMachine()) == 0 || client.CancelRepair(ThisMachine()) == 0;
    return ReportCancel(options, watch, cancelled);
}

// ---- Fault events --------------------------------------------------------------------------------------------------

// Fails: throws Json::Exception for anything but events, an error that the service tells included.
Json::Value ParseEvents(const std::string& answer) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value parsed;
    std::string errors;
    if (!reader->parse(answer.data(), answer.data() + answer.size(), &parsed, &errors)) {
        Json::throwLogicError("an answer that is no JSON");
    }
    const Json::Value& root = parsed;
    if (!root.isObject() || !root["Events"].isArray()) {
        Json::throwLogicError("an answer without a list of events");
    }
    if (!root["Error"].isNull()) {
        Json::throwLogicError("an error: " + root["Error"].asString());
    }
    return parsed;
}

using Row = std::vector<std::string>;

std::string Table(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const Row& row : rows) {
        for (std::size_t i = 0; i + 1 < row.size(); ++i) {
            text += Padded(row[i], widths[i]) + "  ";
        }
        text += row.back() + '\n';
    }
    return text;
}

std::string EventTable(const Json::Value& events) {
    std::vector<Row> rows = {{"EVENT", "TIME (UTC)", "TYPE", "PROVIDER", "TEXT"}};
    for (const Json::Value& event : events) {
        rows.push_back({std::to_string(event["EventId"].asInt64()), UtcTime(event["Time"].asInt64()),
                        Printable(event["EventType"].asString()), Printable(event["EventProvider"].asString()),
                        Printable(event["Text"].asString())});
    }
    return Table(rows);
}

int Faults(const DiagnoseOptions& options, DFSClient& client, ServiceWatch& watch) {
    const std::string answer = client.GetFaultInfobyId(options.eventId, options.since, options.until, options.eventType,
                                                       options.eventProvider);
    if (answer.empty()) {
        return watch.NoAnswer();
    }
    const Json::Value events = ParseEvents(answer);
    if (options.json) {
        return Result(Support::WriteOutput(JsonLine(events)));
    }
    if (events["Events"].empty()) {
        Say("no such fault events");
        return kDone;
    }
    return Result(Support::WriteOutput(EventTable(events["Events"])));
}

// ---- Runs ----------------------------------------------------------------------------------------------------------

class RunClient final : public DFSClient {
public:
    RunClient(std::uint32_t moduleId, RunOutcomes& outcomes)
        : DFSClient(static_cast<int>(moduleId)), m_outcomes(outcomes) {}
    ~RunClient() { EndHooks(); }
    RunClient(const RunClient&) = delete;
    RunClient& operator=(const RunClient&) = delete;

    void OnRecvStartDetection(TagIPCMessageItem& item) override { m_outcomes.Take(item); }
    void OnRecvStartRepair(TagIPCMessageItem& item) override { m_outcomes.Take(item); }

private:
    RunOutcomes& m_outcomes;
};

std::string DescribeOutcome(const Json::Value& outcome) {
    constexpr std::size_t kPercentWidth = 5;
    constexpr std::size_t kOutcomeWidth = 7;
    constexpr std::size_t kItemWidth = 21;
    std::string line = Padded(outcome["Percent"].asString() + " %", kPercentWidth) + "  " +
                       Padded(Printable(outcome["Outcome"].asString()), kOutcomeWidth) + "  " +
                       Padded(Printable(outcome["Item"].asString()), kItemWidth) + "  " +
                       Printable(outcome["Text"].asString());
    const std::int64_t event = outcome["EventId"].asInt64();
    return event == 0 ? line : line + " (event " + std::to_string(event) + ')';
}

enum class RunKind { Detection, Repair };

int FollowRunOf(const DiagnoseOptions& options, RunKind kind, ServiceWatch& watch) {
    RunOutcomes outcomes;
    RunClient client(options.from, outcomes);
    const std::list<std::string> items(options.items.begin(), options.items.end());
    Run run{{}, {}, DescribeOutcome, options.json};
    if (kind == RunKind::Detection) {
        run.start = [&] { return client.StartDetection(items, 0, ThisMachine()); };
        run.cancel = [&] { return client.CancelDetection(ThisMachine()); };
    } else {
        run.start = [&] { return client.StartRepair(items, options.forReal ? kForReal : kDryRun, ThisMachine()); };
        run.cancel = [&] { return client.CancelRepair(ThisMachine()); };
    }
    SayHowToCancel("diagnose", options);
    const int result = FollowRun(watch, outcomes, run);
    client.CancelNotify(""); // the service would tell this module of new events from now on
    watch.Flush();
    return result;
}

int StartRun(const DiagnoseOptions& options, RunKind kind) {
    Support::CatchStopSignals();
    return WithService(kService, [&](ServiceWatch& watch) { return FollowRunOf(options, kind, watch); });
}

// ---- Options -------------------------------------------------------------------------------------------------------

using Question = int (*)(const DiagnoseOptions&, DFSClient&, ServiceWatch&);

Verb AddQuestion(CLI::App& group, const Options& options, const char* name, const char* help, Question question) {
    return AddServiceVerb(group, *options, name, help, [options, question] {
        return AskService(kService, [&](ServiceWatch& watch) {
            DFSClient client(static_cast<int>(options->from));
            return question(*options, client, watch);
        });
    });
}

Verb AddCancel(CLI::App& group, const Options& options) {
    Verb verb = AddQuestion(group, options, "cancel", "Cancel the run that a module has started", Cancel);
    AddCancelledModule(verb, *options, "That module; `start` and `repair` tell theirs");
    return verb;
}

Verb AddFaults(CLI::App& group, const Options& options) {
    Verb verb = AddQuestion(group, options, "faults", "List the fault events that the service remembers", Faults);
    const auto add = [&](const char* name, auto& value, const char* help) {
        return verb.command->add_option(name, value, help);
    };
    add("--id", options->eventId, "Only this one")->check(CLI::PositiveNumber)->type_name("N");
    add("--since", options->since, "None before: seconds since 1970, UTC")
        ->check(CLI::NonNegativeNumber)
        ->type_name("SECONDS");
    add("--until", options->until, "None after")->check(CLI::NonNegativeNumber)->type_name("SECONDS");
    add("--type", options->eventType, "Only of this type: warning or fault")->type_name("TYPE");
    add("--provider", options->eventProvider, "Only of this provider, the item that found it")->type_name("PROVIDER");
    return verb;
}

Verb AddRun(CLI::App& group, const Options& options, const char* name, const char* help, RunKind kind) {
    Verb verb = AddServiceVerb(group, *options, name, help, [options, kind] { return StartRun(*options, kind); });
    verb.command->add_option("--item", options->items, "Only this item; may be repeated")->type_name("NAME");
    AddActingModule(verb, *options);
    if (kind == RunKind::Repair) {
        verb.command->add_flag("--for-real", options->forReal, "Do it; without this, only tell what would be done");
    }
    return verb;
}

} // namespace

Verb AddDiagnose(CLI::App& program) {
    auto options = std::make_shared<DiagnoseOptions>();
    CLI::App* group = program.add_subcommand("diagnose", "Ask the diagnosis service about this machine");
    group->require_subcommand(1);
    const std::vector<Verb> verbs = {
        AddQuestion(*group, options, "version", "Print the version of the service", Version),
        AddQuestion(*group, options, "capabilities", "List what it detects and repairs", Capabilities),
        AddRun(*group, options, "start", "Examine the machine and show each outcome", RunKind::Detection),
        AddRun(*group, options, "repair", "Repair what is safe to repair", RunKind::Repair),
        AddCancel(*group, options),
        AddFaults(*group, options)};
    return {group, [verbs] { return RunChosen(verbs); }};
}

} // namespace Vantor::Sentrix::Tool
