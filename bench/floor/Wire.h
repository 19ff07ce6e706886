// Frames on plain blocking Unix sockets, by the shortest way.
// Threads: one at a time for each object.
// Fails: everything here throws std::system_error, or Gone when the other side has closed; the process ends with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Floor {

enum class Kind : std::uint32_t { Hello, Request, Reply, Data, Ack, Mark, MarkReply };

// In the machine's own byte order: both ends are the same program.
struct Header {
    std::uint32_t length; // of the body that follows
    std::uint32_t to;     // of a Hello: who this connection is
    Kind kind;
};

struct Gone {};

class Socket {
public:
    explicit Socket(int descriptor) : m_descriptor(descriptor) {}
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket& operator=(Socket&&) = delete;

    int Descriptor() const { return m_descriptor; }
    // What is there, at least one byte; 0 at the end.
    std::size_t Receive(char* buffer, std::size_t size) const;
    void Send(std::string_view bytes) const;
    // Header and body leave in one call if the socket takes them.
    void SendFrame(std::uint32_t to, Kind kind, std::string_view body) const;

private:
    int m_descriptor;
};

Socket Listen(std::uint32_t name);
Socket Accept(const Socket& listener);
// Connects and says who this is.
Socket Join(std::uint32_t name, std::uint32_t id);

// Takes frames off a socket, reading as much at once as there is.
class FrameReader {
public:
    explicit FrameReader(const Socket& socket) : m_socket(socket), m_buffer(kBufferBytes) {}

    // The next frame. The body is valid until the next call.
    Header Next(std::string_view& body);

private:
    static constexpr std::size_t kBufferBytes = 256 * 1024;

    void Fill(std::size_t needed);

    const Socket& m_socket;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0; // of what is unread
    std::size_t m_end = 0;
};

} // namespace Vantor::Sentrix::Floor
