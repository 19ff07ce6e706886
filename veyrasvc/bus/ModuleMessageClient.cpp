// The engine's life, its registries, routing within the process, and the waits. The connection itself is in
// ModuleMessageClientIo.cpp.
#include "veyrasvc/bus/ModuleMessageClient.h"

#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/Succeeds.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

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
    m_spareJoined.reserve(kSpareJoined);
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
    if (m_started || IsStopped()) {
        return m_started;
    }
    if (CreateEvents()) {
        m_workerThread = CreateThread(nullptr, 0, &BaseMessageClient::WorkerProc, this, 0, nullptr);
        m_started = m_workerThread != nullptr;
    }
    if (!m_started) {
        LOG_ERROR("the connection to the bus has no thread; it is tried again when something is sent");
        CloseEvents();
    }
    return m_started;
}

void BaseMessageClient::Stop() {
    constexpr DWORD kPatienceMs = 1000;
    const AutoLock lock(&m_lifecycleLock);
    m_stop = 1;
    {
        const AutoLock sending(&m_sendQueue);
        while (!m_sendQueue.m_items.empty()) { // one by one, because a new container would need memory
            m_sendQueue.m_items.pop();
        }
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
                                       PacketReceiver receiver) {
    Start(); // where there was no thread for it before, there may be one now
    const bool isRegistered = Succeeds([&] {
        auto entry = std::make_unique<ClientEntry>(ClientEntry{moduleId, owner, forwardPosts, std::move(receiver)});
        const std::string word = std::to_string(moduleId) + ' ';
        const ExclusiveGuard guard(m_clientsLock);
        auto& sameId = m_clientsById[moduleId]; // an empty list does no harm
        m_registrationText.reserve(m_registrationText.size() + word.size());
        sameId.push_back(entry.get());
        try {
            m_clients.push_back(std::move(entry));
        } catch (const std::bad_alloc&) {
            sameId.pop_back();
            throw;
        }
        m_registrationText += word;
        return true;
    });
    if (!isRegistered) {
        return false;
    }
    if (TryUpdatePidMid()) {
        return true;
    }
    UnregisterClient(owner);
    return false;
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
    if (!TryUpdatePidMid() && m_started) {
        m_registrationDue = true;
        SetEvent(m_sendEvent);
    }
    return true;
}

bool BaseMessageClient::RegisterPublishHandler(const IPCMessageClient* owner, std::uint32_t moduleId,
                                               PacketReceiver receiver) {
    return Succeeds([&] {
        auto entry = std::make_unique<PublishEntry>(PublishEntry{moduleId, owner, std::move(receiver)});
        const ExclusiveGuard guard(m_publishLock);
        m_publishHandlers.push_back(std::move(entry));
        return true;
    });
}

bool BaseMessageClient::UnregisterPublishHandler(const IPCMessageClient* owner) {
    const ExclusiveGuard guard(m_publishLock);
    if (const auto entry = FindFirstOf(m_publishHandlers, owner); entry != m_publishHandlers.end()) {
        m_publishHandlers.erase(entry);
    }
    return true;
}

BasePacket BaseMessageClient::MakeRegistration() const {
    BasePacket registration;
    registration.SetFrom(GetCurrentProcessId());
    registration.SetTo(ModuleId::kMsgServer);
    registration.SetMsgId(ControlMessage::kRegistration);
    const SharedGuard guard(m_clientsLock);
    registration.SetBody(m_registrationText);
    return registration;
}

bool BaseMessageClient::TryUpdatePidMid() {
    return Succeeds([this] {
        UpdatePidMid();
        return true;
    });
}

void BaseMessageClient::UpdatePidMid() {
    const AutoLock lock(&m_registrationLock);
    const BasePacket registration = MakeRegistration();
    const AutoLock sending(&m_sendQueue);
    if (m_pipe != INVALID_HANDLE_VALUE && !IsStopped()) {
        QueueFor(m_connection, registration.ToFrame());
    }
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

// Queued first: where that fails nobody has received anything.
bool BaseMessageClient::PostPacket(const std::shared_ptr<BasePacket>& packet) {
    if (packet->GetMsgType() == MessageType::kPublished || packet->GetTo() == ModuleId::kBroadcast) {
        const bool isQueued = QueueFrame(packet);
        if (isQueued) {
            Dispatch(packet, true);
        }
        return isQueued;
    }
    return HasDirectReceiver(packet->GetTo(), false) ? Dispatch(packet, false) : QueueFrame(packet);
}

bool BaseMessageClient::SendPacket(const std::shared_ptr<BasePacket>& packet) {
    return HasDirectReceiver(packet->GetTo(), true) ? Dispatch(packet, false) : QueueFrame(packet);
}

bool BaseMessageClient::QueueFrame(const std::shared_ptr<BasePacket>& packet) {
    if (!m_started && !IsStopped() && !Start()) {
        return false;
    }
    QueueBytes(packet->ToFrame());
    return true;
}

namespace {

// Gives a packet to all who want it. Each gets bytes of its own: a copy, and the last one the packet itself where
// nobody else has it.
class Handout {
public:
    explicit Handout(const std::shared_ptr<BasePacket>& packet) : m_packet(packet) {}

    void Offer(const PacketReceiver& receiver) {
        if (receiver.wants(*m_packet)) {
            GiveCopy();
            m_last = &receiver;
        }
    }
    bool IsWanted() const { return m_last != nullptr; }
    // While the receivers are sure to be there.
    void Finish(bool othersHaveIt) {
        if (othersHaveIt) {
            GiveCopy();
        } else if (m_last != nullptr) {
            m_gaveItself = true;
            m_isComplete = m_last->take(m_packet) && m_isComplete;
        }
    }

    bool GaveItself() const { return m_gaveItself; }
    // False: a receiver has lost the packet.
    bool IsComplete() const { return m_isComplete; }

private:
    void GiveCopy() {
        if (m_last != nullptr) {
            m_isComplete = Succeeds([this] { return m_last->take(m_packet->OwnCopy()); }) && m_isComplete;
        }
    }

    const std::shared_ptr<BasePacket>& m_packet;
    const PacketReceiver* m_last = nullptr; // wants it and has not got it yet
    bool m_gaveItself = false;
    bool m_isComplete = true;
};

} // namespace

bool BaseMessageClient::Dispatch(const std::shared_ptr<BasePacket>& packet, bool isQueuedToo) {
    if (IsStopped()) {
        return true;
    }
    Handout handout(packet);
    const auto handOut = [&](const auto& entries) {
        for (const auto& entry : entries) {
            handout.Offer(entry->receiver);
        }
        handout.Finish(isQueuedToo || (handout.IsWanted() && IsAwaited(*packet)));
    };
    if (packet->GetMsgType() == MessageType::kPublished) {
        const SharedGuard guard(m_publishLock);
        handOut(m_publishHandlers);
    } else if (packet->GetTo() == ModuleId::kBroadcast) {
        const SharedGuard guard(m_clientsLock);
        handOut(m_clients);
    } else {
        const SharedGuard guard(m_clientsLock);
        handOut(ClientsOf(packet->GetTo()));
    }
    WakeupReplyMsg(packet, !isQueuedToo && !handout.GaveItself());
    return handout.IsComplete();
}

// ---- Waits ---------------------------------------------------------------------------------------------------------

BaseMessageClient::ReplyWait::ReplyWait(std::uint32_t awaited, std::shared_ptr<BasePacket> sent)
    : event(CreateEventW(nullptr, TRUE, FALSE, nullptr)), msgId(awaited), uniqMsgId(sent->GetUniqMsgId()),
      request(std::move(sent)) {}

BaseMessageClient::ReplyWait::~ReplyWait() {
    if (event != nullptr) {
        CloseHandle(event);
    }
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

std::shared_ptr<BaseMessageClient::ReplyWait> BaseMessageClient::OpenWait(std::uint32_t msgId,
                                                                          const std::shared_ptr<BasePacket>& request) {
    std::shared_ptr<ReplyWait> wait;
    const bool isOpen = Succeeds([&] {
        wait = std::make_shared<ReplyWait>(msgId, request);
        const AutoLock lock(&m_replyWaits);
        m_replyWaits.m_items.push_back(wait);
        return wait->event != nullptr;
    });
    if (!isOpen) {
        LOG_ERROR("CReplyWait object alloc failed");
    }
    return isOpen ? wait : nullptr;
}

std::shared_ptr<BasePacket> BaseMessageClient::WaitForMessage(std::uint32_t msgId, DWORD timeoutMs,
                                                              const std::shared_ptr<BasePacket>& request) {
    const WaitCount count(m_waits);
    const auto wait = OpenWait(msgId, request);
    if (!wait) {
        return nullptr;
    }
    StepDown();
    if (Succeeds([&] { return SendPacket(request); }) && !IsStopped()) {
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

BaseMessageClient::Match BaseMessageClient::MatchOf(const ReplyWait& wait, const BasePacket& packet) {
    if (packet.GetMsgId() == ControlMessage::kModuleOffline) {
        std::uint32_t moduleId = 0;
        const bool isAbout = ReadModuleIdBody(packet.GetBody(), moduleId) && moduleId == wait.request->GetTo();
        return isAbout ? Match::Offline : Match::None;
    }
    return wait.msgId == packet.GetMsgId() && wait.uniqMsgId == packet.GetUniqMsgId() ? Match::Answer : Match::None;
}

bool BaseMessageClient::IsAwaited(const BasePacket& packet) {
    if (m_waits == 0) {
        return false; // a sender counts itself before its request leaves
    }
    const AutoLock lock(&m_replyWaits);
    const auto& waits = m_replyWaits.m_items;
    return std::any_of(waits.begin(), waits.end(),
                       [&](const auto& wait) { return MatchOf(*wait, packet) != Match::None; });
}

namespace {

void LogMatch(const char* what, const BasePacket& packet) {
    LOG_DEBUG(what << " msgId=" << packet.GetMsgId() << ", uniqId=" << packet.GetUniqMsgId());
}

// The notice stands in for the answer of the module that was asked.
std::shared_ptr<BasePacket> NoticeInPlaceOfAnswer(const BasePacket& notice, const BasePacket& request) {
    auto answer = notice.OwnCopy();
    answer->SetTo(request.GetFrom());
    answer->SetFrom(request.GetTo());
    return answer;
}

} // namespace

void BaseMessageClient::WakeupReplyMsg(const std::shared_ptr<BasePacket>& packet, bool isFree) {
    if (m_waits == 0) {
        return; // a sender counts itself before its request leaves
    }
    Signals answered; // given when the lock is free: a thread that wakes up takes it first
    const AutoLock lock(&m_replyWaits);
    auto& waits = m_replyWaits.m_items;
    for (auto next = waits.begin(); next != waits.end();) {
        const auto wait = next++;
        switch (MatchOf(**wait, *packet)) {
        case Match::None:
            LOG_DEBUG("illegal messages.");
            continue;
        case Match::Offline:
            LogMatch("offline msg.", *packet);
            (*wait)->reply = NoticeInPlaceOfAnswer(*packet, *(*wait)->request);
            break;
        case Match::Answer:
            LogMatch("find not offline msg.", *packet);
            (*wait)->reply = std::exchange(isFree, false) ? packet : packet->OwnCopy();
            break;
        }
        answered.waits.splice(answered.waits.end(), waits, wait);
    }
}

void BaseMessageClient::ReleaseWaits() {
    Signals released;
    const AutoLock lock(&m_replyWaits);
    released.waits.swap(m_replyWaits.m_items);
}

BaseMessageClient::Signals::~Signals() {
    for (const auto& wait : waits) {
        SetEvent(wait->event);
    }
}

} // namespace Vantor::Sentrix
