#include "bench/floor/Wire.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace Vantor::Sentrix::Floor {

namespace {

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Socket NewSocket() {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return descriptor >= 0 ? Socket(descriptor) : (Fail("socket"), Socket(-1));
}

struct Address {
    sockaddr_un bytes{};
    socklen_t length = 0;

    // In the abstract namespace: nothing is left behind.
    explicit Address(std::uint32_t name) {
        const std::string text = "veyra-floor/" + std::to_string(name);
        bytes.sun_family = AF_UNIX;
        std::memcpy(bytes.sun_path + 1, text.data(), text.size());
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&bytes); }
};

} // namespace

Socket::~Socket() {
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

Socket::Socket(Socket&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

std::size_t Socket::Receive(char* buffer, std::size_t size) const {
    for (;;) {
        const ssize_t got = recv(m_descriptor, buffer, size, 0);
        if (got >= 0) {
            return static_cast<std::size_t>(got);
        }
        if (errno == ECONNRESET) {
            return 0;
        }
        if (errno != EINTR) {
            Fail("recv");
        }
    }
}

void Socket::Send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t sent = send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            Fail("send");
        }
        bytes.remove_prefix(sent < 0 ? 0 : static_cast<std::size_t>(sent));
    }
}

void Socket::SendFrame(std::uint32_t to, Kind kind, std::string_view body) const {
    Header header{static_cast<std::uint32_t>(body.size()), to, kind};
    iovec parts[] = {{&header, sizeof header}, {const_cast<char*>(body.data()), body.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t sent = sendmsg(m_descriptor, &message, MSG_NOSIGNAL);
    if (sent < static_cast<ssize_t>(sizeof header)) {
        Fail("sendmsg");
    }
    Send(body.substr(static_cast<std::size_t>(sent) - sizeof header));
}

Socket Listen(std::uint32_t name) {
    Socket listener = NewSocket();
    const Address address(name);
    constexpr int kBacklog = 16;
    if (bind(listener.Descriptor(), address.Get(), address.length) != 0 ||
        listen(listener.Descriptor(), kBacklog) != 0) {
        Fail("listen");
    }
    return listener;
}

Socket Accept(const Socket& listener) {
    const int descriptor = accept4(listener.Descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
    return descriptor >= 0 ? Socket(descriptor) : (Fail("accept"), Socket(-1));
}

Socket Join(std::uint32_t name, std::uint32_t id) {
    Socket joined = NewSocket();
    const Address address(name);
    if (connect(joined.Descriptor(), address.Get(), address.length) != 0) {
        Fail("connect");
    }
    joined.SendFrame(id, Kind::Hello, {});
    return joined;
}

// Makes `needed` bytes available in one piece.
void FrameReader::Fill(std::size_t needed) {
    if (m_begin == m_end) {
        m_begin = m_end = 0;
    }
    if (m_begin + needed > m_buffer.size()) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
        if (needed > m_buffer.size()) {
            m_buffer.resize(needed);
        }
    }
    while (m_end - m_begin < needed) {
        const std::size_t got = m_socket.Receive(m_buffer.data() + m_end, m_buffer.size() - m_end);
        if (got == 0) {
            throw Gone();
        }
        m_end += got;
    }
}

Header FrameReader::Next(std::string_view& body) {
    Header header{};
    Fill(sizeof header);
    std::memcpy(&header, m_buffer.data() + m_begin, sizeof header);
    m_begin += sizeof header;
    Fill(header.length);
    body = {m_buffer.data() + m_begin, header.length};
    m_begin += header.length;
    return header;
}

} // namespace Vantor::Sentrix::Floor
