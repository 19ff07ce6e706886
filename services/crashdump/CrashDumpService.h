// The crash-dump service: what it answers on the bus. docs/services.md has the messages.
#pragma once

#include "services/common/ServiceModule.h"
#include "services/crashdump/Analysis.h"
#include "services/crashdump/DumpFolder.h"

#include <mutex>
#include <vector>

namespace Vantor::Sentrix::CrashDump {

inline constexpr int kModule = 0x830000;

// Answers from its construction to its destruction.
class CrashDumpService {
public:
    explicit CrashDumpService(std::vector<DumpPlace> places);
    ~CrashDumpService();
    CrashDumpService(const CrashDumpService&) = delete;
    CrashDumpService& operator=(const CrashDumpService&) = delete;

    // Returns once the module is on the bus, however long that takes. False: the user wants to stop.
    bool AwaitBus();

private:
    void OnHistory(const Asker& asker);

    const std::vector<DumpPlace> m_places;
    std::mutex m_listing; // one listing at a time, however many ask
    Analyser m_analyser;
    Services::ServiceModule m_module; // last, and so destroyed first: its handlers use all of the above
};

} // namespace Vantor::Sentrix::CrashDump
