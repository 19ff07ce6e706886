// The faults that runs have found: the last thousand, in memory.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

namespace Vantor::Sentrix::Diagnosis {

struct FaultEvent {
    std::int32_t id;   // counts from 1
    std::int64_t time; // seconds since 1970
    std::string type;
    std::string provider;
    std::string text;
};

Json::Value ToJson(const FaultEvent& event);

// Threads: any.
class FaultHistory {
public:
    static constexpr std::size_t kKept = 1000;

    FaultEvent Record(std::int64_t time, std::string type, std::string provider, std::string text);

    // The answer to a query, the oldest event first. `query` is what the asker sent; the answer says what is wrong
    // with one that cannot be understood.
    Json::Value Answer(const std::string& query) const;

private:
    mutable std::mutex m_mutex;
    std::deque<FaultEvent> m_events; // guarded by m_mutex
    std::int32_t m_lastId = 0;       // guarded by m_mutex
};

} // namespace Vantor::Sentrix::Diagnosis
