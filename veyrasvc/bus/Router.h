// The router: where every frame goes.
//
// It cuts the bytes of every connection into frames, learns from the registration frames which module lives where, and
// forwards each frame byte for byte to those who should have it. It knows connections only as contexts to send to.
//
// Its own voice: the notices and answers that come from module 0x10000. They are composed and handed to the connections
// within the worker's turn, like the frames that are forwarded, so what a peer sees has one order: a run of frames that
// is still held leaves before the voice speaks. From the first registration on the module 0x10000 counts as online, and
// every miss is told and every query answered. Before it, nobody could be told.
//
// Locks, from the outside in: a connection's lock, the lock of m_connections, the lock of one context.
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

class Router : public PipeEvents {
public:
    Router() = default;
    virtual ~Router();
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;

    bool OnNewConnection(IOCPContext* context) override;
    void OnConnectionClose(IOCPContext* context, IOCPBuffer* buffer, DWORD error) override;
    void OnRecvData(IOCPContext* context, IOCPBuffer* buffer) override;
    void OnBeforeRead(IOCPContext* context, IOCPBuffer* buffer) override;
    void OnTick() override;

private:
    // One client process's connection, from OnNewConnection to OnConnectionClose. Its lock guards m_recvBuffer and is
    // held while its frames are handled.
    struct Connection : public CommonLock {
        explicit Connection(IOCPContext* context) : m_context(context) {}

        IOCPContext* const m_context;
        std::uint32_t m_pid = 0; // of the client; 0 until its first registration. Touched by the worker only.
        FrameCutter m_recvBuffer;
        bool m_busy = false;                 // the last read brought a lot. Touched by the worker only.
        bool m_sentShort = false;            // a frame without a whole head, as was logged
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
    void Forget(const IOCPContext* context);
    std::shared_ptr<char[]> FreeBlock();

    void HandlePacket(Connection& connection, const SharedBytes& frame);
    bool ReadPacketHeader(Connection& connection, std::string_view frame, std::uint32_t& counter, PacketHeader& header);
    bool JoinRun(const SharedBytes& frame, const PacketHeader& header);
    void SendRun(const Connection& sender);
    void SendToModule(const Run& run);
    void SendToOtherProcesses(const Connection& sender, const Run& run, const char* title);
    static void SendToConnection(const Connection& connection, const SharedBytes& frames);

    // In RouterPresence.cpp.
    void ApplyRegistration(Connection& connection, const SharedBytes& frame);
    void UpdateModuleIds(Connection& connection, const std::string& text);
    void Link(Connection& connection, std::uint32_t moduleId) VEYRA_REQUIRES(m_connections);
    // From m_receivers alone; m_moduleIds is the caller's.
    void Unlink(Connection& connection, std::uint32_t moduleId) VEYRA_REQUIRES(m_connections);
    void HandleOwn(const Connection& sender, const SharedBytes& frame, std::uint32_t msgId);
    bool IsOnline(std::uint32_t moduleId);
    void NoteUnhandled(const Connection& sender, std::uint32_t msgId);
    void PublishStatus(std::uint32_t moduleId, std::uint32_t msgId);
    void PostStatus(std::uint32_t toModuleId, std::uint32_t moduleId, std::uint32_t msgId);
    void SpeakToAll(const BasePacket& notice);
    void Speak(const Connection& receiver, std::string_view frame);

    LockMap<std::uint64_t, std::unique_ptr<Connection>> m_connections; // by the address of the context
    // Which connections serve a module id; changed together with their m_moduleIds.
    std::unordered_map<std::uint32_t, std::vector<Connection*>> m_receivers VEYRA_GUARDED_BY(m_connections);

    // Touched by the worker only.
    const Connection* m_lastSender = nullptr;      // compared, not used
    Run m_run;                                     // of the bytes at hand
    std::vector<std::shared_ptr<char[]>> m_blocks; // to read into, those in use too
    bool m_speaks = false;                         // there was a registration
    bool m_announced = false;                      // the router's own module, as online
    std::uint64_t m_shortFrames = 0;               // dropped: without a whole head
    std::uint64_t m_lostNotices = 0;               // that a connection could not take
    std::uint64_t m_unhandled = 0;                 // messages to the router's own module that it does not know
    std::uint64_t m_unhandledUnsaid = 0;           // of those, since the last line about them
};

} // namespace Vantor::Sentrix
