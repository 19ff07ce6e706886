#include "veyrasvc/platform/posix/PipeListener.h"

#include "veyrasvc/platform/posix/Pipe.h"
#include "veyrasvc/platform/posix/SecurityDescriptor.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

struct Registry {
    std::mutex mutex;
    std::condition_variable gone;
    std::map<std::string, std::weak_ptr<PipeListener>> listeners; // guarded by mutex; expired: about to be taken out
};

Registry& TheRegistry() {
    static auto* const registry = new Registry; // never destroyed: pipes may be closed while the process exits
    return *registry;
}

UniqueFd NewSocket() {
    return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

std::string AddressBytes(const sockaddr_un& address, socklen_t length) {
    return std::string(reinterpret_cast<const char*>(&address), length);
}

// Who may use an instance with default security: the server's own account, and root.
bool IsOwnAccount(int socket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && (peer.uid == geteuid() || peer.uid == 0);
}

} // namespace

std::shared_ptr<PipeListener> PipeListener::Open(const PipeName& name) {
    Registry& registry = TheRegistry();
    std::unique_lock guard(registry.mutex);
    for (auto found = registry.listeners.find(name.Key()); found != registry.listeners.end();
         found = registry.listeners.find(name.Key())) {
        if (auto listener = found->second.lock()) {
            return listener;
        }
        registry.gone.wait(guard); // another thread is about to give the name up
    }
    UniqueFd socket = NewSocket();
    if (!socket.Valid() || bind(socket.Get(), name.Address(), name.AddressLength()) != 0 ||
        listen(socket.Get(), 0) != 0) {
        SetLastError(errno == EADDRINUSE ? ERROR_ACCESS_DENIED : ErrorFromErrno(errno));
        return nullptr;
    }
    std::shared_ptr<PipeListener> listener(new PipeListener(name, std::move(socket)));
    listener->PutPlug();
    registry.listeners[name.Key()] = listener;
    return listener;
}

PipeListener::PipeListener(PipeName name, UniqueFd socket) : m_name(std::move(name)), m_socket(std::move(socket)) {}

PipeListener::~PipeListener() {
    Registry& registry = TheRegistry();
    const std::lock_guard guard(registry.mutex);
    m_socket.Reset(); // the name is free before anybody can ask for it again
    registry.listeners.erase(m_name.Key());
    registry.gone.notify_all();
}

DWORD PipeListener::AddWaiting(const std::shared_ptr<Pipe>& instance) {
    std::deque<Arrival> arrivals;
    {
        const std::lock_guard guard(m_mutex);
        if (!WatchFor(instance->Port())) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
        m_waiting.push_back(instance);
        if (m_plug.Valid()) {
            arrivals = AcceptWaiting(); // takes the plug out, and whoever slipped in before it
        } else {
            FollowWaiting();
        }
    }
    Deliver(std::move(arrivals), *this);
    return ERROR_SUCCESS;
}

void PipeListener::RemoveWaiting(const Pipe* instance) {
    const std::lock_guard guard(m_mutex);
    const auto isIt = [instance](const std::weak_ptr<Pipe>& one) { return one.lock().get() == instance; };
    const auto found = std::find_if(m_waiting.begin(), m_waiting.end(), isIt);
    if (found == m_waiting.end()) {
        return;
    }
    m_waiting.erase(found);
    FollowWaiting();
}

void PipeListener::OnEvents(std::uint32_t /*events*/) {
    std::deque<Arrival> arrivals;
    {
        const std::lock_guard guard(m_mutex);
        arrivals = AcceptWaiting();
    }
    Deliver(std::move(arrivals), *this);
}

std::deque<PipeListener::Arrival> PipeListener::AcceptWaiting() {
    std::deque<Arrival> arrivals;
    while (!m_waiting.empty() && TakeOnePending(arrivals)) {
    }
    FollowWaiting();
    return arrivals;
}

// False when no connection is pending.
bool PipeListener::TakeOnePending(std::deque<Arrival>& arrivals) {
    UniqueFd socket(accept4(m_socket.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.Valid()) {
        if (errno == EMFILE || errno == ENFILE) {
            // epoll goes on to report the client that cannot be accepted: look again in a while, not all the time.
            constexpr DWORD kShortageMs = 5;
            Sleep(kShortageMs);
            return false;
        }
        return errno == EINTR || errno == ECONNABORTED;
    }
    if (m_plug.Valid() && IsPlug(socket.Get())) {
        m_plug.Reset();
        return true;
    }
    auto instance = m_waiting.front().lock();
    if (!instance) {
        m_waiting.pop_front();
        return true; // the connection is dropped with its instance
    }
    if (instance->AdmitsEveryone() || IsOwnAccount(socket.Get())) {
        m_waiting.pop_front();
        arrivals.push_back({std::move(instance), std::move(socket)});
    }
    return true;
}

void PipeListener::Deliver(std::deque<Arrival> arrivals, PipeListener& listener) {
    for (Arrival& arrival : arrivals) {
        if (arrival.instance->Accept(arrival.socket)) {
            continue;
        }
        // The instance was closed in the meantime: its client finds the pipe broken, as with one closed a moment later.
        const std::lock_guard guard(listener.m_mutex);
        listener.FollowWaiting();
    }
}

bool PipeListener::IsPlug(int socket) const {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    return getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
           AddressBytes(address, length) == m_plugAddress;
}

// Occupies the last place of the backlog. If a client is faster, its place is as good: it is accepted later.
void PipeListener::PutPlug() {
    UniqueFd plug = NewSocket();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socklen_t length = sizeof address;
    if (plug.Valid() &&
        bind(plug.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(sa_family_t)) == 0 && // a name of its own
        getsockname(plug.Get(), reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        connect(plug.Get(), m_name.Address(), m_name.AddressLength()) == 0) {
        m_plugAddress = AddressBytes(address, length);
        m_plug = std::move(plug);
    }
}

// Backlog, plug and epoll set follow the number of instances that wait.
void PipeListener::FollowWaiting() {
    const std::size_t waiting = m_waiting.size();
    listen(m_socket.Get(), waiting == 0 ? 0 : static_cast<int>(waiting) - 1); // a backlog of n has room for n + 1
    if (waiting == 0) {
        StopWatching();
        if (!m_plug.Valid()) {
            PutPlug();
        }
    }
}

bool PipeListener::WatchFor(const std::shared_ptr<CompletionPort>& port) {
    if (!port) {
        return false;
    }
    if (m_watchId != 0 && m_port.lock() == port) {
        return true;
    }
    StopWatching();
    m_watchId = port->Watch(m_socket.Get(), EPOLLIN, shared_from_this());
    m_port = port;
    return m_watchId != 0;
}

// A port keeps alive what it watches, so the name would outlive its last instance if no watch ended before.
void PipeListener::StopWatching() {
    if (const auto port = m_port.lock(); port && m_watchId != 0) {
        port->Unwatch(m_socket.Get(), m_watchId);
    }
    m_watchId = 0;
    m_port.reset();
}

HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD /*outBufferSize*/,
                        DWORD /*inBufferSize*/, DWORD /*defaultTimeout*/, SECURITY_ATTRIBUTES* attributes) {
    constexpr DWORD kSuppliedMode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
    const auto parsed = PipeName::Parse(name);
    if (!parsed || (openMode & ~FILE_FLAG_WRITE_THROUGH) != kSuppliedMode || pipeMode != PIPE_TYPE_BYTE ||
        maxInstances != PIPE_UNLIMITED_INSTANCES) {
        SetLastError(parsed ? ERROR_INVALID_PARAMETER : ERROR_INVALID_NAME);
        return INVALID_HANDLE_VALUE;
    }
    auto listener = PipeListener::Open(*parsed);
    if (!listener) {
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = AddHandle(std::make_shared<Pipe>(std::move(listener), AllowsEveryone(attributes)));
    return handle == nullptr ? INVALID_HANDLE_VALUE : handle;
}

} // namespace Vantor::Sentrix::Platform
