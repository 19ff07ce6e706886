#include "tools/support/ModuleStatus.h"

#include "tools/support/Stop.h"
#include "veyrasvc/bus/ModuleId.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>

namespace Vantor::Sentrix::Support {

namespace {

using Clock = std::chrono::steady_clock;

// A question is lost when its frame was being written as the connection broke.
constexpr std::chrono::milliseconds kRepeatInterval{1000};

} // namespace

std::optional<std::uint32_t> ReadModuleId(const TagIPCMessageItem& notice) {
    constexpr int kBytes = 4;
    if (notice.data == nullptr || notice.dataLen != kBytes) {
        return std::nullopt;
    }
    std::uint32_t moduleId = 0;
    for (int i = kBytes - 1; i >= 0; --i) {
        moduleId = moduleId << 8 | static_cast<unsigned char>(notice.data[i]);
    }
    return moduleId;
}

struct StatusQuery::Answers {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::uint32_t, ModuleStatus> byModule; // guarded by mutex

    void Take(const TagIPCMessageItem& item, ModuleStatus status) {
        if (const auto moduleId = ReadModuleId(item)) {
            const std::lock_guard guard(mutex);
            byModule[*moduleId] = status;
            changed.notify_all();
        }
    }
};

StatusQuery::StatusQuery(IPCMessageClient& client) : m_client(client), m_answers(std::make_shared<Answers>()) {
    const auto listen = [&](std::uint32_t notice, ModuleStatus status) {
        client.RegisterMessageCallback(
            static_cast<int>(notice),
            [answers = m_answers, status](TagIPCMessageItem& item) { answers->Take(item, status); });
    };
    listen(ControlMessage::kModuleOnline, ModuleStatus::Online);
    listen(ControlMessage::kModuleOffline, ModuleStatus::Offline);
}

StatusQuery::~StatusQuery() {
    m_client.UnRegisterMessageCallback(static_cast<int>(ControlMessage::kModuleOnline));
    m_client.UnRegisterMessageCallback(static_cast<int>(ControlMessage::kModuleOffline));
}

ModuleStatus StatusQuery::Ask(std::uint32_t moduleId) {
    return AskWithin(moduleId, kServerPatience, Absence::Ends);
}

ModuleStatus StatusQuery::Await(std::uint32_t moduleId, std::chrono::milliseconds patience) {
    return AskWithin(moduleId, patience, Absence::IsWaitedFor);
}

ModuleStatus StatusQuery::AskWithin(std::uint32_t moduleId, std::chrono::milliseconds patience, Absence absence) {
    const auto deadline = Clock::now() + patience;
    auto repeat = Clock::now();
    std::unique_lock guard(m_answers->mutex);
    auto& answers = m_answers->byModule;
    answers.erase(moduleId);
    while (!StopAsked() && Clock::now() < deadline) {
        const bool isServed = IsIPCServerPresent(0);
        if (!isServed && absence == Absence::Ends) {
            break;
        }
        // The server's own module joins its bus with the first client; a question that was faster is sent back.
        const bool tooEarly = answers.erase(ModuleId::kMsgServer) != 0;
        if (tooEarly || (Clock::now() >= repeat && isServed)) {
            m_client.QueryModuleStatus(static_cast<int>(moduleId));
            repeat = Clock::now() + kRepeatInterval;
        }
        m_answers->changed.wait_until(guard, std::min(deadline, Clock::now() + kStopCheckInterval));
        if (const auto answer = answers.find(moduleId);
            answer != answers.end() && (moduleId != ModuleId::kMsgServer || answer->second == ModuleStatus::Online)) {
            return answer->second;
        }
    }
    return ModuleStatus::NoAnswer;
}

bool StatusQuery::Flush() {
    return Ask(ModuleId::kMsgServer) == ModuleStatus::Online;
}

} // namespace Vantor::Sentrix::Support
