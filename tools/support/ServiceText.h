// The texts that services and their clients exchange: JSON on one line, and a NUL at the end.
// Threads: any.
#pragma once

#include "veyrasvc/bus/IPCMessageExport.h"

#include <json/value.h>

#include <string>
#include <string_view>

namespace Vantor::Sentrix::Support {

std::string OneLine(const Json::Value& value);

// The body up to its NUL, or to its end when the sender forgot it; valid as long as the body.
std::string_view TextOf(const TagIPCMessageItem& item);

} // namespace Vantor::Sentrix::Support
