#include "services/diagnosis/Messages.h"

#include <json/reader.h>

#include <algorithm>
#include <memory>

namespace Vantor::Sentrix::Diagnosis {

namespace {

// No request needs more, and a hostile one shall not keep the service busy.
constexpr std::size_t kLongestText = 64 * 1024;

Json::Value Head(const Progress& progress, const char* state) {
    Json::Value message;
    message["RunId"] = progress.runId;
    message["Kind"] = NameOf(progress.kind);
    message["State"] = state;
    message["Percent"] =
        static_cast<int>(progress.items == 0 ? 0 : std::min(progress.done, progress.items) * 100 / progress.items);
    return message;
}

} // namespace

Json::Value ParseObject(std::string_view text) {
    if (text.size() > kLongestText) {
        throw Json::RuntimeError("longer than " + std::to_string(kLongestText) + " bytes");
    }
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
        throw Json::RuntimeError("no JSON: " + errors);
    }
    if (!value.isObject()) {
        throw Json::RuntimeError("no JSON object");
    }
    return value;
}

StartParameters ParseStart(const std::string& text) {
    const Json::Value object = ParseObject(text);
    const Json::Value& items = object["OperationItems"];
    if (!items.isNull() && !items.isArray()) {
        throw Json::LogicError("OperationItems is no array");
    }
    StartParameters parameters;
    parameters.carryOut = object["OperationScene"].asInt() == 1;
    for (const Json::Value& item : items) {
        parameters.items.push_back(item.asString());
    }
    return parameters;
}

// ---- Outcome messages ----------------------------------------------------------------------------------------------

const char* NameOf(Kind kind) {
    return kind == Kind::Detection ? "detection" : "repair";
}

const char* NameOf(Outcome outcome) {
    constexpr const char* kNames[] = {"ok", "warning", "fault", "unknown", "would", "done"};
    return kNames[static_cast<std::size_t>(outcome)];
}

void Progress::Count(Outcome outcome) {
    const auto index = static_cast<std::size_t>(outcome);
    ++counts[index < counts.size() ? index : static_cast<std::size_t>(Outcome::Ok)];
    ++done;
}

Json::Value DescribeItem(const Progress& progress, const std::string& item, const Finding& finding, int eventId) {
    Json::Value message = Head(progress, "running");
    message["Item"] = item;
    message["Outcome"] = NameOf(finding.outcome);
    message["Text"] = finding.text;
    message["EventId"] = eventId;
    return message;
}

Json::Value DescribeEnd(const Progress& progress, bool cancelled) {
    Json::Value message = Head(progress, cancelled ? "cancelled" : "finished");
    constexpr const char* kNames[] = {"Ok", "Warning", "Fault", "Unknown"};
    for (std::size_t i = 0; i < progress.counts.size(); ++i) {
        message[kNames[i]] = progress.counts[i];
    }
    return message;
}

Json::Value DescribeRefusal(Kind kind, const std::string& why) {
    Progress none;
    none.kind = kind;
    Json::Value message = Head(none, "refused");
    message["Text"] = why;
    return message;
}

} // namespace Vantor::Sentrix::Diagnosis
