#include "veyrasvc/platform/posix/PipeListener.h"

#include "veyrasvc/platform/posix/Pipe.h"
#include "veyrasvc/platform/posix/SecurityDescriptor.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
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

UniqueFd NewReserve() {
    return UniqueFd(eventfd(0, EFD_CLOEXEC));
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
    const auto entry = registry.listeners.try_emplace(name.Key()).first;
    try {
        auto listener = std::make_shared<PipeListener>(name, std::move(socket));
        listener->PutPlug();
        entry->second = listener;
        return listener;
    } catch (const std::bad_alloc&) {
        registry.listeners.erase(entry);
        throw;
    }
}

PipeListener::PipeListener(PipeName name, UniqueFd socket)
    : m_name(std::move(name)), m_socket(std::move(socket)), m_reserve(NewReserve()) {}

PipeListener::~PipeListener() {
    Registry& registry = TheRegistry();
    const std::lock_guard guard(registry.mutex);
    m_socket.Reset(); // the name is free before anybody can ask for it again
    registry.listeners.erase(m_name.Key());
    registry.gone.notify_all();
}

DWORD PipeListener::AddWaiting(const std::shared_ptr<Pipe>& instance) {
    const auto port = instance->Port();
    bool hasPlug = false;
    {
        const std::lock_guard guard(m_mutex);
        if (!IfMemoryLasts(false, [&] { return m_waiting.reserve(m_waiting.size() + 1), true; }) || !WatchFor(port)) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
        m_waiting.push_back(instance);
        hasPlug = m_plug.Valid();
        if (!hasPlug) {
            FollowWaiting();
        }
    }
    if (hasPlug) {
        AcceptWaiting(); // takes the plug out, and whoever slipped in before it
    }
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
    AcceptWaiting();
}

void PipeListener::AcceptWaiting() {
    for (bool more = true; more;) {
        Arrivals arrivals;
        {
            const std::lock_guard guard(m_mutex);
            while (more && !arrivals.Full()) {
                more = !m_waiting.empty() && TakeOnePending(arrivals);
            }
            FollowWaiting();
        }
        for (Arrival& arrival : arrivals) {
            if (!arrival.socket.Valid()) {
                arrival.instance->RefuseAccept(ERROR_TOO_MANY_OPEN_FILES);
            } else if (!arrival.instance->Accept(arrival.socket)) {
                // The instance was closed in the meantime: its client finds the pipe broken, as with one closed a
                // moment later.
                const std::lock_guard guard(m_mutex);
                FollowWaiting();
            }
        }
    }
}

// False when no connection is pending.
bool PipeListener::TakeOnePending(Arrivals& arrivals) {
    bool isShort = false;
    UniqueFd socket = AcceptSocket(isShort);
    const int error = errno;
    const bool isPlug = socket.Valid() && m_plug.Valid() && IsPlug(socket.Get());
    if (isPlug) {
        m_plug.Reset();
    }
    if (isShort) {
        const bool none = !socket.Valid() && error == EAGAIN;
        socket.Reset();
        m_reserve = NewReserve();
        if (!isPlug && !none) {
            Give(UniqueFd(), arrivals);
        }
        return !none;
    }
    if (!socket.Valid()) {
        return error == EINTR || error == ECONNABORTED;
    }
    if (!isPlug) {
        Give(std::move(socket), arrivals);
    }
    return true;
}

// Out of descriptors, the one in reserve makes room for a client that is going to be dropped.
UniqueFd PipeListener::AcceptSocket(bool& isShort) {
    UniqueFd socket(accept4(m_socket.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    isShort = !socket.Valid() && (errno == EMFILE || errno == ENFILE);
    if (isShort) {
        m_reserve.Reset();
        socket.Reset(accept4(m_socket.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    }
    return socket;
}

// To the instance that has waited the longest.
void PipeListener::Give(UniqueFd socket, Arrivals& arrivals) {
    auto instance = m_waiting.front().lock();
    if (instance && socket.Valid() && !instance->AdmitsEveryone() && !IsOwnAccount(socket.Get())) {
        return; // it goes on waiting
    }
    m_waiting.erase(m_waiting.begin());
    if (instance) { // else the connection is dropped with its instance
        arrivals.Add(std::move(instance), std::move(socket));
    }
}

bool PipeListener::IsPlug(int socket) const {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    return getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0 && length == m_plugAddressLength &&
           std::memcmp(&address, &m_plugAddress, length) == 0;
}

// Occupies the last place of the backlog. If a client is faster, its place is as good: it is accepted later.
void PipeListener::PutPlug() {
    UniqueFd plug = NewSocket();
    m_plugAddress = {};
    m_plugAddress.sun_family = AF_UNIX;
    m_plugAddressLength = sizeof m_plugAddress;
    auto* const address = reinterpret_cast<sockaddr*>(&m_plugAddress);
    if (plug.Valid() && bind(plug.Get(), address, sizeof(sa_family_t)) == 0 && // a name of its own
        getsockname(plug.Get(), address, &m_plugAddressLength) == 0 &&
        connect(plug.Get(), m_name.Address(), m_name.AddressLength()) == 0) {
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
        if (parsed) {
            SetLastError(ERROR_INVALID_PARAMETER);
        }
        return INVALID_HANDLE_VALUE;
    }
    return IfMemoryLasts(INVALID_HANDLE_VALUE, [&] {
        auto listener = PipeListener::Open(*parsed);
        const HANDLE handle =
            listener ? AddHandle(std::make_shared<Pipe>(std::move(listener), AllowsEveryone(attributes))) : nullptr;
        return handle == nullptr ? INVALID_HANDLE_VALUE : handle;
    });
}

} // namespace Vantor::Sentrix::Platform
