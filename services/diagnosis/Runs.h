// Detections and repairs under way: each has a worker thread, and each asking module has one at most.
#pragma once

#include "services/common/ServiceModule.h"
#include "services/diagnosis/Messages.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Vantor::Sentrix::Diagnosis {

using Services::Asker;

struct Step {
    std::string item;
    Work work;
};

// Threads: any. The functions that it is given are called on the workers, without a lock.
class Runs {
public:
    using Tell = std::function<void(const Asker&, Kind, const Json::Value& message)>;
    // Records the fault, warning or not, and returns the event's id.
    using Record = std::function<int(const std::string& item, const Finding&)>;

    Runs(Tell tell, Record record) : m_tell(std::move(tell)), m_record(std::move(record)) {}
    ~Runs() { Close(); }
    Runs(const Runs&) = delete;
    Runs& operator=(const Runs&) = delete;

    // Every start is told of by messages, the last of which is that it ended or was refused.
    void Start(const Asker& asker, Kind kind, std::vector<Step> steps);

    // True: one of that kind was under way, and its last message will be that it was cancelled.
    bool Cancel(std::int32_t moduleId, Kind kind);
    void CancelAll(std::int32_t moduleId);

    // Cancels every run and waits for their ends; from now on all starts are refused.
    void Close();

private:
    struct Active {
        Kind kind;
        std::jthread worker;
    };

    // Empty: it was started.
    std::string TryStart(const Asker& asker, Kind kind, std::vector<Step>& steps);
    void CarryOut(const Asker& asker, Progress progress, const std::vector<Step>& steps, const std::stop_token& stop);
    // Returns whether it was cancelled; from here on it is too late for that.
    bool Retire(std::int32_t moduleId, const std::stop_token& stop);

    const Tell m_tell;
    const Record m_record;

    std::mutex m_mutex;
    std::condition_variable m_retired;
    // Guarded by m_mutex.
    std::map<std::int32_t, Active> m_active; // by asking module
    std::vector<std::jthread> m_ended;       // their last message may be on its way still
    int m_lastRunId = 0;
    bool m_closed = false;
};

} // namespace Vantor::Sentrix::Diagnosis
