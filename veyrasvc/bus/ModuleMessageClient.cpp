// The engine's life, its registries, routing within the process, and the waits. The connection itself is in
// ModuleMessageClientIo.cpp.
#include "veyrasvc/bus/ModuleMessageClient.h"

#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace Vantor::Sentrix {

// ---- Life ----------------------------------------------------------------------------------------------------------

BaseMessageClient& BaseMessageClient::Instance() {
    // Never destroyed, because threads and static objects may use it while the process exits; but it stops then.
    static BaseMessageClient* const engine = [] {
        auto* made = new BaseMessageClient;
        std::atexit([] { Instance().Stop(); });
        return made;
    }();
    return *engine;
}

BaseMessageClient::BaseMessageClient() {
    Start();
}

std::array<HANDLE*, 6> BaseMessageClient::Events() {
    return {&m_readEvent, &m_writeEvent, &m_exitEvent, &m_sendEvent, &m_leadEvent, &m_standByEvent};
}

bool BaseMessageClient::CreateEvents() {
    m_readEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_writeEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_exitEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    for (HANDLE* event : {&m_sendEvent, &m_leadEvent, &m_standByEvent}) {
        *event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    }
    const auto all = Events();
    return std::none_of(all.begin(), all.end(), [](const HANDLE* event) { return *event == nullptr; });
}

void BaseMessageClient::CloseEvents() {
    for (HANDLE* event : Events()) {
        if (*event != nullptr) {
            CloseHandle(*event);
            *event = nullptr;
        }
    }
}

bool BaseMessageClient::Start() {
    const AutoLock lock(&m_lifecycleLock);
    if (m_workerThread != nullptr) {
        return true;
    }
    m_stop = 0;
    if (CreateEvents()) {
        m_workerThread = CreateThread(nullptr, 0, &BaseMessageClient::WorkerProc, this, 0, nullptr);
        if (m_workerThread != nullptr) {
            return true;
        }
    }
    m_stop = 1;
    CloseEvents();
    return false;
}

void BaseMessageClient::Stop() {
    constexpr DWORD kPatienceMs = 1000;
    const AutoLock lock(&m_lifecycleLock);
    m_stop = 1;
    {
        const AutoLock sending(&m_sendQueue);
        m_sendQueue.m_items = {};
    }
    if (m_workerThread != nullptr) {
        // Not the read and write events: those say that an operation has completed, and the I/O thread would wait for
        // it. The events stay open: a sender may be about to signal one. The process takes them with it.
        SetEvent(m_exitEvent);
        SetEvent(m_sendEvent);
        // The thread looks at m_stop after every step and waits nowhere without the exit event, so this is short.
        WaitForSingleObject(m_workerThread, kPatienceMs);
        CloseHandle(m_workerThread);
        m_workerThread = nullptr;
    }
    ReleaseWaits();
}

// ---- Registries ----------------------------------------------------------------------------------------------------

namespace {

template <class Entries> auto FindFirstOf(const Entries& entries, const IPCMessageClient* owner) {
    return std::find_if(entries.begin(), entries.end(), [owner](const auto& entry) { return entry->owner == owner; });
}

void EraseWord(std::string& text, std::ptrdiff_t place) {
    std::size_t begin = 0;
    for (; place > 0; --place) {
        begin = text.find(' ', begin) + 1;
    }
    text.erase(begin, text.find(' ', begin) + 1 - begin);
}

} // namespace

bool BaseMessageClient::RegisterClient(const IPCMessageClient* owner, std::uint32_t moduleId, bool forwardPosts,
                                       PacketFunction onPacket) {
    std::unique_ptr<ClientEntry> entry(new (std::nothrow)
                                           ClientEntry{moduleId, owner, forwardPosts, std::move(onPacket)});
    if (!entry) {
        return false;
    }
    {
        const ExclusiveGuard guard(m_clientsLock);
        m_clientsById[moduleId].push_back(entry.get());
        m_clients.push_back(std::move(entry));
        m_registrationText += std::to_string(moduleId) + ' ';
    }
    UpdatePidMid();
    return true;
}

bool BaseMessageClient::UnregisterClient(const IPCMessageClient* owner) {
    {
        const ExclusiveGuard guard(m_clientsLock);
        if (const auto entry = FindFirstOf(m_clients, owner); entry != m_clients.end()) {
            const auto sameId = m_clientsById.find((*entry)->moduleId);
            std::erase(sameId->second, entry->get());
            if (sameId->second.empty()) {
                m_clientsById.erase(sameId);
            }
            EraseWord(m_registrationText, entry - m_clients.begin());
            m_clients.erase(entry);
        }
    }
    UpdatePidMid();
    return true;
}

bool BaseMessageClient::RegisterPublishHandler(const IPCMessageClient* owner, std::uint32_t moduleId,
                                               PacketFunction onPacket) {
    std::unique_ptr<PublishEntry> entry(new (std::nothrow) PublishEntry{moduleId, owner, std::move(onPacket)});
    if (!entry) {
        return false;
    }
    const ExclusiveGuard guard(m_publishLock);
    m_publishHandlers.push_back(std::move(entry));
    return true;
}

bool BaseMessageClient::UnregisterPublishHandler(const IPCMessageClient* owner) {
    const ExclusiveGuard guard(m_publishLock);
    if (const auto entry = FindFirstOf(m_publishHandlers, owner); entry != m_publishHandlers.end()) {
        m_publishHandlers.erase(entry);
    }
    return true;
}

void BaseMessageClient::UpdatePidMid() {
    const AutoLock lock(&m_registrationLock);
    BasePacket registration;
    registration.SetFrom(GetCurrentProcessId());
    registration.SetTo(ModuleId::kMsgServer);
    registration.SetMsgId(ControlMessage::kRegistration);
    {
        const SharedGuard guard(m_clientsLock);
        registration.SetBody(m_registrationText);
    }
    QueueBytes(registration.ToFrame());
}

// ---- Sending and routing -------------------------------------------------------------------------------------------

std::span<ClientEntry* const> BaseMessageClient::ClientsOf(std::uint32_t moduleId) const {
    const auto found = m_clientsById.find(moduleId);
    return found == m_clientsById.end() ? std::span<ClientEntry* const>() : found->second;
}

bool BaseMessageClient::HasDirectReceiver(std::uint32_t moduleId, bool evenIfForwarded) const {
    const SharedGuard guard(m_clientsLock);
    const auto clients = ClientsOf(moduleId);
    return std::any_of(clients.begin(), clients.end(),
                       [&](const ClientEntry* entry) { return evenIfForwarded || !entry->forwardPosts; });
}

bool BaseMessageClient::PostPacket(const std::shared_ptr<BasePacket>& packet) {
    if (packet->GetMsgType() == MessageType::kPublished || packet->GetTo() == ModuleId::kBroadcast) {
        DispatchRecvPackage(packet);
        return QueueFrame(packet);
    }
    if (HasDirectReceiver(packet->GetTo(), false)) {
        DispatchRecvPackage(packet);
        return true;
    }
    return QueueFrame(packet);
}

bool BaseMessageClient::SendPacket(const std::shared_ptr<BasePacket>& packet) {
    if (HasDirectReceiver(packet->GetTo(), true)) {
        DispatchRecvPackage(packet);
        return true;
    }
    return QueueFrame(packet);
}

bool BaseMessageClient::QueueFrame(const std::shared_ptr<BasePacket>& packet) {
    QueueBytes(packet->ToFrame());
    return true;
}

void BaseMessageClient::DispatchRecvPackage(const std::shared_ptr<BasePacket>& packet) {
    if (m_stop != 1) {
        RoutePacket(packet);
    }
}

void BaseMessageClient::RoutePacket(const std::shared_ptr<BasePacket>& packet) {
    if (packet->GetMsgType() == MessageType::kPublished) {
        const SharedGuard guard(m_publishLock);
        for (const auto& entry : m_publishHandlers) {
            entry->onPacket(packet);
        }
    } else if (packet->GetTo() == ModuleId::kBroadcast) {
        const SharedGuard guard(m_clientsLock);
        for (const auto& entry : m_clients) {
            entry->onPacket(packet);
        }
    } else {
        const SharedGuard guard(m_clientsLock);
        for (const ClientEntry* entry : ClientsOf(packet->GetTo())) {
            entry->onPacket(packet);
        }
    }
    WakeupReplyMsg(packet);
}

// ---- Waits ---------------------------------------------------------------------------------------------------------

BaseMessageClient::ReplyWait::ReplyWait(std::uint32_t awaited, std::shared_ptr<BasePacket> sent)
    : event(CreateEventW(nullptr, TRUE, FALSE, nullptr)), msgId(awaited), uniqMsgId(sent->GetUniqMsgId()),
      request(std::move(sent)) {}

BaseMessageClient::ReplyWait::~ReplyWait() {
    CloseHandle(event);
}

namespace {

// Counts the calling thread for one scope.
class WaitCount {
public:
    explicit WaitCount(std::atomic<int>& count) : m_count(count) { ++m_count; }
    ~WaitCount() { --m_count; }
    WaitCount(const WaitCount&) = delete;
    WaitCount& operator=(const WaitCount&) = delete;

private:
    std::atomic<int>& m_count;
};

} // namespace

std::shared_ptr<BasePacket> BaseMessageClient::WaitForMessage(std::uint32_t msgId, DWORD timeoutMs,
                                                              const std::shared_ptr<BasePacket>& request) {
    const WaitCount count(m_waits);
    std::shared_ptr<ReplyWait> wait;
    try {
        wait = std::make_shared<ReplyWait>(msgId, request);
        const AutoLock lock(&m_replyWaits);
        m_replyWaits.m_items.push_back(wait);
    } catch (const std::bad_alloc&) {
        LOG_ERROR("CReplyWait object alloc failed");
        return nullptr;
    }
    StepDown();
    if (SendPacket(request) && !IsStopped()) {
        LOG_DEBUG("wait for event. msgId=" << msgId << ", uniqMsgId=" << wait->uniqMsgId);
        const auto answeredWithin = [&wait](DWORD ms) { return WaitForSingleObject(wait->event, ms) == WAIT_OBJECT_0; };
        if (m_answerSpin.Wait([&] { return answeredWithin(0); }, [&] { return answeredWithin(timeoutMs); })) {
            LOG_DEBUG("success wait for event. msgId=" << msgId << ", uniqMsgId=" << wait->uniqMsgId);
        }
    }
    const AutoLock lock(&m_replyWaits);
    m_replyWaits.m_items.remove(wait);
    return std::move(wait->reply);
}

void BaseMessageClient::WakeupReplyMsg(const std::shared_ptr<BasePacket>& packet) {
    if (m_waits == 0) {
        return; // whoever waits has counted itself before its request left
    }
    std::list<std::shared_ptr<ReplyWait>> answered;
    {
        const AutoLock lock(&m_replyWaits);
        auto& waits = m_replyWaits.m_items;
        for (auto next = waits.begin(); next != waits.end();) {
            const auto wait = next++;
            if (auto reply = ReplyFor(**wait, packet)) {
                (*wait)->reply = std::move(reply);
                answered.splice(answered.end(), waits, wait);
            }
        }
    }
    Signal(answered);
}

// What the wait gets out of the packet; null when it waits for something else.
std::shared_ptr<BasePacket> BaseMessageClient::ReplyFor(const ReplyWait& wait,
                                                        const std::shared_ptr<BasePacket>& packet) {
    const std::uint32_t msgId = packet->GetMsgId();
    const std::uint32_t uniqMsgId = packet->GetUniqMsgId();
    if (msgId == ControlMessage::kModuleOffline) {
        std::uint32_t moduleId = 0;
        if (!ReadModuleIdBody(packet->GetBody(), moduleId) || moduleId != wait.request->GetTo()) {
            return nullptr;
        }
        LOG_DEBUG("offline msg. msgId=" << msgId << ", uniqId=" << uniqMsgId);
        // The notice stands in for the answer of that module. A copy: callbacks may be reading the packet.
        auto notice = std::make_shared<BasePacket>(*packet);
        notice->SetTo(wait.request->GetFrom());
        notice->SetFrom(wait.request->GetTo());
        return notice;
    }
    if (wait.msgId == msgId && wait.uniqMsgId == uniqMsgId) {
        LOG_DEBUG("find not offline msg. msgId=" << msgId << ", uniqId=" << uniqMsgId);
        return packet;
    }
    LOG_DEBUG("illegal messages.");
    return nullptr;
}

void BaseMessageClient::ReleaseWaits() {
    std::list<std::shared_ptr<ReplyWait>> released;
    {
        const AutoLock lock(&m_replyWaits);
        released.swap(m_replyWaits.m_items);
    }
    Signal(released);
}

// Not under the lock, which is the first thing that who wakes up takes.
void BaseMessageClient::Signal(const std::list<std::shared_ptr<ReplyWait>>& waits) {
    for (const auto& wait : waits) {
        SetEvent(wait->event);
    }
}

} // namespace Vantor::Sentrix
