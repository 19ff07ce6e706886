// Plain sockets, for the clients that are written by hand and for waiting until a broker listens.
// Threads: any, one at a time for each descriptor.
// Fails: everything here throws std::system_error.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace Vantor::Sentrix::Compare {

// Throws what errno says.
[[noreturn]] void FailWithErrno(const std::string& what);

// Owns: a file descriptor, or none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept : m_number(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return m_number; }
    bool IsOpen() const { return m_number >= 0; }
    int Release();
    void Close();

private:
    int m_number = -1;
};

Descriptor ListenUnix(const std::string& path);
Descriptor Accept(const Descriptor& listener);
Descriptor ConnectUnix(const std::string& path);
// To 127.0.0.1, without the delay for small packets.
Descriptor ConnectTcp(int port);
// Two that are connected with each other.
std::pair<Descriptor, Descriptor> ConnectedPair();
// A port of 127.0.0.1 that nobody listens on at this moment.
int FreeTcpPort();

void WriteAll(const Descriptor& to, std::string_view bytes);
// What there is, at least a byte. 0: nothing yet, which needs `wait` to be false. The end of the stream is a failure.
std::size_t ReadSome(const Descriptor& from, char* buffer, std::size_t size, bool wait);

} // namespace Vantor::Sentrix::Compare
