// The client's side of a pipe name: finding out whether it is served, waiting for a free instance, and opening it.
#include "veyrasvc/platform/posix/PipeClient.h"

#include "veyrasvc/platform/posix/Pipe.h"
#include "veyrasvc/platform/posix/PipeName.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace Vantor::Sentrix::Platform {

namespace {

enum class Serving { Absent, Busy, Free, Unknown };

// A connected socket, or an invalid one with errno set.
UniqueFd ConnectTo(const PipeName& name) {
    UniqueFd result(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (result.Valid() && connect(result.Get(), name.Address(), name.AddressLength()) != 0) {
        const int error = errno;
        result.Reset();
        errno = error;
    }
    return result;
}

// A dump of the listening Unix sockets, from the kernel's socket diagnosis.
UniqueFd RequestListeners() {
    UniqueFd diagnosis(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    struct {
        nlmsghdr header;
        unix_diag_req request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.request.sdiag_family = AF_UNIX;
    message.request.udiag_states = 1u << TCP_LISTEN;
    message.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_RQLEN;
    if (!diagnosis.Valid() || send(diagnosis.Get(), &message, sizeof message, 0) != sizeof message) {
        return UniqueFd();
    }
    return diagnosis;
}

// What one record of the dump says of `name`; Absent when it is about another socket.
Serving Judge(const nlmsghdr& header, std::string_view name) {
    const auto* record = static_cast<const unix_diag_msg*>(NLMSG_DATA(&header));
    const auto* attribute = reinterpret_cast<const rtattr*>(record + 1);
    auto left = static_cast<int>(header.nlmsg_len - NLMSG_LENGTH(sizeof *record));
    bool isIt = false;
    unix_diag_rqlen queue{};
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        const std::string_view payload(static_cast<const char*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute));
        if (attribute->rta_type == UNIX_DIAG_NAME) {
            isIt = !payload.empty() && payload.substr(1) == name;
        } else if (attribute->rta_type == UNIX_DIAG_RQLEN && payload.size() >= sizeof queue) {
            std::memcpy(&queue, payload.data(), sizeof queue);
        }
    }
    if (!isIt) {
        return Serving::Absent;
    }
    // Of a listening socket: connections that nobody has accepted yet, and the backlog.
    return queue.udiag_rqueue > queue.udiag_wqueue ? Serving::Busy : Serving::Free;
}

Serving LookUp(const PipeName& name) {
    const UniqueFd diagnosis = RequestListeners();
    alignas(nlmsghdr) std::array<char, 32 * 1024> buffer;
    for (;;) {
        const ssize_t got = diagnosis.Valid() ? recv(diagnosis.Get(), buffer.data(), buffer.size(), 0) : -1;
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return Serving::Unknown;
        }
        auto left = static_cast<unsigned int>(got);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(header, left);
             header = NLMSG_NEXT(header, left)) {
            if (header->nlmsg_type == NLMSG_DONE) {
                return Serving::Absent;
            }
            if (header->nlmsg_type == NLMSG_ERROR) {
                return Serving::Unknown;
            }
            if (const Serving judged = Judge(*header, name.Key()); judged != Serving::Absent) {
                return judged;
            }
        }
    }
}

// Where the kernel does not tell, a connection that is closed at once finds out; the server sees it come and go.
Serving Probe(const PipeName& name) {
    const UniqueFd socket = ConnectTo(name);
    if (socket.Valid()) {
        return Serving::Free;
    }
    return errno == EAGAIN ? Serving::Busy : Serving::Absent;
}

} // namespace

HANDLE OpenPipeClient(LPCWSTR name, DWORD access, DWORD flags) {
    const auto parsed = PipeName::Parse(name);
    if (!parsed) {
        return INVALID_HANDLE_VALUE;
    }
    if (access != (GENERIC_READ | GENERIC_WRITE) || (flags & FILE_FLAG_OVERLAPPED) == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    UniqueFd socket = ConnectTo(*parsed);
    if (!socket.Valid()) {
        SetLastError(errno == EAGAIN         ? ERROR_PIPE_BUSY
                     : errno == ECONNREFUSED ? ERROR_FILE_NOT_FOUND
                                             : ErrorFromErrno(errno));
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = AddHandle(MakeObject<Pipe>(std::move(socket)));
    return handle == nullptr ? INVALID_HANDLE_VALUE : handle;
}

BOOL WaitNamedPipeW(LPCWSTR name, DWORD milliseconds) {
    // An instance becomes free without a signal to clients, so a busy pipe is looked at again and again.
    constexpr DWORD kLookAgainMs = 10;
    const auto parsed = PipeName::Parse(name);
    if (!parsed || milliseconds == 0) {
        return parsed ? Fail(ERROR_INVALID_PARAMETER) : FALSE;
    }
    const Deadline deadline(milliseconds);
    for (;;) {
        Serving serving = LookUp(*parsed);
        if (serving == Serving::Unknown) {
            serving = Probe(*parsed);
        }
        if (serving != Serving::Busy) {
            return serving == Serving::Free ? TRUE : Fail(ERROR_FILE_NOT_FOUND);
        }
        if (deadline.Passed()) {
            return Fail(ERROR_SEM_TIMEOUT);
        }
        Sleep(kLookAgainMs);
    }
}

} // namespace Vantor::Sentrix::Platform
