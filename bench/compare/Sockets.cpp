#include "bench/compare/Sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace Vantor::Sentrix::Compare {

namespace {

Descriptor NewSocket(int family) {
    Descriptor made(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made.IsOpen()) {
        FailWithErrno("socket");
    }
    return made;
}

sockaddr_un UnixAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        FailWithErrno(path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

sockaddr_in LocalAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

template <class Address> void ConnectTo(const Descriptor& from, const Address& to, const std::string& what) {
    if (connect(from.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        FailWithErrno("connecting to " + what);
    }
}

} // namespace

void FailWithErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        Close();
        m_number = other.Release();
    }
    return *this;
}

int Descriptor::Release() {
    return std::exchange(m_number, -1);
}

void Descriptor::Close() {
    if (IsOpen()) {
        close(Release());
    }
}

Descriptor ListenUnix(const std::string& path) {
    constexpr int kBacklog = 512;
    Descriptor listener = NewSocket(AF_UNIX);
    const sockaddr_un address = UnixAddress(path);
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.Get(), kBacklog) != 0) {
        FailWithErrno("listening on " + path);
    }
    return listener;
}

Descriptor Accept(const Descriptor& listener) {
    Descriptor accepted(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!accepted.IsOpen()) {
        FailWithErrno("accept");
    }
    return accepted;
}

Descriptor ConnectUnix(const std::string& path) {
    Descriptor connected = NewSocket(AF_UNIX);
    ConnectTo(connected, UnixAddress(path), path);
    return connected;
}

Descriptor ConnectTcp(int port) {
    Descriptor connected = NewSocket(AF_INET);
    const int on = 1;
    setsockopt(connected.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ConnectTo(connected, LocalAddress(port), "port " + std::to_string(port));
    return connected;
}

std::pair<Descriptor, Descriptor> ConnectedPair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        FailWithErrno("socketpair");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

int FreeTcpPort() {
    const Descriptor probe = NewSocket(AF_INET);
    sockaddr_in address = LocalAddress(0);
    socklen_t length = sizeof address;
    if (bind(probe.Get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        getsockname(probe.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        FailWithErrno("looking for a free port");
    }
    return ntohs(address.sin_port);
}

void WriteAll(const Descriptor& to, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(to.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            FailWithErrno("send");
        }
        bytes.remove_prefix(sent < 0 ? 0 : static_cast<std::size_t>(sent));
    }
}

std::size_t ReadSome(const Descriptor& from, char* buffer, std::size_t size, bool wait) {
    for (;;) {
        const ssize_t got = recv(from.Get(), buffer, size, wait ? 0 : MSG_DONTWAIT);
        if (got > 0) {
            return static_cast<std::size_t>(got);
        }
        if (got == 0) {
            errno = ECONNRESET;
        }
        if (got < 0 && !wait && errno == EAGAIN) {
            return 0;
        }
        if (got == 0 || errno != EINTR) {
            FailWithErrno("recv");
        }
    }
}

} // namespace Vantor::Sentrix::Compare
