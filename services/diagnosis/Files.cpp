#include "services/diagnosis/Files.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace Vantor::Sentrix::Diagnosis {

bool HasDriveLetters() {
    return GetLogicalDrives() != 0;
}

std::optional<std::string> ReadText(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(stream), {});
    return stream.is_open() && !stream.bad() ? std::optional(std::move(text)) : std::nullopt;
}

std::vector<DeviceLine> ReadLines(const std::filesystem::path& folder, const std::string& prefix,
                                  const std::filesystem::path& inner) {
    std::vector<DeviceLine> lines;
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        const auto text = name.starts_with(prefix) ? ReadText(entry->path() / inner) : std::nullopt;
        if (text && !text->empty()) {
            lines.push_back({name, text->substr(0, text->find('\n'))});
        }
    }
    std::sort(lines.begin(), lines.end(), [](const DeviceLine& a, const DeviceLine& b) { return a.name < b.name; });
    return lines;
}

} // namespace Vantor::Sentrix::Diagnosis
