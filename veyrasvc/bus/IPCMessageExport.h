// The message bus for its users: a client for every module, and the server for the one process that hosts the bus.
//
//     IPCMessageClient client(0x50000, false, false);
//     client.RegisterMessageCallback(1, [&](TagIPCMessageItem& item) { ... });
//     client.PostIPCMessage(item);
//
// The clients of a process share one connection, which makes and renews itself: the host is looked for at short
// intervals first, then once a second. What is sent while there is no connection waits and leaves later, in order.
#pragma once

#include "veyrasvc/bus/ModuleId.h" // the ids that the bus reserves
#include "veyrasvc/platform/Export.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace Vantor::Sentrix {

class BasePacket;
class CallbackQueue;
class ModuleMessageServer;

// One message. Integers travel as 32 bits; -1 stands for "none".
// Owns: nothing. To send, `data` points at the caller's bytes, which are copied. In a callback `data` points at bytes
// of the library that are valid until the callback returns and that nobody else sees: the callback may change them. A
// zero byte, which `dataLen` does not count, follows every received body.
struct TagIPCMessageItem {
    std::int32_t toModuleId = -1;   // 0: every module
    std::int32_t fromModuleId = -1; // ignored on sending: the client's own id is used
    std::int32_t msgId = -1;
    std::int32_t replyMsgId = -1; // the id that the receiver should answer with; the bus only carries it
    std::int32_t msgType = -1;    // 0x10004: a publication
    std::int32_t uniqMsgId = 0;   // correlation id; an answer repeats it
    std::int32_t dataLen = 0;     // bytes at `data`; below 1: no body
    char* data = nullptr;
    bool encrypt = false; // encipher the body; never set on receiving
};

// An answer with its body.
struct TagIPCMessageItemRecv {
    std::int32_t toModuleId = -1;
    std::int32_t fromModuleId = -1;
    std::int32_t msgId = -1;
    std::int32_t replyMsgId = -1;
    std::int32_t msgType = -1;
    std::int32_t uniqMsgId = 0;
    std::string data; // left as it was when the answer has no body
};

using IPCMessageCallback = std::function<void(TagIPCMessageItem&)>;

// A module's place on the bus.
//
// Threads: every operation may be called from any thread, also from callbacks. Callbacks run on pool threads: those
// that are usually short one after another on the one that has read their messages, others each in a work item of its
// own. So one client's callbacks may run at the same time and in any order; no lock of the library is held meanwhile.
// An exception that leaves a callback is logged and dropped.
// Fails: by result; the operations below say what false means. Where there is no memory for an operation it is false
// and leaves nothing behind. Nothing throws, with one exception that is named. Lifetime: may be destroyed at any time,
// also inside one of its own callbacks. The destructor waits for callbacks of this client that run on other threads and
// drops those that have not begun. A message sent before is still sent.
class VEYRASVC_API IPCMessageClient {
public:
    // Puts the module on the bus. The second argument has no effect. With `forwardPosts`, posts to this module from
    // its own process take the way over the server; otherwise they are delivered within the process. The first client
    // of a process starts the connection.
    // Fails: without memory for it the client receives nothing, which is logged; it can still send.
    IPCMessageClient(int moduleId, bool, bool forwardPosts);
    ~IPCMessageClient();
    IPCMessageClient(const IPCMessageClient&) = delete;
    IPCMessageClient& operator=(const IPCMessageClient&) = delete;

    // Synchronous sends. All three hand the request over and wait up to `timeoutMs` (0xFFFFFFFF: without limit) for a
    // packet with the awaited message id and the request's `uniqMsgId`: choose one that no other request in flight has.
    // A module of the same process gets the request directly; the request itself is then offered to the waits too, so
    // within one process await a `replyMsgId` that differs from the request's own id.
    // Fails: false when the request cannot be enciphered, nothing answers in time, the connection is lost, or the
    // destination is or goes offline, which ends the wait at once.

    // Awaits the request's own message id. `answer` gets the six integers and, if there is a body, a new buffer in
    // `data`, with a zero byte behind it, that the caller releases with `operator delete(answer.data)`. When that
    // buffer cannot be had `dataLen` is 0.
    bool SendIPCMessage(TagIPCMessageItem& request, TagIPCMessageItem& answer, unsigned int timeoutMs) const;
    // Awaits `replyMsgId`. False also when there is no memory for the answer's body; the record is as it was then.
    bool SendIPCMessage(TagIPCMessageItem& request, int replyMsgId, TagIPCMessageItemRecv& answer,
                        unsigned int timeoutMs) const;
    // Awaits `replyMsgId` and hands the answer to `onReply`, on the calling thread, valid during the call.
    // Throws std::bad_function_call when an answer came and `onReply` is empty, and what `onReply` throws.
    bool SendIPCMessage(TagIPCMessageItem& request, int replyMsgId, unsigned int timeoutMs,
                        IPCMessageCallback onReply) const;

    // Sends without waiting. True: delivered within the process, or queued for the server. A destination that is not
    // there is no error; the server answers with message 0x10005. False: the body cannot be enciphered, or there is no
    // memory for the message or no thread for the connection.
    bool PostIPCMessage(const TagIPCMessageItem& item) const;
    // Posts to every process; subscriptions decide who sees it. Sets the item's `msgType` to 0x10004.
    bool PublishIPCMessage(TagIPCMessageItem& item) const;
    // Asks the server for a module. The answer, 0x10006 (online) or 0x10005 (offline) with the id as 4 bytes
    // little-endian, comes to this client's callbacks. The result is that of the post.
    bool QueryModuleStatus(int moduleId);

    // One callback per message id, a later one replaces it. Ids 0 and -1 are never delivered. A message without a
    // callback is logged and dropped; without any callback it is dropped. Fails: without memory for it the callback is
    // not registered, which is logged.
    void RegisterMessageCallback(int msgId, IPCMessageCallback callback);
    // Receives publications that a subscription lets through.
    void RegisterPublishMessageCallback(IPCMessageCallback callback);
    // Both always true. A callback that runs already runs to its end.
    bool UnRegisterMessageCallback(int msgId);
    // All of them, the publish callback and the subscriptions.
    bool UnRegisterMessageCallbackAll();
    // Unregisters all of them for good: no callback begins any more, also of those registered later. Returns when none
    // runs but those that the calling thread is inside of, so that what callbacks use may be destroyed.
    void EndCallbacks();

    // Lets publications of that module through; message id 0: all of them, and the server's notices 0x10005 and
    // 0x10006 about the module, which then come from that module. False: there is no memory for it.
    bool SubscribeIPCMessage(unsigned int moduleId, unsigned int msgId);
    // Takes that subscription back; message id 0: every subscription to the module. Always true.
    bool UnSubscribeIPCMessage(unsigned int moduleId, unsigned int msgId);

protected:
    // The subscription filter. A status notice about a subscribed module is rewritten to come from that module.
    bool Bregister(BasePacket& packet);
    bool ConvertMessageToPacket(std::shared_ptr<BasePacket>& packet, const TagIPCMessageItem& item) const;
    // An encrypted body becomes a new buffer, which the caller deletes; a plain one stays the packet's.
    bool ConvertPacketToMessage(TagIPCMessageItem& item, const std::shared_ptr<BasePacket>& packet) const;
    // Run on pool threads.
    void OnRecvIPCMessage(std::shared_ptr<BasePacket> packet);
    void OnRecvPublishIPCMessage(std::shared_ptr<BasePacket> packet);

private:
    bool Join(bool forwardPosts);
    void OnAnswerWithoutCallback(std::shared_ptr<BasePacket> packet);
    void WarnOfMissingCallback(std::uint32_t msgId, bool isAwaited) const;
    bool LetsThrough(const BasePacket& packet, std::uint32_t& from);
    bool WantsMessage(const BasePacket& packet);
    bool WantsPublication(const BasePacket& packet);
    void NoteCallbacks();

    std::int32_t m_moduleId;
    std::map<int, IPCMessageCallback> m_callbacks;
    IPCMessageCallback m_publishCallback;
    std::recursive_mutex m_callbackMutex;    // guards the two above
    std::atomic<bool> m_hasCallbacks{false}; // whether m_callbacks has any
    std::atomic<bool> m_hasPublishCallback{false};
    std::recursive_mutex m_subscribeMutex; // guards the two below
    // Module and message id (message 0: any), each with its number: which was first may decide.
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint64_t> m_subscriptions;
    std::uint64_t m_lastSubscription = 0;
    std::shared_ptr<CallbackQueue> m_queue; // shared with the threads that run this client's callbacks; null: see above
};

// Ends this process's connection for good: what is not sent yet is discarded, waits end without an answer, and no
// callback begins any more. Waits at most about two seconds. Clients stay usable and do nothing.
VEYRASVC_API void StopIPCClient();

// True when some process serves the bus, also while all its places are taken.
// Threads: any. Waits up to `timeoutMs` for a free place.
VEYRASVC_API bool IsIPCServerPresent(unsigned int timeoutMs);

// The bus server. One process of the machine hosts it.
//
// Threads: one at a time.
// Lifetime: stop it before it is destroyed.
class VEYRASVC_API IPCMessageServer {
public:
    IPCMessageServer();
    ~IPCMessageServer();
    // Two objects must never own one router.
    IPCMessageServer(const IPCMessageServer&) = delete;
    IPCMessageServer& operator=(const IPCMessageServer&) = delete;

    // Serves from now on: 20 clients can connect at once, 100 can be connected. False when it runs already or there
    // was no memory to create it. What else goes wrong is logged: see IsIPCServerPresent for whether it is reachable.
    // A server that could not have its port or its worker refuses clients; Stop and Start try again.
    bool Start();
    // Disconnects everybody. Waits at most about two seconds, normally no time at all, and leaves a worker that is held
    // up (by an appender of the log, say) to end by itself. Start may follow in any case.
    void Stop();

private:
    void Init();

    ModuleMessageServer* m_server;
};

} // namespace Vantor::Sentrix
