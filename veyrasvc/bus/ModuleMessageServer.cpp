#include "veyrasvc/bus/ModuleMessageServer.h"

#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/IPCMessageExport.h"
#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/util/ByteOrder.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/MemoryReport.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <new>

namespace Vantor::Sentrix {

namespace {

constexpr std::size_t kMaxConnections = 100;
constexpr std::size_t kHeaderFieldBytes = 16; // of the payload, as far as the router reads it

// Display names for the packet log; shared by the whole process and never destroyed, because the worker may log while
// the process exits.
struct NameTable : public CommonLock {
    std::map<int, std::string> m_names VEYRA_GUARDED_BY(this);
};

NameTable& Names() {
    static auto* const table = new NameTable;
    return *table;
}

std::string NameOf(unsigned long moduleId) {
    NameTable& table = Names();
    const AutoLock lock(&table);
    const auto found = table.m_names.find(static_cast<int>(moduleId));
    return found == table.m_names.end() ? "UnKnow" : found->second;
}

// The PacketIndex of the log lines: advanced when a frame is taken and again when its header is read.
std::atomic<std::uint32_t> packetCounter{0};

// The ids of a registration text: decimal numbers, each followed by one space. Without digits a number is 0, digits
// beyond 32 bits wrap around, and what follows the last space does not count.
std::set<std::uint32_t> ParseModuleIds(const std::string& text) {
    std::set<std::uint32_t> ids;
    for (std::size_t begin = 0, end = 0; (end = text.find(' ', begin)) != std::string::npos; begin = end + 1) {
        std::uint32_t id = 0;
        for (std::size_t i = begin; i < end && text[i] >= '0' && text[i] <= '9'; ++i) {
            id = id * 10 + static_cast<std::uint32_t>(text[i] - '0');
        }
        ids.insert(id);
    }
    return ids;
}

// The text of a registration; empty when it cannot be deciphered.
std::string RegistrationText(const BasePacket& packet) {
    if (!packet.GetEncrypted()) {
        return packet.GetBody();
    }
    char* plain = nullptr;
    std::size_t length = 0;
    if (!packet.DecryptBody(plain, length)) {
        return {};
    }
    std::string text(plain, length);
    ::operator delete(plain);
    return text;
}

} // namespace

void WritePacketLog(const std::string& title, unsigned long packetIndex, unsigned long from, unsigned long to,
                    unsigned long msg) {
    LOG_DEBUG("title=" << title << ", PacketIndex=" << packetIndex << ", From=[" << NameOf(from) << ":" << from
                       << "], To=[" << NameOf(to) << ":" << to << "], Msg=" << msg << "(+" << (msg & 0xFFFF) << ")");
}

namespace {

// The router's own lines: while DEBUG is disabled not even the title becomes a string.
void LogPacket(const char* title, std::uint32_t counter, std::uint32_t from, std::uint32_t to, std::uint32_t msgId) {
    if (IsLogEnabled(LogLevel::Debug)) {
        WritePacketLog(title, counter, from, to, msgId);
    }
}

} // namespace

ModuleMessageServer::ModuleMessageServer() {
    NameTable& table = Names();
    const AutoLock lock(&table);
    table.m_names[ModuleId::kBroadcast] = "BROADCAST";
    table.m_names[ModuleId::kMsgServer] = "MSGSERVER";
    table.m_names[ModuleId::kMainFrame] = "MAINFRAME";
    table.m_names[ModuleId::kMainService] = "MAINSERVICE";
    table.m_names[ModuleId::kMsgCenter] = "MSGCENTER";
}

ModuleMessageServer::~ModuleMessageServer() {
    Stop();
    if (m_statusClient) {
        m_statusClient->UnRegisterMessageCallbackAll();
        m_statusClient.reset();
    }
    ShowMemory(L"~CModuleMessageServer");
    const AutoLock lock(&m_connections);
    for (const auto& [key, connection] : m_connections.m_items) {
        delete connection;
    }
}

// ---- Connections ---------------------------------------------------------------------------------------------------

bool ModuleMessageServer::OnNewConnection(IOCPContext* context) {
    if (context == nullptr) {
        return false;
    }
    const AutoLock lock(&m_connections);
    if (m_connections.m_items.size() > kMaxConnections) {
        return false;
    }
    m_connections.m_items[reinterpret_cast<std::uint64_t>(context)] = new Connection(context);
    ShowMemory(L"OnNewConnection");
    return true;
}

void ModuleMessageServer::OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD /*error*/) {
    if (context == nullptr || buffer == nullptr) {
        return;
    }
    std::unique_ptr<Connection> closed;
    std::set<std::uint32_t> moduleIds;
    {
        const AutoLock lock(&m_connections);
        const auto found = m_connections.m_items.find(reinterpret_cast<std::uint64_t>(context));
        if (found != m_connections.m_items.end()) {
            closed.reset(found->second);
            m_connections.m_items.erase(found);
            moduleIds = closed->m_moduleIds;
            for (const std::uint32_t moduleId : moduleIds) {
                Unlink(*closed, moduleId);
            }
        }
    }
    for (const std::uint32_t moduleId : moduleIds) {
        PublishStatus(moduleId, ControlMessage::kModuleOffline);
    }
    ShowMemory(L"OnConnectionClose");
}

void ModuleMessageServer::OnRecvData(IOCPContext* context, IOCPBuffer* buffer) {
    Connection* connection = nullptr;
    {
        const AutoLock lock(&m_connections);
        const auto found = m_connections.m_items.find(reinterpret_cast<std::uint64_t>(context));
        if (found == m_connections.m_items.end()) {
            return;
        }
        connection = found->second; // ends only by this thread
    }
    const AutoLock lock(connection);
    bool inStep = false;
    try {
        inStep =
            connection->m_recvBuffer.Feed({buffer->m_data, buffer->m_length}, [&](const FrameCutter::Frame& frame) {
                HandlePacket(*connection, frame.bytes);
            });
    } catch (const std::bad_alloc&) {
        LOG_ERROR("no memory for a frame; the connection is closed. pid=" << connection->m_pid);
        connection->m_recvBuffer.Clear();
    }
    if (!inStep) {
        ClosePipe(context);
    }
}

void ModuleMessageServer::Link(Connection& connection, std::uint32_t moduleId) {
    connection.m_moduleIds.insert(moduleId);
    m_receivers[moduleId].push_back(&connection);
}

void ModuleMessageServer::Unlink(Connection& connection, std::uint32_t moduleId) {
    connection.m_moduleIds.erase(moduleId);
    const auto found = m_receivers.find(moduleId);
    auto& receivers = found->second;
    receivers.erase(std::remove(receivers.begin(), receivers.end(), &connection), receivers.end());
    if (receivers.empty()) {
        m_receivers.erase(found);
    }
}

// ---- Routing -------------------------------------------------------------------------------------------------------

void ModuleMessageServer::HandlePacket(Connection& connection, std::string_view frame) {
    std::uint32_t counter = ++packetCounter;
    PacketHeader header{};
    if (!ReadPacketHeader(frame, counter, header)) {
        return;
    }
    LogPacket("Recv Packet", counter, header.from, header.to, header.msgId);
    if (!HandleServerPacket(connection, frame, counter, header)) {
        return;
    }
    if (header.to == ModuleId::kBroadcast) {
        SendToOtherProcesses(connection, frame, counter, header, "Send broad Packet to Pid. ");
    } else {
        SendToModule(frame, counter, header);
    }
}

// False when the payload is damaged. A payload too short for a field reads as zero there.
bool ModuleMessageServer::ReadPacketHeader(std::string_view frame, std::uint32_t& counter, PacketHeader& header) {
    counter = ++packetCounter;
    if (!FrameHeader::IsPayloadIntact(frame)) {
        return false;
    }
    char fields[kHeaderFieldBytes] = {};
    frame.copy(fields, sizeof fields, FrameHeader::kSize);
    header.to = LoadBigEndian32(fields);
    header.from = LoadBigEndian32(fields + 4);
    header.msgId = LoadBigEndian32(fields + 8);
    header.msgType = LoadBigEndian32(fields + 12);
    return true;
}

bool ModuleMessageServer::HandleServerPacket(Connection& connection, std::string_view frame, std::uint32_t counter,
                                             const PacketHeader& header) {
    if (header.msgType == MessageType::kPublished) {
        SendToOtherProcesses(connection, frame, counter, header, "Send publish Packet .Pid. ");
        return false;
    }
    if (header.to == ModuleId::kMsgServer && header.msgId == ControlMessage::kRegistration) {
        ApplyRegistration(connection, frame, header);
        return false;
    }
    return true;
}

void ModuleMessageServer::SendToModule(std::string_view frame, std::uint32_t counter, const PacketHeader& header) {
    m_targets.clear();
    {
        const AutoLock lock(&m_connections);
        const auto found = m_receivers.find(header.to);
        if (found != m_receivers.end()) {
            m_targets.assign(found->second.begin(), found->second.end());
        }
    }
    for (const Connection* receiver : m_targets) {
        SendToConnection(*receiver, frame);
        LogPacket("Send Packet To Module.Id. ", counter, header.from, header.to, header.msgId);
    }
    if (m_targets.empty()) {
        PostStatus(static_cast<std::int32_t>(header.from), header.to, ControlMessage::kModuleOffline);
        LogPacket("Miss Module:", counter, header.from, header.to, header.msgId);
    }
}

void ModuleMessageServer::SendToOtherProcesses(const Connection& sender, std::string_view frame, std::uint32_t counter,
                                               const PacketHeader& header, const char* title) {
    m_targets.clear();
    {
        const AutoLock lock(&m_connections);
        for (const auto& [key, connection] : m_connections.m_items) {
            if (connection->m_pid != sender.m_pid) {
                m_targets.push_back(connection);
            }
        }
    }
    for (const Connection* receiver : m_targets) {
        SendToConnection(*receiver, frame);
        LogPacket(title, counter, header.from, receiver->m_pid, header.msgId);
    }
}

// A frame beyond 2 GiB goes out in runs that SendText can count.
void ModuleMessageServer::SendToConnection(const Connection& connection, std::string_view frame) {
    constexpr auto kRun = static_cast<std::size_t>(std::numeric_limits<int>::max());
    for (; !frame.empty(); frame.remove_prefix(std::min(frame.size(), kRun))) {
        const std::string_view run = frame.substr(0, kRun);
        SendText(connection.m_context, run.data(), static_cast<int>(run.size()));
    }
}

// ---- Registration --------------------------------------------------------------------------------------------------

void ModuleMessageServer::ApplyRegistration(Connection& connection, std::string_view frame,
                                            const PacketHeader& header) {
    if (connection.m_pid == 0) {
        connection.m_pid = header.from;
    }
    BasePacket packet;
    packet.DeserializeFrom(frame.data() + FrameHeader::kSize, frame.size() - FrameHeader::kSize);
    UpdateModuleIds(connection, RegistrationText(packet));
}

void ModuleMessageServer::UpdateModuleIds(Connection& connection, const std::string& text) {
    EnsureStatusClient();
    if (text.empty()) {
        return;
    }
    const std::set<std::uint32_t> updated = ParseModuleIds(text);
    std::vector<std::uint32_t> changed;
    {
        const AutoLock lock(&m_connections);
        const auto& current = connection.m_moduleIds;
        std::set_symmetric_difference(current.begin(), current.end(), updated.begin(), updated.end(),
                                      std::back_inserter(changed));
        for (const std::uint32_t moduleId : changed) {
            if (updated.count(moduleId) != 0) {
                Link(connection, moduleId);
            } else {
                Unlink(connection, moduleId);
            }
        }
    }
    for (const std::uint32_t moduleId : changed) {
        PublishStatus(moduleId,
                      updated.count(moduleId) != 0 ? ControlMessage::kModuleOnline : ControlMessage::kModuleOffline);
    }
}

// ---- The bus's own client ------------------------------------------------------------------------------------------

void ModuleMessageServer::EnsureStatusClient() {
    if (m_statusClient) {
        return;
    }
    try {
        m_statusClient = std::make_unique<IPCMessageClient>(static_cast<int>(ModuleId::kMsgServer), false, false);
        m_statusClient->RegisterMessageCallback(static_cast<int>(ControlMessage::kStatusQuery),
                                                [this](TagIPCMessageItem& item) { OnQueryModuleStatus(item); });
    } catch (const std::bad_alloc&) {
        m_statusClient.reset(); // notices are skipped until it can be had
    }
}

void ModuleMessageServer::OnQueryModuleStatus(const TagIPCMessageItem& item) {
    if (item.dataLen != sizeof(std::uint32_t) || item.data == nullptr) {
        return;
    }
    const std::uint32_t moduleId = LoadLittleEndian32(item.data);
    bool online = false;
    {
        const AutoLock lock(&m_connections);
        online = m_receivers.count(moduleId) != 0;
    }
    PostStatus(item.fromModuleId, moduleId, online ? ControlMessage::kModuleOnline : ControlMessage::kModuleOffline);
}

void ModuleMessageServer::PublishStatus(std::uint32_t moduleId, std::uint32_t msgId) const {
    if (!m_statusClient) {
        return;
    }
    std::string body = ModuleIdBody(moduleId);
    TagIPCMessageItem item;
    item.msgId = static_cast<std::int32_t>(msgId);
    item.dataLen = static_cast<std::int32_t>(body.size());
    item.data = body.data();
    m_statusClient->PublishIPCMessage(item);
}

void ModuleMessageServer::PostStatus(std::int32_t toModuleId, std::uint32_t moduleId, std::uint32_t msgId) const {
    if (!m_statusClient) {
        return;
    }
    std::string body = ModuleIdBody(moduleId);
    TagIPCMessageItem item;
    item.toModuleId = toModuleId;
    item.msgId = static_cast<std::int32_t>(msgId);
    item.dataLen = static_cast<std::int32_t>(body.size());
    item.data = body.data();
    m_statusClient->PostIPCMessage(item);
}

} // namespace Vantor::Sentrix
