// The outcome messages of an analysis.
#pragma once

#include "services/crashdump/DumpFolder.h"
#include "services/crashdump/DumpHeader.h"

#include <json/value.h>

#include <cstddef>

namespace Vantor::Sentrix::CrashDump {

struct Progress {
    std::size_t all = 0;
    std::size_t analysed = 0;
    std::size_t unreadable = 0;
};

// `progress`: the dump of the message counts already.
Json::Value DescribeDump(const DumpFile& file, const DumpHeader& header, const Progress& progress);
// The last message. `unread`: places of which nothing is known.
Json::Value DescribeEnd(bool cancelled, const Progress& progress, const std::vector<std::filesystem::path>& unread);
Json::Value DescribeRefusal(const std::string& why);

} // namespace Vantor::Sentrix::CrashDump
