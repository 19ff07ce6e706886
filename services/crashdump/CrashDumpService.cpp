#include "services/crashdump/CrashDumpService.h"

#include "tools/support/ModuleStatus.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/bus/ModuleId.h"

#include <json/writer.h>

#include <chrono>
#include <functional>

namespace Vantor::Sentrix::CrashDump {

namespace {

// The answer to a start has an id of its own; the others are answered with the id of the request.
constexpr int kHistory = 0x82000c;
constexpr int kStart = 0x82000d;
constexpr int kOutcome = 0x82000e;
constexpr int kCancel = 0x82000f;

std::string OneLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

// A request that claims to come from everybody would be answered to everybody, and one that claims to come from this
// module would be answered for ever.
bool CanBeAnswered(const TagIPCMessageItem& item) {
    return item.fromModuleId != static_cast<int>(ModuleId::kBroadcast) && item.fromModuleId != -1 &&
           item.fromModuleId != kModule;
}

IPCMessageCallback ForAsker(std::function<void(const Asker&)> handle) {
    return [handle = std::move(handle)](TagIPCMessageItem& item) {
        if (CanBeAnswered(item)) {
            handle({item.fromModuleId, item.uniqMsgId});
        }
    };
}

} // namespace

CrashDumpService::CrashDumpService(std::vector<DumpPlace> places)
    : m_places(std::move(places)),
      m_analyser(m_places,
                 [this](const Asker& asker, const Json::Value& outcome) { Answer(asker, kOutcome, OneLine(outcome)); }),
      m_client(kModule, false, false) {
    m_client.RegisterMessageCallback(kHistory, ForAsker([this](const Asker& asker) { OnHistory(asker); }));
    m_client.RegisterMessageCallback(kStart, ForAsker([this](const Asker& asker) { m_analyser.Start(asker); }));
    m_client.RegisterMessageCallback(kCancel, ForAsker([this](const Asker& asker) { OnCancel(asker); }));
}

CrashDumpService::~CrashDumpService() {
    m_analyser.Stop(); // it tells through the client, which goes first
}

bool CrashDumpService::AwaitBus() {
    constexpr std::chrono::hours kAlways{24 * 365};
    if (Support::StatusQuery(m_client).Ask(kModule, kAlways) != Support::ModuleStatus::Online) {
        return false;
    }
    // Sent back by the server: whoever asked has gone and hears no more of the outcome.
    m_client.RegisterMessageCallback(static_cast<int>(ControlMessage::kModuleOffline), [this](TagIPCMessageItem& item) {
        if (const auto module = Support::ReadModuleId(item)) {
            m_analyser.Cancel(static_cast<std::int32_t>(*module));
        }
    });
    return true;
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
    Answer(asker, kHistory, OneLine(history));
}

void CrashDumpService::OnCancel(const Asker& asker) {
    Answer(asker, kCancel, m_analyser.Cancel(asker.module) ? "0" : "1");
}

void CrashDumpService::Answer(const Asker& asker, int answerId, std::string text) const {
    TagIPCMessageItem item;
    item.toModuleId = asker.module;
    item.msgId = answerId;
    item.uniqMsgId = asker.correlation;
    item.dataLen = static_cast<std::int32_t>(text.size() + 1); // with its NUL
    item.data = text.data();
    m_client.PostIPCMessage(item);
}

} // namespace Vantor::Sentrix::CrashDump
