#include "tools/support/ServiceText.h"

#include <json/writer.h>

namespace Vantor::Sentrix::Support {

std::string OneLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string_view TextOf(const TagIPCMessageItem& item) {
    if (item.data == nullptr || item.dataLen < 1) {
        return {};
    }
    const std::string_view body(item.data, static_cast<std::size_t>(item.dataLen));
    return body.substr(0, body.find('\0'));
}

} // namespace Vantor::Sentrix::Support
