#include "services/diagnosis/FaultHistory.h"

#include "services/diagnosis/Messages.h"

#include <utility>

namespace Vantor::Sentrix::Diagnosis {

namespace {

struct Query {
    std::int32_t id;
    std::int64_t from;
    std::int64_t to;
    std::string type;
    std::string provider;

    // Throws Json::Exception for a member of the wrong type; one that is missing asks for anything.
    explicit Query(const Json::Value& object)
        : id(object["EventId"].asInt()), from(object["StartTime"].asInt64()), to(object["EndTime"].asInt64()),
          type(object["EventType"].asString()), provider(object["EventProvider"].asString()) {}

    bool Matches(const FaultEvent& event) const {
        return (id == 0 || event.id == id) && (from == 0 || event.time >= from) && (to == 0 || event.time <= to) &&
               (type.empty() || event.type == type) && (provider.empty() || event.provider == provider);
    }
};

} // namespace

Json::Value ToJson(const FaultEvent& event) {
    Json::Value value;
    value["EventId"] = event.id;
    value["Time"] = Json::Int64{event.time};
    value["EventType"] = event.type;
    value["EventProvider"] = event.provider;
    value["Text"] = event.text;
    return value;
}

FaultEvent FaultHistory::Record(std::int64_t time, std::string type, std::string provider, std::string text) {
    const std::lock_guard guard(m_mutex);
    m_events.push_back({++m_lastId, time, std::move(type), std::move(provider), std::move(text)});
    if (m_events.size() > kKept) {
        m_events.pop_front();
    }
    return m_events.back();
}

Json::Value FaultHistory::Answer(const std::string& query) const {
    Json::Value answer;
    answer["Events"] = Json::arrayValue;
    try {
        const Query wanted(ParseObject(query));
        const std::lock_guard guard(m_mutex);
        for (const FaultEvent& event : m_events) {
            if (wanted.Matches(event)) {
                answer["Events"].append(ToJson(event));
            }
        }
    } catch (const Json::Exception& error) {
        answer["Error"] = error.what();
    }
    return answer;
}

} // namespace Vantor::Sentrix::Diagnosis
