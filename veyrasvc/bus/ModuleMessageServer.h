// The router: the bus server proper.
//
// It cuts the bytes of every connection into frames, learns from the registration frames which module lives where, and
// forwards each frame byte for byte to those who should have it. It knows connections only as contexts to send to.
//
// Locks, from the outside in: a context's lock (held by the pipe server while a connection begins or ends) before the
// lock of m_connections; a connection's lock before the locks of the contexts it sends to. Frames are sent when
// m_connections is free again: connections end only by the worker, which is the one that sends.
#pragma once

#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/Frame.h"
#include "veyrasvc/bus/NamedPipeIOCP.h"

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Vantor::Sentrix {

class IPCMessageClient;
struct TagIPCMessageItem;

class ModuleMessageServer : public IOCPServer {
public:
    ModuleMessageServer();

    bool OnNewConnection(IOCPContext* context) override;
    void OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD error) override;
    void OnRecvData(IOCPContext* context, IOCPBuffer* buffer) override;
    void OnBeforeRead(IOCPContext* context, IOCPBuffer* buffer) override;

    // A server that still runs is a caller's error; it is stopped rather than left running over freed memory.
    virtual ~ModuleMessageServer();

private:
    // One client process's connection, from OnNewConnection to OnConnectionClose. Its lock guards m_recvBuffer and is
    // held while its frames are handled.
    struct Connection : public CommonLock {
        explicit Connection(IOCPContext* context) : m_context(context) {}

        IOCPContext* const m_context;
        std::uint32_t m_pid = 0; // of the client; 0 until its first registration. Touched by the worker only.
        FrameCutter m_recvBuffer;
        bool m_busy = false;                 // the last read brought a lot. Touched by the worker only.
        std::string m_registered;            // what m_moduleIds was read from. Touched by the worker only.
        std::set<std::uint32_t> m_moduleIds; // guarded by the lock of m_connections
    };

    // Frames that came one behind the other from one sender and go the same way: they are sent on in one go.
    struct Run {
        SharedBytes frames;
        std::size_t count = 0;
        PacketHeader header{}; // of the first; the others have the same sender, destination and type
        std::uint32_t counter = 0;
    };

    Connection* Find(const IOCPContext* context);
    void HandlePacket(Connection& connection, const SharedBytes& frame);
    static bool ReadPacketHeader(std::string_view frame, std::uint32_t& counter, PacketHeader& header);
    bool JoinRun(const SharedBytes& frame, const PacketHeader& header);
    void SendRun(const Connection& sender);
    void SendToModule(const Run& run);
    void SendToOtherProcesses(const Connection& sender, const Run& run, const char* title);
    void SendToConnection(const Connection& connection, const SharedBytes& frames);
    std::shared_ptr<char[]> FreeBlock();

    void ApplyRegistration(Connection& connection, const SharedBytes& frame, const PacketHeader& header);
    void UpdateModuleIds(Connection& connection, const std::string& text);
    void Link(Connection& connection, std::uint32_t moduleId) VEYRA_REQUIRES(m_connections);
    void Unlink(Connection& connection, std::uint32_t moduleId) VEYRA_REQUIRES(m_connections);

    void EnsureStatusClient();
    void OnQueryModuleStatus(const TagIPCMessageItem& item);
    void PublishStatus(std::uint32_t moduleId, std::uint32_t msgId) const;
    void PostStatus(std::int32_t toModuleId, std::uint32_t moduleId, std::uint32_t msgId) const;

    LockMap<std::uint64_t, Connection*> m_connections; // by the address of the context
    // Which connections serve a module id; changed together with their m_moduleIds, by Link and Unlink.
    std::unordered_map<std::uint32_t, std::vector<Connection*>> m_receivers VEYRA_GUARDED_BY(m_connections);
    const Connection* m_lastSender = nullptr;         // compared, not used; touched by the worker only
    Run m_run;                                        // of the bytes at hand; touched by the worker only
    std::vector<std::shared_ptr<char[]>> m_blocks;    // to read into, those in use too; touched by the worker only
    std::vector<const Connection*> m_targets;         // of the run; touched by the worker only
    std::unique_ptr<IPCMessageClient> m_statusClient; // speaks for the bus itself; made on the first registration
};

// Logs one packet at DEBUG, with the display names of the two modules.
// Threads: any.
void WritePacketLog(const std::string& title, unsigned long packetIndex, unsigned long from, unsigned long to,
                    unsigned long msg);

} // namespace Vantor::Sentrix
