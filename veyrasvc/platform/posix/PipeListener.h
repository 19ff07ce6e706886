// The serving side of a pipe name: the listening socket that all instances of that name in this process share.
//
// A client is accepted only for an instance that waits in ConnectNamedPipe. The backlog follows the number of those
// instances, so a client's connect() finds room exactly when one is free; and because a backlog cannot be zero, the
// listener keeps the last place occupied with a connection of its own, the plug, while no instance waits.
//
// A client that no descriptor is left for is accepted with one that the listener keeps in reserve, and dropped at once:
// it sees a broken pipe instead of a server that does not answer, and the instance's wait fails with
// ERROR_TOO_MANY_OPEN_FILES.
#pragma once

#include "veyrasvc/platform/posix/CompletionPort.h"
#include "veyrasvc/platform/posix/FixedVector.h"
#include "veyrasvc/platform/posix/PipeName.h"
#include "veyrasvc/platform/posix/UniqueFd.h"

#include <memory>
#include <mutex>
#include <vector>

namespace Vantor::Sentrix::Platform {

class Pipe;

class PipeListener final : public PortSource, public std::enable_shared_from_this<PipeListener> {
public:
    // The listener of that name, made when this process has none yet. It lives as long as an instance holds it.
    // Fails: null with ERROR_ACCESS_DENIED when another process serves the name.
    static std::shared_ptr<PipeListener> Open(const PipeName& name);

    // For Open alone.
    PipeListener(PipeName name, UniqueFd socket);
    ~PipeListener() override;

    // `instance` waits for a client from now on; it is told through Pipe::Accept, perhaps before this returns.
    // Fails: with an error when its port cannot watch the socket.
    DWORD AddWaiting(const std::shared_ptr<Pipe>& instance);
    void RemoveWaiting(const Pipe* instance);

    void OnEvents(std::uint32_t events) override;
    void Service() override {}

private:
    // What an instance has waited for; without a socket its wait has failed.
    struct Arrival {
        std::shared_ptr<Pipe> instance;
        UniqueFd socket;
    };
    using Arrivals = FixedVector<Arrival, 16>;

    void AcceptWaiting();

    // Called with m_mutex held.
    bool TakeOnePending(Arrivals& arrivals);
    UniqueFd AcceptSocket(bool& isShort);
    void Give(UniqueFd socket, Arrivals& arrivals);
    bool IsPlug(int socket) const;
    void PutPlug();
    void FollowWaiting();
    bool WatchFor(const std::shared_ptr<CompletionPort>& port);
    void StopWatching();

    const PipeName m_name;
    UniqueFd m_socket; // constant until the destructor

    std::mutex m_mutex;
    // All guarded by m_mutex.
    std::vector<std::weak_ptr<Pipe>> m_waiting;
    UniqueFd m_reserve;
    UniqueFd m_plug;
    sockaddr_un m_plugAddress{};
    socklen_t m_plugAddressLength = 0;
    std::weak_ptr<CompletionPort> m_port; // whose epoll set holds the socket while instances wait
    std::uint64_t m_watchId = 0;          // 0: in no set
};

} // namespace Vantor::Sentrix::Platform
