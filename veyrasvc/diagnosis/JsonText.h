// JSON as the clients of the services exchange it: read with the library's defaults, written on one line.
#pragma once

#include <json/value.h>

#include <optional>
#include <source_location>
#include <string>

namespace Vantor::Sentrix {

// Log lines of a helper name the operation that it serves: whoever calls it, by default.
using CallSite = std::source_location;

struct ParsedJson {
    Json::Value root;   // null as well when there was an error
    bool valid = false; // the whole text was read and the reader found nothing to say
    std::string errors; // what it said
};

ParsedJson ParseJson(const std::string& text);

// The text's value. Nothing, and a log line: it is no JSON, or null.
std::optional<Json::Value> ReadJson(const std::string& text, CallSite where = CallSite::current());

std::string WriteJsonLine(const Json::Value& value);

} // namespace Vantor::Sentrix
