// Files of the system, read leniently: what is not there is not told.
#pragma once

#include "services/diagnosis/Judgement.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Diagnosis {

// True on a system that names its drives by letters; the kernel tells nothing in files there.
bool HasDriveLetters();

std::optional<std::string> ReadText(const std::filesystem::path& file);

// The first line of FOLDER/*/INNER for every entry whose name begins with `prefix` and that has such a file.
std::vector<DeviceLine> ReadLines(const std::filesystem::path& folder, const std::string& prefix,
                                  const std::filesystem::path& inner);

} // namespace Vantor::Sentrix::Diagnosis
