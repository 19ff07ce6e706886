// Where a named pipe lives: the abstract-namespace Unix socket that stands for it.
#pragma once

#include "veyrasvc/platform/posix/Win32Subset.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <string>

namespace Vantor::Sentrix::Platform {

// `\\.\Pipe\Some Name` is the socket "\0veyrasvc/<namespace>/some name": pipe names ignore case, and the namespace of
// the process (see Namespace.h) keeps users and tests apart.
class PipeName {
public:
    // Fails: nothing with ERROR_INVALID_NAME unless the name starts with `\\.\pipe\` in any case and fits into a socket
    // address, or with ERROR_NOT_ENOUGH_MEMORY.
    static std::optional<PipeName> Parse(LPCWSTR name);

    // The address without its leading NUL; equal for equal pipes.
    const std::string& Key() const { return m_key; }
    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&m_address); }
    socklen_t AddressLength() const { return m_length; }

private:
    static std::optional<PipeName> ParseText(LPCWSTR name);

    std::string m_key;
    sockaddr_un m_address{};
    socklen_t m_length = 0;
};

} // namespace Vantor::Sentrix::Platform
