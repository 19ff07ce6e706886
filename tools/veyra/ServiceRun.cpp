#include "tools/veyra/ServiceRun.h"

#include "tools/support/ServiceText.h"
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"

#include <json/reader.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace Vantor::Sentrix::Tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTogether{20};    // between messages that were sent at once
constexpr std::chrono::milliseconds kStragglers{500}; // for messages that the last one has overtaken
constexpr std::chrono::seconds kCheckInterval{1};     // of whether the service is still there
constexpr std::chrono::seconds kEndAfterCancel{5};    // for the last message of a run that was cancelled

// What the last message counts, in the order in which people read it.
constexpr const char* kCounts[] = {"Ok", "Warning", "Fault", "Unknown", "Would", "Done", "Analysed", "Unreadable"};

bool IsLast(const Json::Value& outcome) {
    return outcome["State"].asString() != "running";
}

std::uint64_t CountedBy(const Json::Value& last) {
    std::uint64_t counted = 0;
    for (const char* count : kCounts) {
        counted += last[count].isUInt() ? last[count].asUInt64() : 0;
    }
    return counted;
}

Json::Value ParseOutcome(std::string_view text) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value parsed;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors)) {
        Json::throwLogicError("an outcome message that is no JSON");
    }
    const Json::Value& outcome = parsed; // to ask it for a member does not make one
    if (!outcome.isObject() || !outcome["State"].isString() || !(outcome["Percent"].isInt() || IsLast(outcome))) {
        Json::throwLogicError("an outcome message without its state or percentage");
    }
    return parsed;
}

std::string LastLine(const Json::Value& outcome) {
    std::string line = outcome["State"].asString();
    const char* separator = ": ";
    for (const char* count : kCounts) {
        if (outcome[count].isUInt()) {
            std::string name = count;
            name[0] = static_cast<char>(name[0] - 'A' + 'a');
            line += separator + outcome[count].asString() + ' ' + name;
            separator = ", ";
        }
    }
    for (const char* words : {"Text", "Error"}) {
        if (!outcome[words].isNull()) {
            line += separator + outcome[words].asString();
            separator = "; ";
        }
    }
    return Printable(line);
}

} // namespace

// ---- Outcomes ------------------------------------------------------------------------------------------------------

void RunOutcomes::Take(const TagIPCMessageItem& item) noexcept {
    std::string fault;
    try {
        Add(ParseOutcome(Support::TextOf(item)));
        return;
    } catch (const std::exception& error) {
        fault = error.what();
    }
    const std::lock_guard guard(m_mutex);
    m_fault = std::move(fault);
    m_changed.notify_all();
}

void RunOutcomes::Add(Json::Value outcome) {
    const std::lock_guard guard(m_mutex);
    if (IsLast(outcome)) {
        m_ended = true;
        m_counted = CountedBy(outcome);
    } else {
        ++m_running;
    }
    m_news.push_back(std::move(outcome));
    m_changed.notify_all();
}

bool RunOutcomes::AllHere() const {
    return m_ended && m_running >= m_counted;
}

std::vector<Json::Value> RunOutcomes::Next(std::chrono::milliseconds patience) {
    std::unique_lock guard(m_mutex);
    m_changed.wait_for(guard, patience, [this] { return !m_news.empty() || !m_fault.empty(); });
    if (!m_news.empty()) {
        m_changed.wait_for(guard, kTogether, [this] { return AllHere(); });
    }
    if (m_ended) {
        m_changed.wait_for(guard, kStragglers, [this] { return AllHere(); });
    }
    if (!m_fault.empty()) {
        Json::throwLogicError(m_fault);
    }
    std::vector<Json::Value> news;
    news.swap(m_news);
    std::stable_sort(news.begin(), news.end(), [](const Json::Value& a, const Json::Value& b) {
        return IsLast(a) || IsLast(b) ? !IsLast(a) && IsLast(b) : a["Percent"].asInt() < b["Percent"].asInt();
    });
    return news;
}

// ---- The run -------------------------------------------------------------------------------------------------------

namespace {

class Follower {
public:
    Follower(ServiceWatch& watch, RunOutcomes& outcomes, const Run& run)
        : m_watch(watch), m_outcomes(outcomes), m_run(run) {}

    int Follow() {
        if (m_run.start() != 0) {
            Say("the request could not be posted");
            return kFailed;
        }
        do {
            for (const Json::Value& outcome : m_outcomes.Next(Support::kStopCheckInterval)) {
                if (!Show(outcome)) {
                    m_run.cancel(); // nobody reads it any more
                    return kFailed;
                }
                if (IsLast(outcome)) {
                    return outcome["State"].asString() == "finished" && !m_cancelled ? kDone : kFailed;
                }
            }
        } while (GoesOn());
        return kFailed;
    }

private:
    bool Show(const Json::Value& outcome) {
        m_lastNews = Clock::now();
        m_talks = 0;
        m_percent = IsLast(outcome) ? m_percent : outcome["Percent"].asInt();
        if (m_run.json) {
            return Support::WriteOutput(JsonLine(outcome));
        }
        return Support::WriteOutput((IsLast(outcome) ? LastLine(outcome) : m_run.describe(outcome)) + '\n');
    }

    bool GoesOn() {
        if (Support::StopAsked()) {
            return AwaitsCancelled();
        }
        TalkWhileWaiting();
        return ServiceIsThere();
    }

    bool AwaitsCancelled() {
        if (!m_cancelled) {
            m_cancelled = true;
            Say("cancelling");
            if (m_run.cancel() != 0) {
                Say("the service had nothing to cancel");
            }
            m_cancelledAt = Clock::now();
        }
        if (Clock::now() - m_cancelledAt < kEndAfterCancel) {
            return true;
        }
        Say("the run has not ended yet");
        return false;
    }

    void TalkWhileWaiting() {
        if (const auto waited = Clock::now() - m_lastNews; waited >= kTalkInterval * (m_talks + 1)) {
            ++m_talks;
            Say(std::to_string(m_percent) + " % done; waiting for what comes next (" +
                std::to_string((kTalkInterval * m_talks).count()) + " s)");
        }
    }

    bool ServiceIsThere() {
        if (Clock::now() - m_lastCheck < kCheckInterval) {
            return true;
        }
        const Support::ModuleStatus status = m_watch.Status();
        m_lastCheck = Clock::now();
        if (status == Support::ModuleStatus::Online ||
            Support::StopAsked()) { // to ask is cut short by the wish to stop
            return true;
        }
        const bool isServed = status == Support::ModuleStatus::Offline;
        Say(std::string(isServed ? m_watch.Watched().name : "the bus server") + " went away before the run had ended");
        return false;
    }

    ServiceWatch& m_watch;
    RunOutcomes& m_outcomes;
    const Run& m_run;
    Clock::time_point m_lastNews = Clock::now();
    Clock::time_point m_lastCheck = Clock::now();
    Clock::time_point m_cancelledAt;
    int m_talks = 0; // since the last news
    int m_percent = 0;
    bool m_cancelled = false;
};

} // namespace

int FollowRun(ServiceWatch& watch, RunOutcomes& outcomes, const Run& run) {
    return Follower(watch, outcomes, run).Follow();
}

} // namespace Vantor::Sentrix::Tool
