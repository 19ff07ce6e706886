#include "services/crashdump/CrashDumpService.h"

#include "tools/support/ServiceText.h"
#include "tools/support/Utf8.h"

namespace Vantor::Sentrix::CrashDump {

namespace {

// The answer to a start has an id of its own; the others are answered with the id of the request.
constexpr int kHistory = 0x82000c;
constexpr int kStart = 0x82000d;
constexpr int kOutcome = 0x82000e;
constexpr int kCancel = 0x82000f;

} // namespace

CrashDumpService::CrashDumpService(std::vector<DumpPlace> places)
    : m_places(std::move(places)), m_analyser(m_places,
                                              [this](const Asker& asker, const Json::Value& outcome) {
                                                  m_module.Post(asker, kOutcome, Support::OneLine(outcome));
                                              }),
      m_module(kModule) {
    m_module.On(kHistory, [this](const Asker& asker, const std::string&) { OnHistory(asker); });
    m_module.On(kStart, [this](const Asker& asker, const std::string&) { m_analyser.Start(asker); });
    m_module.On(kCancel, [this](const Asker& asker, const std::string&) {
        m_module.Post(asker, kCancel, m_analyser.Cancel(asker.moduleId) ? "0" : "1");
    });
}

CrashDumpService::~CrashDumpService() {
    m_analyser.Stop(); // it tells through the module, which goes first
}

bool CrashDumpService::AwaitBus() {
    return m_module.AwaitBus([this](std::int32_t moduleId) { m_analyser.Cancel(moduleId); });
}

void CrashDumpService::OnHistory(const Asker& asker) {
    const std::lock_guard guard(m_listing);
    const DumpListing listing = ListDumps(m_places);
    Json::Value history;
    history["result_status"] = listing.unread.empty() ? 0 : 1;
    history["minidump"] = Json::arrayValue;
    for (const DumpFile& file : listing.files) {
        history["minidump"].append(Support::Utf8FromPath(file.path));
    }
    m_module.Post(asker, kHistory, Support::OneLine(history));
}

} // namespace Vantor::Sentrix::CrashDump
