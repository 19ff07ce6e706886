// A run of a service (a detection, a repair, an analysis), followed from its start to its last outcome message.
#pragma once

#include "tools/veyra/ServiceCall.h"

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Tool {

// The outcome messages of one run, from the hooks of a client to the thread that shows them.
// Threads: any; Next() one at a time.
// Lifetime: outlives the client whose hooks fill it.
class RunOutcomes {
public:
    // The message of a hook. One that is no outcome message is told by Next().
    void Take(const TagIPCMessageItem& item) noexcept;

    // What has come since, waiting up to `patience` for it. Hooks overtake each other: what came together is put in
    // order, and the last message of a run is held back a moment when others are missing that it counts.
    // Fails: throws Json::Exception after a message that was no outcome message.
    std::vector<Json::Value> Next(std::chrono::milliseconds patience);

private:
    void Add(Json::Value outcome);
    bool AllHere() const;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    std::vector<Json::Value> m_news;
    std::uint64_t m_running = 0; // of this run so far
    std::uint64_t m_counted = 0; // by the last message
    bool m_ended = false;        // the last message is here
    std::string m_fault;         // why a message was no outcome message
};

struct Run {
    std::function<int()> start;  // 0: posted
    std::function<int()> cancel; // 0: one was under way
    // The line, without its end, for an outcome that is not the last.
    std::function<std::string(const Json::Value& outcome)> describe;
    bool json = false;
};

// Starts the run and shows its outcomes, line by line. Ctrl-C cancels it.
// Requires: Support::CatchStopSignals() was called.
// Fails: kFailed when it did not finish, with words that say why. Throws what WithService() tells.
int FollowRun(ServiceWatch& watch, RunOutcomes& outcomes, const Run& run);

} // namespace Vantor::Sentrix::Tool
