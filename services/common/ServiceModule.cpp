#include "services/common/ServiceModule.h"

#include "tools/support/ModuleStatus.h"
#include "tools/support/Program.h"
#include "tools/support/ServiceText.h"
#include "tools/support/StandardIo.h"
#include "veyrasvc/bus/ModuleId.h"

#include <chrono>
#include <cstdio>
#include <utility>

namespace Vantor::Sentrix::Services {

ServiceModule::ServiceModule(std::int32_t moduleId) : m_moduleId(moduleId), m_client(moduleId, false, false) {}

void ServiceModule::On(std::int32_t requestId, Handler handle) {
    m_client.RegisterMessageCallback(requestId, [this, handle = std::move(handle)](TagIPCMessageItem& item) {
        // One that claims to come from everybody would be answered to everybody, and one that claims to come from this
        // module would be answered for ever.
        const std::int32_t from = item.fromModuleId;
        if (from != static_cast<std::int32_t>(ModuleId::kBroadcast) && from != -1 && from != m_moduleId) {
            handle({from, item.uniqMsgId}, std::string(Support::TextOf(item)));
        }
    });
}

void ServiceModule::Post(const Asker& asker, std::int32_t messageId, const std::string& text) const {
    TagIPCMessageItem item;
    item.toModuleId = asker.moduleId;
    item.msgId = messageId;
    item.uniqMsgId = asker.correlationId;
    item.dataLen = static_cast<std::int32_t>(text.size() + 1); // with its NUL
    item.data = const_cast<char*>(text.c_str());               // the bus only reads it
    m_client.PostIPCMessage(item);
}

bool ServiceModule::AwaitBus(std::function<void(std::int32_t moduleId)> onGone) {
    constexpr std::chrono::hours kAlways{24 * 365};
    const auto moduleId = static_cast<std::uint32_t>(m_moduleId);
    if (Support::StatusQuery(m_client).Await(moduleId, kAlways) != Support::ModuleStatus::Online) {
        return false;
    }
    m_client.RegisterMessageCallback(static_cast<int>(ControlMessage::kModuleOffline),
                                     [onGone = std::move(onGone)](TagIPCMessageItem& item) {
                                         if (const auto gone = Support::ReadModuleId(item)) {
                                             onGone(static_cast<std::int32_t>(*gone));
                                         }
                                     });
    return true;
}

void SayWhetherBusIsServed(const char* program) {
    if (!IsIPCServerPresent(0)) {
        Support::Say(program, "nobody serves the bus yet; waiting");
    }
}

void SayServing(const char* program, std::int32_t moduleId) {
    char text[64];
    std::snprintf(text, sizeof text, ": serving module 0x%x\n", static_cast<unsigned int>(moduleId));
    Support::WriteOutput(std::string(program) + text);
}

} // namespace Vantor::Sentrix::Services
