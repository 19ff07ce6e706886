#include "services/crashdump/Analysis.h"

#include "services/crashdump/Outcome.h"

#include <algorithm>
#include <utility>

namespace Vantor::Sentrix::CrashDump {

namespace {

constexpr std::size_t kMostRuns = 100;

}

Analyser::Analyser(std::vector<DumpPlace> places, Tell tell)
    : m_places(std::move(places)), m_tell(std::move(tell)), m_worker([this] { WorkOff(); }) {}

Analyser::~Analyser() {
    Stop();
}

void Analyser::Start(const Asker& asker) {
    if (const std::string refusal = Enqueue(asker); !refusal.empty()) {
        m_tell(asker, DescribeRefusal(refusal));
    }
}

// Why not; empty: the run is in the queue.
std::string Analyser::Enqueue(const Asker& asker) {
    const std::lock_guard guard(m_lock);
    const auto isTheirs = [&asker](const auto& run) { return run->asker.moduleId == asker.moduleId; };
    if (m_stopping) {
        return "the service ends";
    }
    if (std::any_of(m_runs.begin(), m_runs.end(), isTheirs)) {
        return "an analysis for this module is under way";
    }
    if (m_runs.size() >= kMostRuns) {
        return "too many analyses wait";
    }
    m_runs.push_back(std::make_unique<Run>(asker));
    m_changed.notify_all();
    return {};
}

bool Analyser::Cancel(std::int32_t moduleId) {
    const std::lock_guard guard(m_lock);
    for (const auto& run : m_runs) {
        if (run->asker.moduleId == moduleId) {
            run->cancelled = true;
            return true;
        }
    }
    return false;
}

void Analyser::Stop() {
    {
        const std::lock_guard guard(m_lock);
        m_stopping = true;
        for (const auto& run : m_runs) {
            run->cancelled = true;
        }
        m_changed.notify_all();
    }
    if (m_worker.joinable()) {
        m_worker.join();
    }
}

void Analyser::WorkOff() {
    for (;;) {
        Run* run = nullptr;
        {
            std::unique_lock guard(m_lock);
            m_changed.wait(guard, [this] { return m_stopping || !m_runs.empty(); });
            if (m_runs.empty()) {
                return;
            }
            run = m_runs.front().get();
        }
        Analyse(*run);
    }
}

void Analyser::Analyse(Run& run) {
    const Asker asker = run.asker;
    DumpListing listing;
    if (!run.cancelled) {
        listing = ListDumps(m_places);
    }
    Progress progress;
    progress.all = listing.files.size();
    for (const DumpFile& file : listing.files) {
        if (run.cancelled) {
            break;
        }
        const DumpHeader header = ReadDumpHeader(file.path);
        ++(header.error.empty() ? progress.analysed : progress.unreadable);
        m_tell(asker, DescribeDump(file, header, progress));
    }
    m_tell(asker, DescribeEnd(Leave(), progress, listing.unread));
}

// Ends the first run: from here on it can no longer be cancelled. True: it was.
bool Analyser::Leave() {
    const std::lock_guard guard(m_lock);
    const bool cancelled = m_runs.front()->cancelled;
    m_runs.pop_front();
    return cancelled;
}

} // namespace Vantor::Sentrix::CrashDump
