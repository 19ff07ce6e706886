// Questions to the bus server, answered within a bound.
#pragma once

#include "veyrasvc/bus/IPCMessageExport.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

namespace Vantor::Sentrix::Support {

// Long enough for a reconnection, which the library tries once a second.
inline constexpr std::chrono::milliseconds kServerPatience{5000};

enum class ModuleStatus { Online, Offline, NoAnswer };

// The module that a status notice is about; nothing when its body is none of a notice.
std::optional<std::uint32_t> ReadModuleId(const TagIPCMessageItem& notice);

// Asks for modules through a client, whose callbacks for the two status notices it takes.
//
// Frames leave in the order in which they were queued and the server handles them in that order. So an answer also
// proves that the server has seen everything that this process sent before it asked.
//
// Threads: one at a time.
// Lifetime: the client must outlive it. The client keeps the callbacks, which do nothing more.
class StatusQuery {
public:
    explicit StatusQuery(IPCMessageClient& client); // takes over its callbacks for status notices
    ~StatusQuery();
    StatusQuery(const StatusQuery&) = delete;
    StatusQuery& operator=(const StatusQuery&) = delete;

    // The question is repeated when it may have been lost.
    // Fails: NoAnswer at once when nobody serves the bus, after kServerPatience, or when the user wants to stop.
    ModuleStatus Ask(std::uint32_t moduleId);

    // The same, but waits for somebody who serves the bus too.
    // Fails: NoAnswer after `patience`, or when the user wants to stop.
    ModuleStatus Await(std::uint32_t moduleId, std::chrono::milliseconds patience);

    // True when the server has seen what was sent before. Fails: as Ask.
    bool Flush();

private:
    struct Answers;
    enum class Absence { Ends, IsWaitedFor }; // of a bus server

    ModuleStatus AskWithin(std::uint32_t moduleId, std::chrono::milliseconds patience, Absence absence);

    IPCMessageClient& m_client;
    std::shared_ptr<Answers> m_answers; // shared with the callbacks
};

} // namespace Vantor::Sentrix::Support
