#include "veyrasvc/diagnosis/JsonText.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <sstream>

namespace Vantor::Sentrix {

ParsedJson ParseJson(const std::string& text) {
    ParsedJson parsed;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    try {
        const bool read = reader->parse(text.data(), text.data() + text.size(), &parsed.root, &parsed.errors);
        parsed.valid = read && parsed.errors.empty();
    } catch (const Json::Exception& exception) { // nested too deeply
        parsed.errors = exception.what();
    }
    return parsed;
}

std::optional<Json::Value> ReadJson(const std::string& text, const CallSite& where) {
    ParsedJson parsed = ParseJson(text);
    if (!parsed.valid) {
        LOG_ERROR_AT(where, "jsonStr[" << text << "] err. " << parsed.errors);
        return std::nullopt;
    }
    if (parsed.root.isNull()) {
        LOG_WARN_AT(where, "Null Json Value.");
        return std::nullopt;
    }
    return std::move(parsed.root);
}

std::optional<Json::Value> ReadRecord(const std::string& text, const CallSite& where) {
    if (text.empty()) {
        LOG_WARN_AT(where, "input jsonStr is empty.");
        return std::nullopt;
    }
    return ReadJson(text, where);
}

std::string WriteJsonLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    std::ostringstream text;
    writer->write(value, &text);
    return text.str();
}

} // namespace Vantor::Sentrix
