// A child process, as its handles see it.
#pragma once

#include "veyrasvc/platform/posix/BlockingWaitable.h"
#include "veyrasvc/platform/posix/Reaper.h"

#include <sys/types.h>

#include <mutex>
#include <optional>

namespace Vantor::Sentrix::Platform {

// Signalled once the process has ended. Its exit status is collected by whoever looks first; when the last handle goes
// before the process has ended, a reaper (Reaper.h) collects it, so that no zombie stays.
class Process final : public BlockingWaitable {
public:
    // Owns: the right to collect that child's exit status. `descriptor` is its pidfd.
    Process(pid_t id, UniqueFd descriptor) : m_id(id) { m_child.push_back(std::move(descriptor)); }
    ~Process() override;

    DWORD BlockingWait(DWORD milliseconds) override;
    BOOL Terminate(UINT exitCode);
    // STILL_ACTIVE while it runs.
    DWORD ExitCode();

    pid_t Id() const { return m_id; }

private:
    bool HasEnded();
    int Descriptor() const { return m_child.front().Get(); }

    const pid_t m_id;
    Child m_child; // constant until the destructor
    std::mutex m_mutex;
    std::optional<DWORD> m_exitCode;      // guarded by m_mutex
    std::optional<DWORD> m_terminateCode; // guarded by m_mutex
};

} // namespace Vantor::Sentrix::Platform
