// Connections and routing. Registration, presence and the router's own voice are in RouterPresence.cpp.
#include "veyrasvc/bus/Router.h"

#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/bus/PacketLog.h"
#include "veyrasvc/util/LogStatement.h"
#include "veyrasvc/util/MemoryReport.h"
#include "veyrasvc/util/Storage.h"

#include <algorithm>
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
constexpr std::size_t kShortestFrame = FrameHeader::kSize + sizeof(PacketHeader);

// The PacketIndex of the log lines: advanced when a frame is taken and again when its header is read.
std::atomic<std::uint32_t> packetCounter{0};

} // namespace

Router::~Router() {
    if (m_shortFrames + m_lostNotices > 0) {
        LOG_WARN("while the bus was served: frames without a whole head=" << m_shortFrames
                                                                          << ", lost notices=" << m_lostNotices);
    }
}

// ---- Connections ---------------------------------------------------------------------------------------------------

bool Router::OnNewConnection(IOCPContext* context) {
    if (context == nullptr) {
        return false;
    }
    Forget(context);
    const AutoLock lock(&m_connections);
    if (m_connections.m_items.size() > kMaxConnections) {
        return false;
    }
    m_connections.m_items.emplace(reinterpret_cast<std::uint64_t>(context), std::make_unique<Connection>(context));
    ShowMemory(L"OnNewConnection");
    return true;
}

void Router::OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD /*error*/) {
    if (context == nullptr || buffer == nullptr) {
        return;
    }
    m_run = {}; // when memory ended in the middle of one
    Forget(context);
    ShowMemory(L"OnConnectionClose");
}

// Its modules go offline. Needs no memory.
void Router::Forget(const IOCPContext* context) {
    std::unique_ptr<Connection> closed;
    {
        const AutoLock lock(&m_connections);
        const auto found = m_connections.m_items.find(reinterpret_cast<std::uint64_t>(context));
        if (found == m_connections.m_items.end()) {
            return;
        }
        closed = std::move(found->second);
        m_connections.m_items.erase(found);
        for (const std::uint32_t moduleId : closed->m_moduleIds) {
            Unlink(*closed, moduleId);
        }
    }
    for (const std::uint32_t moduleId : closed->m_moduleIds) {
        PublishStatus(moduleId, ControlMessage::kModuleOffline);
    }
}

void Router::OnRecvData(IOCPContext* context, IOCPBuffer* buffer) {
    Connection* const connection = Find(context);
    if (connection == nullptr) {
        return;
    }
    // A request is followed by its answer, and that by the next request. What one sends in a rush is better left to
    // come together.
    if (connection != std::exchange(m_lastSender, connection)) {
        ExpectMore(context);
    }
    const AutoLock lock(connection);
    const auto handle = [&](const SharedBytes& frame) { HandlePacket(*connection, frame); };
    bool inStep = true;
    if (buffer->m_storage && buffer->m_storage == connection->m_recvBuffer.Storage()) {
        connection->m_recvBuffer.Filled(buffer->m_length, handle);
    } else {
        connection->m_busy = buffer->m_length >= kPipeIoBytes;
        inStep = connection->m_recvBuffer.Feed({buffer->m_storage, {buffer->m_data, buffer->m_length}}, handle);
    }
    SendRun(*connection);
    if (!inStep) {
        ClosePipe(context);
    }
}

// The rest of a long frame is read where it belongs. Where much comes, it is read into a block from which it can be
// sent.
void Router::OnBeforeRead(IOCPContext* context, IOCPBuffer* buffer) {
    Connection* const connection = Find(context);
    if (connection == nullptr) {
        return;
    }
    const AutoLock lock(connection);
    const std::size_t otherRoom = connection->m_busy ? kBlockBytes : kPipeIoBytes;
    if (const std::span<char> room = connection->m_recvBuffer.Room(otherRoom); !room.empty()) {
        buffer->m_data = room.data();
        buffer->m_length = static_cast<DWORD>(std::min(room.size(), kLongestRead));
        buffer->m_storage = connection->m_recvBuffer.Storage();
        ExpectMore(context);
    } else if (connection->m_busy) {
        buffer->m_storage = FreeBlock();
        buffer->m_data = buffer->m_storage.get();
        buffer->m_length = kBlockBytes;
    }
}

// One that nobody reads into or sends from. A few are kept.
std::shared_ptr<char[]> Router::FreeBlock() {
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
Router::Connection* Router::Find(const IOCPContext* context) {
    const AutoLock lock(&m_connections);
    const auto found = m_connections.m_items.find(reinterpret_cast<std::uint64_t>(context));
    return found == m_connections.m_items.end() ? nullptr : found->second.get();
}

// ---- Routing -------------------------------------------------------------------------------------------------------

namespace {

// A message that the router itself is to handle. One to every module is for it too, where it knows it.
bool IsOwn(const PacketHeader& header) {
    return header.msgType != MessageType::kPublished &&
           (header.to == ModuleId::kMsgServer ||
            (header.to == ModuleId::kBroadcast && header.msgId == ControlMessage::kStatusQuery));
}

} // namespace

void Router::HandlePacket(Connection& connection, const SharedBytes& frame) {
    std::uint32_t counter = ++packetCounter;
    PacketHeader header{};
    if (!ReadPacketHeader(connection, frame.bytes, counter, header)) {
        return;
    }
    LogPacket("Recv Packet", counter, header.from, header.to, header.msgId);
    const bool isOwn = IsOwn(header);
    if (!isOwn && JoinRun(frame, header)) {
        return;
    }
    SendRun(connection);
    if (isOwn && header.msgId == ControlMessage::kRegistration) {
        ApplyRegistration(connection, frame);
        return;
    }
    m_run = {frame, 1, header, counter};
    if (isOwn) {
        SendRun(connection); // there may be others that it is for
        HandleOwn(connection, frame, header.msgId);
        return;
    }
    if (IsLogEnabled(LogLevel::Debug)) {
        SendRun(connection); // the log is to tell of one packet after the other
    }
}

bool Router::JoinRun(const SharedBytes& frame, const PacketHeader& header) {
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

void Router::SendRun(const Connection& sender) {
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

// False when the frame has no whole head or a damaged payload.
bool Router::ReadPacketHeader(Connection& connection, std::string_view frame, std::uint32_t& counter,
                              PacketHeader& header) {
    counter = ++packetCounter;
    if (frame.size() < kShortestFrame) {
        ++m_shortFrames;
        if (!std::exchange(connection.m_sentShort, true)) {
            LOG_WARN("frames without a whole head are dropped. pid=" << connection.m_pid);
        }
        return false;
    }
    if (!FrameHeader::IsPayloadIntact(frame)) {
        return false;
    }
    header = ReadHeader(frame);
    return true;
}

void Router::SendToModule(const Run& run) {
    const PacketHeader& header = run.header;
    {
        const AutoLock lock(&m_connections);
        if (const auto found = m_receivers.find(header.to); found != m_receivers.end()) {
            for (const Connection* receiver : found->second) {
                SendToConnection(*receiver, run.frames);
                LogPacket("Send Packet To Module.Id. ", run.counter, header.from, header.to, header.msgId);
            }
            return;
        }
    }
    for (std::size_t missed = header.to == ModuleId::kMsgServer ? 0 : run.count; missed > 0; --missed) {
        PostStatus(header.from, header.to, ControlMessage::kModuleOffline);
        LogPacket("Miss Module:", run.counter, header.from, header.to, header.msgId);
    }
}

void Router::SendToOtherProcesses(const Connection& sender, const Run& run, const char* title) {
    const AutoLock lock(&m_connections);
    for (const auto& [key, receiver] : m_connections.m_items) {
        if (receiver->m_pid != sender.m_pid) {
            SendToConnection(*receiver, run.frames);
            LogPacket(title, run.counter, run.header.from, receiver->m_pid, run.header.msgId);
        }
    }
}

// A lot is sent from its storage, if it has one.
void Router::SendToConnection(const Connection& connection, const SharedBytes& frames) {
    if (frames.storage && frames.bytes.size() >= kSharedRunBytes) {
        SendShared(connection.m_context, frames);
    } else {
        SendText(connection.m_context, frames.bytes.data(), static_cast<int>(frames.bytes.size()));
    }
}

} // namespace Vantor::Sentrix
