// One line for each thing that arrives at a listening module.
// Threads: any.
#pragma once

#include "veyrasvc/bus/IPCMessageExport.h"

#include <string>

namespace Vantor::Sentrix::Tool {

enum class ArrivalKind { Message, Publication };

// `file` names where the body was stored; empty: the body stands in the line. The line has its line end.
std::string DescribeArrival(ArrivalKind kind, const TagIPCMessageItem& item, const std::string& file);
std::string DescribeArrivalAsJson(ArrivalKind kind, const TagIPCMessageItem& item, const std::string& file);

} // namespace Vantor::Sentrix::Tool
