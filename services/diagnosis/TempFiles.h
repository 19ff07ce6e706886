// The repair of temp.files: old files in one folder are moved aside, from where they can be moved back.
#pragma once

#include "services/diagnosis/Finding.h"

#include <filesystem>

namespace Vantor::Sentrix::Diagnosis {

// Where a service looks that was told no other place.
std::filesystem::path DefaultTempFolder();

// Moves the files directly in the folder that are older than a week and belong to the account of this process into a
// new folder in it, removed-N, which the finding names; what lies deeper, and so what was moved before, links and
// everybody else's files stay. A folder that is a link or belongs to somebody else is left alone, for its owner could
// put anything in the way. Whatever fails or stops it, each file is in one of the two places. Without `carryOut`
// nothing changes.
// Threads: any.
Finding RepairTempFiles(const std::filesystem::path& folder, bool carryOut, const std::stop_token& stop);

} // namespace Vantor::Sentrix::Diagnosis
