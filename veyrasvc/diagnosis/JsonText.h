// JSON as the clients of the services exchange it: read with the library's defaults, written on one line.
#pragma once

#include "veyrasvc/util/LogStatement.h"

#include <json/value.h>

#include <optional>
#include <string>

namespace Vantor::Sentrix {

struct ParsedJson {
    Json::Value root;   // null as well when there was an error
    bool valid = false; // the whole text was read and the reader found nothing to say
    std::string errors; // what it said
};

ParsedJson ParseJson(const std::string& text);

// The text's value. Nothing, and a log line of the operation `where`: it is no JSON, or null.
std::optional<Json::Value> ReadJson(const std::string& text, const CallSite& where);
// The same for the text of a record, which an empty one is not.
std::optional<Json::Value> ReadRecord(const std::string& text, const CallSite& where);

std::string WriteJsonLine(const Json::Value& value);

} // namespace Vantor::Sentrix
