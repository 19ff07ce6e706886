#include "services/diagnosis/DiagnosisService.h"

#include "services/diagnosis/Checks.h"
#include "services/diagnosis/TempFiles.h"
#include "tools/support/ServiceText.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace Vantor::Sentrix::Diagnosis {

namespace {

// A start's answer has an id of its own; the others are answered with the id of the request.
constexpr int kVersion = 0x820001;
constexpr int kDetectCapability = 0x820002;
constexpr int kRepairCapability = 0x820003;
constexpr int kStartDetection = 0x820004;
constexpr int kDetectionOutcome = 0x820005;
constexpr int kCancelDetection = 0x820006;
constexpr int kStartRepair = 0x820007;
constexpr int kRepairOutcome = 0x820008;
constexpr int kCancelRepair = 0x820009;
constexpr int kNotification = 0x82000a;
constexpr int kNoMoreNotifications = 0x82000b;
constexpr int kFaultEvents = 0x820010;

constexpr char kTempFiles[] = "temp.files";

constexpr std::size_t kMostSteps = 1000; // of one run: every item many times over
constexpr std::size_t kMostListeners = 1000;

std::string Capability(const char* member, const std::vector<std::string>& items) {
    Json::Value value;
    value[member] = Json::arrayValue;
    for (const std::string& item : items) {
        value[member].append(item);
    }
    return Support::OneLine(value);
}

std::vector<std::string> ItemsOf(Kind kind) {
    if (kind == Kind::Repair) {
        return {kTempFiles};
    }
    std::vector<std::string> items;
    for (const Check& check : AllChecks()) {
        items.emplace_back(check.item);
    }
    return items;
}

Work CheckOf(const std::string& item) {
    const auto all = AllChecks();
    return std::find_if(all.begin(), all.end(), [&](const Check& check) { return check.item == item; })->work;
}

std::int64_t SecondsSince1970() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

} // namespace

DiagnosisService::DiagnosisService(std::filesystem::path tempFolder)
    : m_tempFolder(std::move(tempFolder)),
      m_runs(
          [this](const Asker& asker, Kind kind, const Json::Value& message) {
              m_module.Post(asker, kind == Kind::Detection ? kDetectionOutcome : kRepairOutcome,
                            Support::OneLine(message));
          },
          [this](const std::string& item, const Finding& finding) { return Record(item, finding); }),
      m_module(kModule) {
    const auto cancel = [this](int id, Kind kind) {
        m_module.On(id, [this, id, kind](const Asker& asker, const std::string&) {
            m_module.Post(asker, id, m_runs.Cancel(asker.moduleId, kind) ? "0" : "1");
        });
    };
    const auto answer = [this](int id, const std::string& text) {
        m_module.On(id, [this, id, text](const Asker& asker, const std::string&) { m_module.Post(asker, id, text); });
    };
    answer(kVersion, VEYRA_VERSION);
    answer(kDetectCapability, Capability("DetectCapability", ItemsOf(Kind::Detection)));
    answer(kRepairCapability, Capability("RepairCapability", ItemsOf(Kind::Repair)));
    cancel(kCancelDetection, Kind::Detection);
    cancel(kCancelRepair, Kind::Repair);
    m_module.On(kStartDetection,
                [this](const Asker& asker, const std::string& text) { OnStart(asker, Kind::Detection, text); });
    m_module.On(kStartRepair,
                [this](const Asker& asker, const std::string& text) { OnStart(asker, Kind::Repair, text); });
    m_module.On(kNoMoreNotifications,
                [this](const Asker& asker, const std::string& text) { OnNoMoreNotifications(asker, text); });
    m_module.On(kFaultEvents, [this](const Asker& asker, const std::string& text) {
        m_module.Post(asker, kFaultEvents, Support::OneLine(m_history.Answer(text)));
    });
}

DiagnosisService::~DiagnosisService() {
    m_runs.Close(); // they tell through the module, which goes first
}

bool DiagnosisService::AwaitBus() {
    return m_module.AwaitBus([this](std::int32_t moduleId) { OnGone(moduleId); });
}

// ---- Requests ------------------------------------------------------------------------------------------------------

void DiagnosisService::OnStart(const Asker& asker, Kind kind, const std::string& text) {
    std::vector<Step> steps;
    try {
        steps = StepsOf(kind, text);
    } catch (const Json::Exception& error) {
        const int id = kind == Kind::Detection ? kDetectionOutcome : kRepairOutcome;
        m_module.Post(asker, id, Support::OneLine(DescribeRefusal(kind, error.what())));
        return;
    }
    {
        const std::lock_guard guard(m_mutex);
        if (m_listeners.size() < kMostListeners) {
            m_listeners.try_emplace(asker.moduleId);
        }
    }
    m_runs.Start(asker, kind, std::move(steps));
}

std::vector<Step> DiagnosisService::StepsOf(Kind kind, const std::string& text) const {
    const StartParameters parameters = ParseStart(text);
    const std::vector<std::string> known = ItemsOf(kind);
    const std::vector<std::string>& items = parameters.items.empty() ? known : parameters.items;
    if (items.size() > kMostSteps) {
        throw Json::LogicError("more than " + std::to_string(kMostSteps) + " items");
    }
    std::vector<Step> steps;
    for (const std::string& item : items) {
        if (std::find(known.begin(), known.end(), item) == known.end()) {
            throw Json::LogicError("there is no item " + item);
        }
        if (kind == Kind::Detection) {
            steps.push_back({item, CheckOf(item)});
        } else {
            steps.push_back({item, [folder = m_tempFolder, parameters](const std::stop_token& stop) {
                                 return RepairTempFiles(folder, parameters.carryOut, stop);
                             }});
        }
    }
    return steps;
}

void DiagnosisService::OnNoMoreNotifications(const Asker& asker, const std::string& type) {
    const std::lock_guard guard(m_mutex);
    const auto listener = m_listeners.find(asker.moduleId);
    if (listener != m_listeners.end() &&
        (type.empty() || type == NameOf(Outcome::Warning) || type == NameOf(Outcome::Fault))) {
        listener->second.insert(type);
    }
}

void DiagnosisService::OnGone(std::int32_t moduleId) {
    m_runs.CancelAll(moduleId);
    const std::lock_guard guard(m_mutex);
    m_listeners.erase(moduleId);
}

// ---- Messages of its own -------------------------------------------------------------------------------------------

int DiagnosisService::Record(const std::string& item, const Finding& finding) {
    const FaultEvent event = m_history.Record(SecondsSince1970(), NameOf(finding.outcome), item, finding.text);
    const std::string text = Support::OneLine(ToJson(event));
    for (const std::int32_t moduleId : ListenersFor(event.type)) {
        m_module.Post({moduleId, 0}, kNotification, text);
    }
    return event.id;
}

std::vector<std::int32_t> DiagnosisService::ListenersFor(const std::string& type) {
    std::vector<std::int32_t> listeners;
    const std::lock_guard guard(m_mutex);
    for (const auto& [moduleId, unwanted] : m_listeners) {
        if (!unwanted.contains("") && !unwanted.contains(type)) {
            listeners.push_back(moduleId);
        }
    }
    return listeners;
}

} // namespace Vantor::Sentrix::Diagnosis
