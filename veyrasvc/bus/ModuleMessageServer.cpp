#include "veyrasvc/bus/ModuleMessageServer.h"

#include "veyrasvc/bus/IPCMessageExport.h"
#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/util/ByteOrder.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/MemoryReport.h"
#include "veyrasvc/util/Storage.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <span>
#include <utility>

namespace Vantor::Sentrix {

namespace {

constexpr std::size_t kMaxConnections = 100;
constexpr std::size_t kLongestRead = 256 * 1024; // of one read into a long frame
constexpr std::size_t kBlockBytes = 64 * 1024;   // of one read from a busy connection
constexpr std::size_t kKeptBlocks = 16;
// Less than this is copied to be sent: a slow receiver must not hold whole blocks for the sake of a few bytes.
constexpr std::size_t kSharedRunBytes = kBlockBytes / 4;

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

// The text of a registration; empty when it cannot be deciphered.
std::string RegistrationText(const BasePacket& packet) {
    if (!packet.GetEncrypted()) {
        return std::string(packet.GetBody());
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
    Connection* const connection = Find(context);
    if (connection == nullptr) {
        return;
    }
    // A request is followed by its answer, and that by the next request. What one sends in a rush is better left to
    // come together.
    if (connection != std::exchange(m_lastSender, connection)) {
        ExpectMore();
    }
    const AutoLock lock(connection);
    const auto handle = [&](const SharedBytes& frame) { HandlePacket(*connection, frame); };
    bool inStep = true;
    try {
        if (buffer->m_storage && buffer->m_storage == connection->m_recvBuffer.Storage()) {
            connection->m_recvBuffer.Filled(buffer->m_length, handle);
        } else {
            connection->m_busy = buffer->m_length >= kPipeIoBytes;
            inStep = connection->m_recvBuffer.Feed({buffer->m_storage, {buffer->m_data, buffer->m_length}}, handle);
        }
        SendRun(*connection);
    } catch (const std::bad_alloc&) {
        LOG_ERROR("no memory for a frame; the connection is closed. pid=" << connection->m_pid);
        connection->m_recvBuffer.Clear();
        m_run = {};
        inStep = false;
    }
    if (!inStep) {
        ClosePipe(context);
    }
}

// The rest of a long frame is read where it belongs. Where much comes, it is read into a block from which it can be
// sent.
void ModuleMessageServer::OnBeforeRead(IOCPContext* context, IOCPBuffer* buffer) {
    Connection* const connection = Find(context);
    if (connection == nullptr) {
        return;
    }
    const AutoLock lock(connection);
    const std::size_t otherRoom = connection->m_busy ? kBlockBytes : kPipeIoBytes;
    try {
        if (const std::span<char> room = connection->m_recvBuffer.Room(otherRoom); !room.empty()) {
            buffer->m_data = room.data();
            buffer->m_length = static_cast<DWORD>(std::min(room.size(), kLongestRead));
            buffer->m_storage = connection->m_recvBuffer.Storage();
            ExpectMore();
        } else if (connection->m_busy) {
            buffer->m_storage = FreeBlock();
            buffer->m_data = buffer->m_storage.get();
            buffer->m_length = kBlockBytes;
        }
    } catch (const std::bad_alloc&) {
        LOG_ERROR("no memory for a frame; the connection is closed. pid=" << connection->m_pid);
        ClosePipe(context);
    }
}

// One that nobody reads into or sends from. A few are kept.
std::shared_ptr<char[]> ModuleMessageServer::FreeBlock() {
    const auto isFree = [](const auto& block) { return block.use_count() == 1; };
    if (const auto found = std::find_if(m_blocks.begin(), m_blocks.end(), isFree); found != m_blocks.end()) {
        return *found;
    }
    auto block = AllocateStorage(kBlockBytes);
    if (m_blocks.size() < kKeptBlocks) {
        m_blocks.push_back(block);
    }
    return block;
}

// The connection ends only by this thread.
ModuleMessageServer::Connection* ModuleMessageServer::Find(const IOCPContext* context) {
    const AutoLock lock(&m_connections);
    const auto found = m_connections.m_items.find(reinterpret_cast<std::uint64_t>(context));
    return found == m_connections.m_items.end() ? nullptr : found->second;
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

void ModuleMessageServer::HandlePacket(Connection& connection, const SharedBytes& frame) {
    std::uint32_t counter = ++packetCounter;
    PacketHeader header{};
    if (!ReadPacketHeader(frame.bytes, counter, header)) {
        return;
    }
    LogPacket("Recv Packet", counter, header.from, header.to, header.msgId);
    if (header.msgType != MessageType::kPublished && header.to == ModuleId::kMsgServer &&
        header.msgId == ControlMessage::kRegistration) {
        SendRun(connection);
        ApplyRegistration(connection, frame, header);
        return;
    }
    if (JoinRun(frame, header)) {
        return;
    }
    SendRun(connection);
    m_run = {frame, 1, header, counter};
    if (IsLogEnabled(LogLevel::Debug)) {
        SendRun(connection); // the log is to tell of one packet after the other
    }
}

bool ModuleMessageServer::JoinRun(const SharedBytes& frame, const PacketHeader& header) {
    std::string_view& run = m_run.frames.bytes;
    const PacketHeader& first = m_run.header;
    if (m_run.count == 0 || m_run.frames.storage != frame.storage || run.data() + run.size() != frame.bytes.data() ||
        header.to != first.to || header.from != first.from || header.msgType != first.msgType) {
        return false;
    }
    run = {run.data(), run.size() + frame.bytes.size()};
    ++m_run.count;
    return true;
}

void ModuleMessageServer::SendRun(const Connection& sender) {
    const Run run = std::exchange(m_run, {});
    if (run.count == 0) {
        return;
    }
    if (run.header.msgType == MessageType::kPublished) {
        SendToOtherProcesses(sender, run, "Send publish Packet .Pid. ");
    } else if (run.header.to == ModuleId::kBroadcast) {
        SendToOtherProcesses(sender, run, "Send broad Packet to Pid. ");
    } else {
        SendToModule(run);
    }
}

// False when the payload is damaged. A payload too short for a field reads as zero there.
bool ModuleMessageServer::ReadPacketHeader(std::string_view frame, std::uint32_t& counter, PacketHeader& header) {
    counter = ++packetCounter;
    if (!FrameHeader::IsPayloadIntact(frame)) {
        return false;
    }
    header = ReadHeader(frame);
    return true;
}

void ModuleMessageServer::SendToModule(const Run& run) {
    const PacketHeader& header = run.header;
    m_targets.clear();
    {
        const AutoLock lock(&m_connections);
        const auto found = m_receivers.find(header.to);
        if (found != m_receivers.end()) {
            m_targets.assign(found->second.begin(), found->second.end());
        }
    }
    for (const Connection* receiver : m_targets) {
        SendToConnection(*receiver, run.frames);
        LogPacket("Send Packet To Module.Id. ", run.counter, header.from, header.to, header.msgId);
    }
    for (std::size_t missed = m_targets.empty() ? run.count : 0; missed > 0; --missed) {
        PostStatus(static_cast<std::int32_t>(header.from), header.to, ControlMessage::kModuleOffline);
        LogPacket("Miss Module:", run.counter, header.from, header.to, header.msgId);
    }
}

void ModuleMessageServer::SendToOtherProcesses(const Connection& sender, const Run& run, const char* title) {
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
        SendToConnection(*receiver, run.frames);
        LogPacket(title, run.counter, run.header.from, receiver->m_pid, run.header.msgId);
    }
}

// A lot is sent from its storage, if it has one.
void ModuleMessageServer::SendToConnection(const Connection& connection, const SharedBytes& frames) {
    if (frames.storage && frames.bytes.size() >= kSharedRunBytes) {
        SendShared(connection.m_context, frames);
    } else {
        SendText(connection.m_context, frames.bytes.data(), static_cast<int>(frames.bytes.size()));
    }
}

// ---- Registration --------------------------------------------------------------------------------------------------

void ModuleMessageServer::ApplyRegistration(Connection& connection, const SharedBytes& frame,
                                            const PacketHeader& header) {
    if (connection.m_pid == 0) {
        connection.m_pid = header.from;
    }
    BasePacket packet;
    packet.DeserializeFrame(frame);
    UpdateModuleIds(connection, RegistrationText(packet));
}

void ModuleMessageServer::UpdateModuleIds(Connection& connection, const std::string& text) {
    EnsureStatusClient();
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
                Unlink(connection, moduleId);
            }
        }
    }
    for (const std::uint32_t moduleId : changed) {
        PublishStatus(moduleId, isOnline(moduleId) ? ControlMessage::kModuleOnline : ControlMessage::kModuleOffline);
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
