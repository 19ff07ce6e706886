// The diagnosis service: what it answers on the bus. docs/services.md has the messages.
#pragma once

#include "services/common/ServiceModule.h"
#include "services/diagnosis/FaultHistory.h"
#include "services/diagnosis/Runs.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Diagnosis {

inline constexpr int kModule = 0x820000;

// Answers from its construction to its destruction.
class DiagnosisService {
public:
    // `tempFolder`: what the repair of temp.files looks at.
    explicit DiagnosisService(std::filesystem::path tempFolder);
    ~DiagnosisService();
    DiagnosisService(const DiagnosisService&) = delete;
    DiagnosisService& operator=(const DiagnosisService&) = delete;

    // Returns once the module is on the bus, however long that takes. False: the user wants to stop.
    bool AwaitBus();

private:
    using Unwanted = std::set<std::string>; // types of events; the empty text stands for all

    void OnStart(const Asker& asker, Kind kind, const std::string& text);
    void OnNoMoreNotifications(const Asker& asker, const std::string& type);
    void OnGone(std::int32_t moduleId);

    // Throws Json::Exception when there is something wrong with the text.
    std::vector<Step> StepsOf(Kind kind, const std::string& text) const;
    int Record(const std::string& item, const Finding& finding);
    std::vector<std::int32_t> ListenersFor(const std::string& type);

    const std::filesystem::path m_tempFolder;
    FaultHistory m_history;

    std::mutex m_mutex;
    std::map<std::int32_t, Unwanted> m_listeners; // guarded by m_mutex; modules that have started a run

    Runs m_runs;
    Services::ServiceModule m_module; // last, and so destroyed first: its handlers use all of the above
};

} // namespace Vantor::Sentrix::Diagnosis
