#include "services/diagnosis/Runs.h"

#include <exception>
#include <system_error>
#include <utility>

namespace Vantor::Sentrix::Diagnosis {

namespace {

constexpr std::size_t kMostRuns = 16; // whoever asks under many names gets no more threads

Finding Carry(const Step& step, const std::stop_token& stop) {
    try {
        return step.work(stop);
    } catch (const std::exception& error) {
        return {Outcome::Unknown, error.what()};
    }
}

} // namespace

void Runs::Start(const Asker& asker, Kind kind, std::vector<Step> steps) {
    if (const std::string refusal = TryStart(asker, kind, steps); !refusal.empty()) {
        m_tell(asker, kind, DescribeRefusal(kind, refusal));
    }
}

std::string Runs::TryStart(const Asker& asker, Kind kind, std::vector<Step>& steps) {
    std::vector<std::jthread> ended; // joined after the lock is let go
    const std::lock_guard guard(m_mutex);
    ended.swap(m_ended);
    if (m_closed) {
        return "the service ends";
    }
    if (m_active.contains(asker.moduleId)) {
        return "a run of this module is under way";
    }
    if (m_active.size() == kMostRuns) {
        return "too many runs are under way";
    }
    Progress progress;
    progress.runId = ++m_lastRunId;
    progress.kind = kind;
    progress.items = steps.size();
    const auto run = m_active.emplace(asker.moduleId, Active{kind, {}}).first;
    try {
        run->second.worker = std::jthread([this, asker, progress, steps = std::move(steps)](
                                              const std::stop_token& stop) { CarryOut(asker, progress, steps, stop); });
    } catch (const std::system_error&) {
        m_active.erase(run);
        return "there is no thread for it";
    }
    return {};
}

void Runs::CarryOut(const Asker& asker, Progress progress, const std::vector<Step>& steps,
                    const std::stop_token& stop) {
    for (const Step& step : steps) {
        const Finding finding = stop.stop_requested() ? Finding{} : Carry(step, stop);
        if (stop.stop_requested()) {
            break;
        }
        progress.Count(finding.outcome);
        const bool isFault = finding.outcome == Outcome::Warning || finding.outcome == Outcome::Fault;
        const int eventId = isFault ? m_record(step.item, finding) : 0;
        m_tell(asker, progress.kind, DescribeItem(progress, step.item, finding, eventId));
    }
    // Retired first: whoever has the last message may start again.
    const bool cancelled = Retire(asker.moduleId, stop);
    m_tell(asker, progress.kind, DescribeEnd(progress, cancelled));
}

bool Runs::Retire(std::int32_t moduleId, const std::stop_token& stop) {
    const std::lock_guard guard(m_mutex); // the start, which holds it, has entered the run by now
    const auto own = m_active.find(moduleId);
    m_ended.push_back(std::move(own->second.worker));
    m_active.erase(own);
    m_retired.notify_all();
    return stop.stop_requested();
}

bool Runs::Cancel(std::int32_t moduleId, Kind kind) {
    const std::lock_guard guard(m_mutex);
    const auto run = m_active.find(moduleId);
    if (run == m_active.end() || run->second.kind != kind) {
        return false;
    }
    run->second.worker.request_stop();
    return true;
}

void Runs::CancelAll(std::int32_t moduleId) {
    Cancel(moduleId, Kind::Detection);
    Cancel(moduleId, Kind::Repair);
}

void Runs::Close() {
    std::vector<std::jthread> ended;
    std::unique_lock guard(m_mutex);
    m_closed = true;
    for (auto& [moduleId, run] : m_active) {
        run.worker.request_stop();
    }
    m_retired.wait(guard, [this] { return m_active.empty(); });
    ended.swap(m_ended);
    guard.unlock(); // the threads in `ended` are joined here
}

} // namespace Vantor::Sentrix::Diagnosis
