// Files, and everything else that is read and written through a descriptor: the ends of anonymous pipes and the
// standard streams.
#pragma once

#include "veyrasvc/platform/posix/IoObject.h"
#include "veyrasvc/platform/posix/UniqueFd.h"

#include <atomic>

namespace Vantor::Sentrix::Platform {

class File final : public IoObject {
public:
    enum class Ownership { kOwned, kBorrowed };

    // Owns: the descriptor, unless it is borrowed, and what marks the file as open (ShareMode.h). `access` is any of
    // GENERIC_READ and GENERIC_WRITE.
    File(int descriptor, DWORD access, bool inheritable, Ownership ownership = Ownership::kOwned, UniqueFd marks = {});
    ~File() override;

    BOOL Read(void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) override;
    BOOL Write(const void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) override;
    BOOL Seek(LONGLONG distance, LARGE_INTEGER* newPosition, DWORD method);
    BOOL Truncate();
    DWORD Type() const;

    int Descriptor() const { return m_descriptor; }

    // Whether a new process may get this as one of its standard streams.
    bool Inheritable() const { return m_inheritable.load(std::memory_order_relaxed); }
    void SetInheritable(bool inheritable) { m_inheritable.store(inheritable, std::memory_order_relaxed); }

private:
    BOOL Deliver(long result, bool endIsError, DWORD* transferred, OVERLAPPED* overlapped);

    const int m_descriptor;
    const DWORD m_access;
    const Ownership m_ownership;
    const UniqueFd m_marks;
    const bool m_isStream; // a pipe or socket: no position, and its end is an error
    std::atomic<bool> m_inheritable;
};

// Owns: the descriptor, also when it fails. Fails: null with the last error set.
HANDLE AddFile(int descriptor, DWORD access, bool inheritable);

} // namespace Vantor::Sentrix::Platform
