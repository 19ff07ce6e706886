#include "veyrasvc/bus/IPCMessageExport.h"

#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/CallbackQueue.h"
#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/bus/ModuleMessageClient.h"
#include "veyrasvc/bus/ModuleMessageServer.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/Succeeds.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace Vantor::Sentrix {

namespace {

constexpr std::uint32_t kNoMessage = 0xFFFFFFFF; // like 0, an id that no callback gets

std::uint32_t Unsigned(std::int32_t value) {
    return static_cast<std::uint32_t>(value);
}

std::int32_t Signed(std::uint32_t value) {
    return static_cast<std::int32_t>(value);
}

// The plaintext buffer of an encrypted packet, given back when its user is done.
class PlaintextOwner {
public:
    PlaintextOwner(const BasePacket& packet, TagIPCMessageItem& item) : m_owns(packet.GetEncrypted()), m_item(item) {}
    ~PlaintextOwner() {
        if (m_owns) {
            ::operator delete(m_buffer);
            m_item.data = nullptr;
        }
    }
    PlaintextOwner(const PlaintextOwner&) = delete;
    PlaintextOwner& operator=(const PlaintextOwner&) = delete;

    void Take() { m_buffer = m_item.data; }

private:
    const bool m_owns;
    TagIPCMessageItem& m_item;
    char* m_buffer = nullptr;
};

bool IsStatusNotice(const BasePacket& packet, std::uint32_t& about) {
    const std::uint32_t msgId = packet.GetMsgId();
    return packet.GetFrom() == ModuleId::kMsgServer &&
           (msgId == ControlMessage::kModuleOffline || msgId == ControlMessage::kModuleOnline) &&
           ReadModuleIdBody(packet.GetBody(), about);
}

// From the first to behind the last.
template <class Subscriptions> auto SubscriptionsTo(Subscriptions& subscriptions, std::uint32_t moduleId) {
    constexpr std::uint32_t kLastMessage = std::numeric_limits<std::uint32_t>::max();
    return std::pair(subscriptions.lower_bound({moduleId, 0}), subscriptions.upper_bound({moduleId, kLastMessage}));
}

template <class Answer> void CopyIds(Answer& answer, const TagIPCMessageItem& item) {
    answer.toModuleId = item.toModuleId;
    answer.fromModuleId = item.fromModuleId;
    answer.msgId = item.msgId;
    answer.replyMsgId = item.replyMsgId;
    answer.msgType = item.msgType;
    answer.uniqMsgId = item.uniqMsgId;
}

} // namespace

// ---- Life ----------------------------------------------------------------------------------------------------------

// A message without a callback needs a job only where that is logged, and its bytes are not needed then. Asked for
// every message by the one thread that reads them all, so it takes no lock that callbacks' threads take, as long as it
// can.
bool IPCMessageClient::WantsMessage(const BasePacket& packet) {
    if (!m_hasCallbacks) {
        return false;
    }
    const bool logs = IsLogEnabled(LogLevel::Warn);
    if (logs && !BaseMessageClient::Instance().IsAwaited(packet)) {
        return true;
    }
    const std::lock_guard guard(m_callbackMutex);
    const bool hasCallback = m_callbacks.count(Signed(packet.GetMsgId())) != 0;
    if (!hasCallback && logs) {
        Succeeds([&] {
            auto note = std::make_shared<BasePacket>();
            note->SetMsgId(packet.GetMsgId());
            return m_queue->Add({&IPCMessageClient::OnAnswerWithoutCallback, std::move(note)});
        });
    }
    return hasCallback;
}

// A publisher also receives its own publications and usually has not subscribed to them.
bool IPCMessageClient::WantsPublication(const BasePacket& packet) {
    std::uint32_t from = packet.GetFrom();
    return m_hasPublishCallback && LetsThrough(packet, from);
}

// With m_callbackMutex held.
void IPCMessageClient::NoteCallbacks() {
    m_hasCallbacks = !m_callbacks.empty();
    const bool has = static_cast<bool>(m_publishCallback);
    const bool had = m_hasPublishCallback.exchange(has);
    BaseMessageClient::Instance().CountPublishReceivers(int{has} - int{had});
}

IPCMessageClient::IPCMessageClient(int moduleId, bool /*unused*/, bool forwardPosts) : m_moduleId(moduleId) {
    if (!Succeeds([&] { return Join(forwardPosts); })) {
        LOG_ERROR("no memory for a message client; it receives nothing. m_moduleId=" << m_moduleId);
    }
}

bool IPCMessageClient::Join(bool forwardPosts) {
    BaseMessageClient& engine = BaseMessageClient::Instance();
    m_queue = std::make_shared<CallbackQueue>(*this);
    PacketReceiver messages{[this](const BasePacket& packet) { return WantsMessage(packet); },
                            [this](std::shared_ptr<BasePacket> packet) {
                                return m_queue->Add({&IPCMessageClient::OnRecvIPCMessage, std::move(packet)});
                            }};
    PacketReceiver publications{
        [this](const BasePacket& packet) { return WantsPublication(packet); },
        [this](std::shared_ptr<BasePacket> packet) {
            return m_queue->Add({&IPCMessageClient::OnRecvPublishIPCMessage, std::move(packet)});
        }};
    return engine.RegisterClient(this, Unsigned(m_moduleId), forwardPosts, std::move(messages)) &&
           engine.RegisterPublishHandler(this, Unsigned(m_moduleId), std::move(publications));
}

IPCMessageClient::~IPCMessageClient() {
    LOG_DEBUG("unInit module:" << m_moduleId);
    if (m_queue) {
        BaseMessageClient& engine = BaseMessageClient::Instance();
        engine.UnregisterClient(this);
        engine.UnregisterPublishHandler(this);
    }
    EndCallbacks();
}

// ---- Items and packets ---------------------------------------------------------------------------------------------

bool IPCMessageClient::ConvertMessageToPacket(std::shared_ptr<BasePacket>& packet,
                                              const TagIPCMessageItem& item) const {
    packet->SetTo(Unsigned(item.toModuleId));
    packet->SetFrom(Unsigned(m_moduleId));
    packet->SetMsgId(Unsigned(item.msgId));
    packet->SetReplyMsgId(Unsigned(item.replyMsgId));
    packet->SetMsgType(Unsigned(item.msgType));
    packet->SetUniqMsgId(Unsigned(item.uniqMsgId));
    packet->SetEncrypted(item.encrypt);
    if (item.dataLen < 1 || item.data == nullptr) {
        return true;
    }
    const auto length = static_cast<std::size_t>(item.dataLen);
    if (!item.encrypt) {
        packet->SetBody({item.data, length});
        return true;
    }
    std::string ciphertext;
    std::string iv;
    if (!BasePacket::EncryptData(item.data, length, ciphertext, iv)) {
        return false;
    }
    packet->SetBody(ciphertext);
    packet->SetIv(std::move(iv));
    return true;
}

bool IPCMessageClient::ConvertPacketToMessage(TagIPCMessageItem& item,
                                              const std::shared_ptr<BasePacket>& packet) const {
    item.toModuleId = Signed(packet->GetTo());
    item.fromModuleId = Signed(packet->GetFrom());
    item.msgId = Signed(packet->GetMsgId());
    item.replyMsgId = Signed(packet->GetReplyMsgId());
    item.msgType = Signed(packet->GetMsgType());
    item.uniqMsgId = Signed(packet->GetUniqMsgId());
    const std::string_view body = packet->GetBody();
    if (body.empty()) {
        return true;
    }
    if (body.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        return false;
    }
    if (!packet->GetEncrypted()) {
        item.data = const_cast<char*>(body.data()); // the record has no const; see its ownership rule
        item.dataLen = static_cast<std::int32_t>(body.size());
        return true;
    }
    std::size_t length = 0;
    if (!packet->DecryptBody(item.data, length)) {
        return false;
    }
    item.dataLen = static_cast<std::int32_t>(length);
    return true;
}

// ---- Sending -------------------------------------------------------------------------------------------------------

bool IPCMessageClient::PostIPCMessage(const TagIPCMessageItem& item) const {
    return Succeeds([&] {
        auto packet = std::make_shared_for_overwrite<BasePacket>();
        return ConvertMessageToPacket(packet, item) && BaseMessageClient::Instance().PostPacket(packet);
    });
}

bool IPCMessageClient::PublishIPCMessage(TagIPCMessageItem& item) const {
    item.msgType = Signed(MessageType::kPublished);
    return PostIPCMessage(item);
}

bool IPCMessageClient::QueryModuleStatus(int moduleId) {
    std::string body = ModuleIdBody(Unsigned(moduleId));
    TagIPCMessageItem item;
    item.toModuleId = Signed(ModuleId::kMsgServer);
    item.msgId = Signed(ControlMessage::kStatusQuery);
    item.dataLen = static_cast<std::int32_t>(body.size());
    item.data = body.data();
    return PostIPCMessage(item);
}

bool IPCMessageClient::SendIPCMessage(TagIPCMessageItem& request, int replyMsgId, unsigned int timeoutMs,
                                      IPCMessageCallback onReply) const {
    std::shared_ptr<BasePacket> reply;
    const bool isAsked = Succeeds([&] {
        auto packet = std::make_shared_for_overwrite<BasePacket>();
        if (!ConvertMessageToPacket(packet, request)) {
            return false;
        }
        reply = BaseMessageClient::Instance().WaitForMessage(Unsigned(replyMsgId), timeoutMs, packet);
        return true;
    });
    if (!isAsked) {
        return false;
    }
    if (!reply) {
        LOG_WARN("sync. fail to recv reply message. sendMessageId=" << request.msgId
                                                                    << ", wakeupMessageId=" << replyMsgId);
        return false;
    }
    if (reply->GetMsgId() == ControlMessage::kModuleOffline) {
        return false;
    }
    TagIPCMessageItem answer;
    PlaintextOwner owner(*reply, answer);
    if (!ConvertPacketToMessage(answer, reply)) {
        LOG_WARN("sync. error to recv reply message. recvMessageId=" << reply->GetMsgId());
        return false;
    }
    owner.Take();
    onReply(answer);
    return true;
}

bool IPCMessageClient::SendIPCMessage(TagIPCMessageItem& request, TagIPCMessageItem& answer,
                                      unsigned int timeoutMs) const {
    return SendIPCMessage(request, request.msgId, timeoutMs, [&answer](TagIPCMessageItem& item) {
        CopyIds(answer, item);
        if (item.data == nullptr || item.dataLen < 1) {
            return;
        }
        const auto length = static_cast<std::size_t>(item.dataLen);
        answer.data = static_cast<char*>(::operator new(length + 1, std::nothrow));
        answer.dataLen = answer.data == nullptr ? 0 : item.dataLen;
        if (answer.data != nullptr) {
            std::memcpy(answer.data, item.data, length);
            answer.data[length] = '\0';
        }
    });
}

bool IPCMessageClient::SendIPCMessage(TagIPCMessageItem& request, int replyMsgId, TagIPCMessageItemRecv& answer,
                                      unsigned int timeoutMs) const {
    return Succeeds([&] { // the record may have no memory for the body
        return SendIPCMessage(request, replyMsgId, timeoutMs, [&answer](TagIPCMessageItem& item) {
            if (item.data != nullptr && item.dataLen > 0) {
                answer.data.assign(item.data, static_cast<std::size_t>(item.dataLen));
            }
            CopyIds(answer, item);
        });
    });
}

// ---- Receiving -----------------------------------------------------------------------------------------------------

// A callback may destroy this client: nothing of it is touched afterwards.
void IPCMessageClient::OnRecvIPCMessage(std::shared_ptr<BasePacket> packet) {
    const std::uint32_t msgId = packet->GetMsgId();
    if (msgId == 0 || msgId == kNoMessage) {
        return;
    }
    IPCMessageCallback callback;
    {
        const std::lock_guard guard(m_callbackMutex);
        const auto found = m_callbacks.find(Signed(msgId));
        if (found == m_callbacks.end()) {
            WarnOfMissingCallback(msgId, false);
            return;
        }
        callback = found->second;
    }
    TagIPCMessageItem item;
    PlaintextOwner owner(*packet, item);
    if (!ConvertPacketToMessage(item, packet)) {
        LOG_WARN("fail to convert async ipc obj to struct. messageid=" << msgId);
        return;
    }
    owner.Take();
    if (callback) {
        callback(item);
    }
}

// Nothing is wrong where a waiting sender takes the message.
void IPCMessageClient::WarnOfMissingCallback(std::uint32_t msgId, bool isAwaited) const {
    if (msgId != 0 && msgId != kNoMessage) {
        LOG_WARN_ROUTINE_IF(
            isAwaited, "fail to find async ipc message callback. messageid=" << msgId << ", m_moduleId=" << m_moduleId);
    }
}

void IPCMessageClient::OnAnswerWithoutCallback(std::shared_ptr<BasePacket> packet) {
    WarnOfMissingCallback(packet->GetMsgId(), true);
}

void IPCMessageClient::OnRecvPublishIPCMessage(std::shared_ptr<BasePacket> packet) {
    if (packet->GetMsgType() != MessageType::kPublished || !Bregister(*packet)) {
        return;
    }
    TagIPCMessageItem item;
    PlaintextOwner owner(*packet, item);
    if (!ConvertPacketToMessage(item, packet)) {
        LOG_WARN("fail to convert publish ipc obj to struct. messageid=" << packet->GetMsgId());
        return;
    }
    owner.Take();
    IPCMessageCallback callback;
    {
        const std::lock_guard guard(m_callbackMutex);
        callback = m_publishCallback;
    }
    if (callback) {
        callback(item);
    }
}

bool IPCMessageClient::Bregister(BasePacket& packet) {
    std::uint32_t from = packet.GetFrom();
    const bool letsThrough = LetsThrough(packet, from);
    packet.SetFrom(from);
    return letsThrough;
}

// Sets `from` to the reported sender, whether or not a subscription matches.
bool IPCMessageClient::LetsThrough(const BasePacket& packet, std::uint32_t& from) {
    constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();
    const std::uint32_t msgId = packet.GetMsgId();
    const std::lock_guard guard(m_subscribeMutex);
    const auto numberOf = [this](std::uint32_t moduleId, std::uint32_t id) {
        const auto found = m_subscriptions.find({moduleId, id});
        return found == m_subscriptions.end() ? kNone : found->second;
    };
    const std::uint64_t asItIs = std::min(numberOf(from, 0), numberOf(from, msgId));
    std::uint32_t about = 0;
    if (!IsStatusNotice(packet, about) || about == from) {
        return asItIs != kNone;
    }
    // The earliest decides, of those that let the notice through as it is and those to the module that it names.
    const auto [begin, end] = SubscriptionsTo(m_subscriptions, about);
    if (std::all_of(begin, end, [&](const auto& one) { return one.second > asItIs; })) {
        return asItIs != kNone;
    }
    from = about;
    return numberOf(about, 0) != kNone || numberOf(about, msgId) != kNone;
}

// ---- Callbacks and subscriptions -----------------------------------------------------------------------------------

void IPCMessageClient::RegisterMessageCallback(int msgId, IPCMessageCallback callback) {
    const bool isRegistered = Succeeds([&] {
        const std::lock_guard guard(m_callbackMutex);
        m_callbacks[msgId].swap(callback); // the old one is destroyed when the mutex is free
        NoteCallbacks();
        return true;
    });
    if (!isRegistered) {
        LOG_ERROR("no memory for a message callback. messageid=" << msgId << ", m_moduleId=" << m_moduleId);
    }
}

void IPCMessageClient::RegisterPublishMessageCallback(IPCMessageCallback callback) {
    const std::lock_guard guard(m_callbackMutex);
    m_publishCallback.swap(callback);
    NoteCallbacks();
}

bool IPCMessageClient::UnRegisterMessageCallback(int msgId) {
    std::map<int, IPCMessageCallback>::node_type removed; // destroyed when the mutex is free
    const std::lock_guard guard(m_callbackMutex);
    removed = m_callbacks.extract(msgId);
    NoteCallbacks();
    return true;
}

bool IPCMessageClient::UnRegisterMessageCallbackAll() {
    std::map<int, IPCMessageCallback> callbacks;
    IPCMessageCallback publishCallback;
    {
        const std::lock_guard guard(m_callbackMutex);
        callbacks.swap(m_callbacks);
        publishCallback.swap(m_publishCallback);
        NoteCallbacks();
    }
    const std::lock_guard guard(m_subscribeMutex);
    m_subscriptions.clear();
    return true;
}

void IPCMessageClient::EndCallbacks() {
    UnRegisterMessageCallbackAll();
    if (m_queue) {
        m_queue->Close();
    }
}

bool IPCMessageClient::SubscribeIPCMessage(unsigned int moduleId, unsigned int msgId) {
    if (!UnSubscribeIPCMessage(moduleId, msgId)) {
        LOG_WARN("UnSubscribeIPCMessage error. moduleId=" << moduleId << ", messageId=" << msgId);
    }
    return Succeeds([&] {
        const std::lock_guard guard(m_subscribeMutex);
        m_subscriptions[{moduleId, msgId}] = ++m_lastSubscription;
        return true;
    });
}

bool IPCMessageClient::UnSubscribeIPCMessage(unsigned int moduleId, unsigned int msgId) {
    const std::lock_guard guard(m_subscribeMutex);
    if (msgId != 0) {
        m_subscriptions.erase({moduleId, msgId});
    } else {
        const auto [begin, end] = SubscriptionsTo(m_subscriptions, moduleId);
        m_subscriptions.erase(begin, end);
    }
    return true;
}

// ---- Engine and server ---------------------------------------------------------------------------------------------

void StopIPCClient() {
    BaseMessageClient::Instance().Stop();
}

bool IsIPCServerPresent(unsigned int timeoutMs) {
    return WaitNamedPipeW(kBusPipeName, std::max(timeoutMs, 1u)) != FALSE || GetLastError() == ERROR_SEM_TIMEOUT;
}

IPCMessageServer::IPCMessageServer() : m_server(nullptr) {
    Init();
}

void IPCMessageServer::Init() {
    try {
        m_server = new ModuleMessageServer;
    } catch (const std::bad_alloc&) {
        LOG_ERROR("create messageServer fail");
    }
}

IPCMessageServer::~IPCMessageServer() {
    delete m_server;
    m_server = nullptr;
}

bool IPCMessageServer::Start() {
    LOG_INFO("IPC-Server: init logger success.");
    if (m_server != nullptr) {
        return m_server->Start();
    }
    LOG_INFO("IPC-Server: message server is nullptr.");
    return false;
}

void IPCMessageServer::Stop() {
    if (m_server != nullptr) {
        m_server->Stop();
    }
}

} // namespace Vantor::Sentrix
