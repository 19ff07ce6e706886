// The serving side of a pipe name: the listening socket that all instances of that name in this process share.
//
// A client is accepted only for an instance that waits in ConnectNamedPipe. The backlog follows the number of those
// instances, so a client's connect() finds room exactly when one is free; and because a backlog cannot be zero, the
// listener keeps the last place occupied with a connection of its own, the plug, while no instance waits.
#pragma once

#include "veyrasvc/platform/posix/PipeName.h"
#include "veyrasvc/platform/posix/UniqueFd.h"

#include "veyrasvc/platform/posix/CompletionPort.h"

#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace Vantor::Sentrix::Platform {

class Pipe;

class PipeListener final : public PortSource, public std::enable_shared_from_this<PipeListener> {
public:
    // The listener of that name, made when this process has none yet. It lives as long as an instance holds it.
    // Fails: null with ERROR_ACCESS_DENIED when another process serves the name.
    static std::shared_ptr<PipeListener> Open(const PipeName& name);

    ~PipeListener() override;

    // `instance` waits for a client from now on; it is told through Pipe::Accept, perhaps before this returns.
    // Fails: with an error when its port cannot watch the socket.
    DWORD AddWaiting(const std::shared_ptr<Pipe>& instance);
    void RemoveWaiting(const Pipe* instance);

    void OnEvents(std::uint32_t events) override;
    void Service() override {}

private:
    struct Arrival {
        std::shared_ptr<Pipe> instance;
        UniqueFd socket;
    };

    PipeListener(PipeName name, UniqueFd socket);

    // Called with m_mutex held.
    std::deque<Arrival> AcceptWaiting();
    bool TakeOnePending(std::deque<Arrival>& arrivals);
    bool IsPlug(int socket) const;
    void PutPlug();
    void FollowWaiting();
    bool WatchFor(const std::shared_ptr<CompletionPort>& port);
    void StopWatching();

    static void Deliver(std::deque<Arrival> arrivals, PipeListener& listener);

    const PipeName m_name;
    UniqueFd m_socket; // constant until the destructor

    std::mutex m_mutex;
    // All guarded by m_mutex.
    std::deque<std::weak_ptr<Pipe>> m_waiting;
    UniqueFd m_plug;
    std::string m_plugAddress;
    std::weak_ptr<CompletionPort> m_port; // whose epoll set holds the socket while instances wait
    std::uint64_t m_watchId = 0;          // 0: in no set
};

} // namespace Vantor::Sentrix::Platform
