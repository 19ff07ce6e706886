// Analyses of the dumps, in the background: what somebody asked for is worked off run by run, on one thread.
#pragma once

#include "services/common/ServiceModule.h"
#include "services/crashdump/DumpFolder.h"

#include <json/value.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix::CrashDump {

using Services::Asker;

// Every run ends with one last outcome message: finished, cancelled or refused.
//
// Threads: any for its operations. Messages are told on the thread of the analyses, a refusal on that of its Start;
// those of one run come in order.
class Analyser {
public:
    using Tell = std::function<void(const Asker& asker, const Json::Value& outcome)>;

    Analyser(std::vector<DumpPlace> places, Tell tell);
    ~Analyser();
    Analyser(const Analyser&) = delete;
    Analyser& operator=(const Analyser&) = delete;

    // Refused while a run of the same module is under way, and when very many wait.
    void Start(const Asker& asker);
    // True: the module had a run under way, whose last message will be that it was cancelled.
    bool Cancel(std::int32_t moduleId);
    // Cancels everything and waits until nothing more is told. What is started afterwards is refused.
    void Stop();

private:
    struct Run {
        explicit Run(const Asker& from) : asker(from) {}
        const Asker asker;
        std::atomic<bool> cancelled{false}; // changed under m_lock, looked at without
    };

    std::string Enqueue(const Asker& asker);
    void WorkOff();
    void Analyse(Run& run);
    bool Leave();

    const std::vector<DumpPlace> m_places;
    const Tell m_tell;

    std::mutex m_lock;
    std::condition_variable m_changed;
    // Guarded by m_lock.
    std::list<std::unique_ptr<Run>> m_runs; // the first is worked on
    bool m_stopping = false;

    std::thread m_worker; // last: it uses all of the above
};

} // namespace Vantor::Sentrix::CrashDump
