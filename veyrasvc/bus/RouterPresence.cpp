// Registration, presence, and the router's own voice.
#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/bus/Router.h"
#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Vantor::Sentrix {

namespace {

constexpr std::uint32_t kNone = 0xFFFFFFFF;   // as a message id: no message
constexpr std::uint64_t kUnhandledNamed = 10; // messages that get a line of their own

// The ids of a registration text, in order: decimal numbers, each followed by one space. Without digits a number is 0,
// digits beyond 32 bits wrap around, and what follows the last space does not count.
std::vector<std::uint32_t> ParseModuleIds(std::string_view text) {
    std::vector<std::uint32_t> ids;
    for (std::size_t begin = 0, end = 0; (end = text.find(' ', begin)) != std::string_view::npos; begin = end + 1) {
        std::uint32_t id = 0;
        for (std::size_t i = begin; i < end && text[i] >= '0' && text[i] <= '9'; ++i) {
            id = id * 10 + static_cast<std::uint32_t>(text[i] - '0');
        }
        ids.push_back(id);
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

// The text of a registration or the body of a query; empty when it cannot be deciphered.
std::string PlainBody(const BasePacket& packet) {
    if (!packet.GetEncrypted()) {
        return std::string(packet.GetBody());
    }
    char* plain = nullptr;
    std::size_t length = 0;
    if (!packet.DecryptBody(plain, length)) {
        return {};
    }
    const std::unique_ptr<char, void (*)(void*)> owner(plain, [](void* text) { ::operator delete(text); });
    return {plain, length};
}

} // namespace

// ---- Registration --------------------------------------------------------------------------------------------------

void Router::ApplyRegistration(Connection& connection, const SharedBytes& frame) {
    BasePacket packet;
    packet.DeserializeFrame(frame);
    if (connection.m_pid == 0) {
        connection.m_pid = packet.GetFrom();
    }
    m_speaks = true;
    UpdateModuleIds(connection, PlainBody(packet));
    if (!std::exchange(m_announced, true)) {
        PublishStatus(ModuleId::kMsgServer, ControlMessage::kModuleOnline);
    }
}

void Router::UpdateModuleIds(Connection& connection, const std::string& text) {
    if (text.empty()) {
        return;
    }
    // A process tells all its modules each time. Mostly it has one more: what it told before is not read again.
    const std::string_view all(text.data(), text.rfind(' ') + 1);
    const std::size_t known = all.starts_with(connection.m_registered) ? connection.m_registered.size() : 0;
    const std::vector<std::uint32_t> told = ParseModuleIds(all.substr(known));
    connection.m_registered = all;
    const auto isOnline = [&told](std::uint32_t id) { return std::binary_search(told.begin(), told.end(), id); };
    std::vector<std::uint32_t> changed;
    {
        const AutoLock lock(&m_connections);
        const auto& current = connection.m_moduleIds;
        if (known == 0) {
            std::set_symmetric_difference(current.begin(), current.end(), told.begin(), told.end(),
                                          std::back_inserter(changed));
        } else {
            std::copy_if(told.begin(), told.end(), std::back_inserter(changed),
                         [&current](std::uint32_t id) { return current.count(id) == 0; });
        }
        for (const std::uint32_t moduleId : changed) {
            if (isOnline(moduleId)) {
                Link(connection, moduleId);
            } else {
                connection.m_moduleIds.erase(moduleId);
                Unlink(connection, moduleId);
            }
        }
    }
    for (const std::uint32_t moduleId : changed) {
        PublishStatus(moduleId, isOnline(moduleId) ? ControlMessage::kModuleOnline : ControlMessage::kModuleOffline);
    }
}

// When memory ends in the middle the connection ends too, and takes back what has been linked.
void Router::Link(Connection& connection, std::uint32_t moduleId) {
    connection.m_moduleIds.insert(moduleId);
    m_receivers[moduleId].push_back(&connection);
}

void Router::Unlink(Connection& connection, std::uint32_t moduleId) {
    if (const auto found = m_receivers.find(moduleId); found != m_receivers.end()) {
        std::erase(found->second, &connection);
        if (found->second.empty()) {
            m_receivers.erase(found);
        }
    }
}

// ---- Messages to the router ----------------------------------------------------------------------------------------

void Router::HandleOwn(const Connection& sender, const SharedBytes& frame, std::uint32_t msgId) {
    if (!m_speaks || msgId == 0 || msgId == kNone) {
        return;
    }
    if (msgId != ControlMessage::kStatusQuery) {
        NoteUnhandled(sender, msgId);
        return;
    }
    BasePacket query;
    query.DeserializeFrame(frame);
    const std::string body = PlainBody(query);
    std::uint32_t moduleId = 0;
    if (body.size() == sizeof moduleId && ReadModuleIdBody(body, moduleId)) {
        PostStatus(query.GetFrom(), moduleId,
                   IsOnline(moduleId) ? ControlMessage::kModuleOnline : ControlMessage::kModuleOffline);
    }
}

bool Router::IsOnline(std::uint32_t moduleId) {
    const AutoLock lock(&m_connections);
    return moduleId == ModuleId::kMsgServer || m_receivers.count(moduleId) != 0;
}

// The first few get a line each, the others one line a second for all of them: no peer fills the log.
void Router::NoteUnhandled(const Connection& sender, std::uint32_t msgId) {
    if (++m_unhandled <= kUnhandledNamed) {
        LOG_WARN("fail to find async ipc message callback. messageid=" << msgId
                                                                       << ", m_moduleId=" << ModuleId::kMsgServer);
        return;
    }
    ++m_unhandledUnsaid;
    ExpectTick(sender.m_context);
}

void Router::OnTick() {
    LOG_WARN("fail to find async ipc message callback for " << std::exchange(m_unhandledUnsaid, 0)
                                                            << " more messages. m_moduleId=" << ModuleId::kMsgServer);
}

// ---- The router's own voice ----------------------------------------------------------------------------------------

namespace {

BasePacket Notice(std::uint32_t to, std::uint32_t moduleId, std::uint32_t msgId, std::uint32_t msgType) {
    BasePacket notice;
    notice.SetTo(to);
    notice.SetFrom(ModuleId::kMsgServer);
    notice.SetMsgId(msgId);
    notice.SetMsgType(msgType);
    notice.SetReplyMsgId(kNone);
    notice.SetBody(ModuleIdBody(moduleId));
    return notice;
}

} // namespace

// To everyone, also to clients in this process: they are connected like any other.
void Router::PublishStatus(std::uint32_t moduleId, std::uint32_t msgId) {
    SpeakToAll(Notice(kNone, moduleId, msgId, MessageType::kPublished));
}

void Router::PostStatus(std::uint32_t toModuleId, std::uint32_t moduleId, std::uint32_t msgId) {
    const BasePacket notice = Notice(toModuleId, moduleId, msgId, kNone);
    if (toModuleId == ModuleId::kBroadcast) {
        SpeakToAll(notice);
        return;
    }
    const std::string_view frame = notice.ToFrame().bytes;
    const AutoLock lock(&m_connections);
    const auto found = m_receivers.find(toModuleId);
    if (m_speaks && toModuleId != ModuleId::kMsgServer && found != m_receivers.end()) {
        for (const Connection* receiver : found->second) {
            Speak(*receiver, frame);
        }
    }
}

void Router::SpeakToAll(const BasePacket& notice) {
    const std::string_view frame = notice.ToFrame().bytes;
    const AutoLock lock(&m_connections);
    if (m_speaks) {
        for (const auto& [key, receiver] : m_connections.m_items) {
            Speak(*receiver, frame);
        }
    }
}

// Notices are short: composing one takes no memory, and one that its receiver's connection has no memory for is
// counted.
void Router::Speak(const Connection& receiver, std::string_view frame) {
    m_lostNotices += SendText(receiver.m_context, frame.data(), static_cast<int>(frame.size())) ? 0 : 1;
}

} // namespace Vantor::Sentrix
