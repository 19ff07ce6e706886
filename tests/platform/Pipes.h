// Pipe ends for the tests of pipes and completion ports: a server's on a port, a client's with events.
#pragma once

#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace Vantor::Sentrix {

// A bound for what must come, far above what it takes: it turns a hang into a failure that says where.
constexpr DWORD kPatienceMs = 60'000;

// What a pipe takes, each way, without a reader: a write within it is done at once.
constexpr DWORD kPipeRoom = 64 << 10;

class Owned {
public:
    explicit Owned(HANDLE handle = nullptr) : m_handle(handle) {}
    ~Owned() { Close(); }
    Owned(Owned&& other) noexcept : m_handle(other.m_handle.exchange(nullptr)) {}
    Owned& operator=(Owned&& other) noexcept {
        Close();
        m_handle = other.m_handle.exchange(nullptr);
        return *this;
    }
    operator HANDLE() const { return m_handle; } // NOLINT(google-explicit-constructor): the calls take handles
    void Close() {
        if (const HANDLE handle = m_handle.exchange(nullptr); handle != nullptr && handle != INVALID_HANDLE_VALUE) {
            CloseHandle(handle);
        }
    }

private:
    std::atomic<HANDLE> m_handle; // one thread may close what another works with
};

inline Owned NewEvent(bool manualReset, bool initialState = false) {
    return Owned(CreateEventW(nullptr, manualReset ? TRUE : FALSE, initialState ? TRUE : FALSE, nullptr));
}

inline Owned NewPort() {
    return Owned(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
}

// A thread that CreateThread has made, ended when the object is gone.
class Thread {
public:
    explicit Thread(std::function<void()> run) : m_run(std::move(run)) {
        const auto start = [](void* self) -> DWORD {
            static_cast<Thread*>(self)->m_run();
            return 0;
        };
        m_handle = Owned(CreateThread(nullptr, 0, start, this, 0, nullptr));
        EXPECT_NE(m_handle, nullptr) << GetLastError();
    }
    ~Thread() { Join(); }
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    void Join() const { EXPECT_EQ(WaitForSingleObject(m_handle, INFINITE), WAIT_OBJECT_0); }

private:
    const std::function<void()> m_run;
    Owned m_handle;
};

struct Completion {
    bool succeeded = false;
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    DWORD error = NO_ERROR;
};

inline Completion Next(HANDLE port, DWORD milliseconds = kPatienceMs) {
    Completion next;
    next.succeeded = GetQueuedCompletionStatus(port, &next.bytes, &next.key, &next.overlapped, milliseconds) != FALSE;
    next.error = next.succeeded ? NO_ERROR : GetLastError();
    return next;
}

// The call has begun; its outcome comes through the port or the event, whether it was known at once or not.
inline testing::AssertionResult Begun(BOOL result) {
    if (result != FALSE || GetLastError() == ERROR_IO_PENDING) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "error " << GetLastError();
}

inline std::wstring UniquePipeName() {
    static std::atomic<int> number{0};
    return L"\\\\.\\pipe\\Veyra Test " + std::to_wstring(GetCurrentProcessId()) + L"." + std::to_wstring(++number);
}

// An instance that waits for a client, which `accept` will tell of.
inline Owned NewInstance(const std::wstring& name, HANDLE port, OVERLAPPED& accept, ULONG_PTR key = 0,
                         SECURITY_ATTRIBUTES* attributes = nullptr) {
    Owned pipe(CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE | PIPE_WAIT,
                                PIPE_UNLIMITED_INSTANCES, kPipeRoom, kPipeRoom, 0, attributes));
    EXPECT_NE(pipe, INVALID_HANDLE_VALUE) << GetLastError();
    EXPECT_EQ(CreateIoCompletionPort(pipe, port, key, 0), port);
    accept = {};
    EXPECT_FALSE(ConnectNamedPipe(pipe, &accept));
    EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
    return pipe;
}

inline Owned OpenClient(const std::wstring& name) {
    return Owned(CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             FILE_FLAG_OVERLAPPED, nullptr));
}

// A server instance and the client that is connected to it. Nobody else may be asking the port.
struct Connection {
    Connection(const std::wstring& name, HANDLE port, ULONG_PTR key) {
        OVERLAPPED accept{};
        server = NewInstance(name, port, accept, key);
        client = OpenClient(name);
        EXPECT_NE(client, INVALID_HANDLE_VALUE) << GetLastError();
        const Completion accepted = Next(port);
        EXPECT_TRUE(accepted.succeeded && accepted.overlapped == &accept && accepted.key == key) << accepted.error;
    }
    explicit Connection(HANDLE port, ULONG_PTR key = 0) : Connection(UniquePipeName(), port, key) {}

    // One byte from the server, which has left when this returns.
    void SendByte(HANDLE port, char byte = 'x') {
        OVERLAPPED write{};
        EXPECT_TRUE(Begun(WriteFile(server, &byte, 1, nullptr, &write)));
        EXPECT_EQ(Next(port).overlapped, &write);
    }

    Owned server;
    Owned client;
};

// An operation that reports to an event.
struct EventIo {
    BOOL Read(HANDLE pipe, void* buffer, DWORD count) { return ReadFile(pipe, buffer, count, nullptr, Fresh()); }
    BOOL Write(HANDLE pipe, const void* buffer, DWORD count) {
        return WriteFile(pipe, buffer, count, nullptr, Fresh());
    }
    // Its error; `bytes` were moved.
    DWORD Await(DWORD* bytes = nullptr) {
        DWORD ignored = 0;
        EXPECT_EQ(WaitForSingleObject(event, kPatienceMs), WAIT_OBJECT_0);
        return GetOverlappedResult(nullptr, &overlapped, bytes == nullptr ? &ignored : bytes, FALSE) != FALSE
                   ? NO_ERROR
                   : GetLastError();
    }

    Owned event = NewEvent(true);
    OVERLAPPED overlapped{};

private:
    OVERLAPPED* Fresh() {
        overlapped = {};
        overlapped.hEvent = event;
        return &overlapped;
    }
};

// The byte at a position of a stream: bytes that are lost, doubled or out of order show.
inline char PatternAt(unsigned stream, std::size_t position) {
    return static_cast<char>(((position + std::size_t{stream} * 1'000'003) * 0x9E3779B97F4A7C15U) >> 56);
}

} // namespace Vantor::Sentrix
