// What the verbs share that talk to a service: whether it is there, what its silence means, and its texts for people.
// Threads: one at a time, unless stated.
#pragma once

#include "tools/support/ModuleStatus.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Vantor::Sentrix::Tool {

struct Service {
    std::uint32_t module;
    const char* name;
    const char* program; // that offers it
};

// A way to ask the bus server for the service, beside the client that talks to the service itself.
class ServiceWatch {
public:
    explicit ServiceWatch(const Service& service);

    const Service& Watched() const { return m_service; }

    Support::ModuleStatus Status() { return m_query.Ask(m_service.module); }
    // Says what is wrong when it is anything but Online.
    bool IsThere();

    // For an answer that was empty: says that there was none, or none that could be used, and gives kFailed.
    int NoAnswer();

    // True when the server has seen what was sent before.
    bool Flush() { return m_query.Flush(); }

private:
    const Service& m_service;
    IPCMessageClient m_client;
    Support::StatusQuery m_query;
};

// Runs `use` when host and service are there, and gives its exit code. An exception about the shape of an answer is
// told as that.
// Fails: kFailed, and words that say why.
int WithService(const Service& service, const std::function<int(ServiceWatch&)>& use);

// How often somebody who waits is told that the program does.
inline constexpr std::chrono::seconds kTalkInterval{3};

// The same for one question: `ask` runs while somebody tells now and then, from a thread of its own, that it takes
// time.
int AskService(const Service& service, const std::function<int(ServiceWatch&)>& ask);

// ---- Texts; any thread ---------------------------------------------------------------------------------------------

// One line of JSON with its line end.
std::string JsonLine(const Json::Value& value);

// UTF-8 that does nothing to a terminal and stays on its line: controls and what is no UTF-8 become U+FFFD.
std::string Printable(std::string_view text);

// A time in seconds since 1970 as YYYY-MM-DD HH:MM:SS, UTC; as the number outside of the years 1970 to 9999.
std::string UtcTime(std::int64_t seconds);

// Filled up with spaces to so many characters. Requires: UTF-8.
std::string Padded(std::string text, std::size_t width);

} // namespace Vantor::Sentrix::Tool
