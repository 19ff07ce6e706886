// Where the system leaves its crash dumps, and which are there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Vantor::Sentrix::CrashDump {

// The newest so many are told; a folder that somebody fills without end costs no memory without end.
inline constexpr std::size_t kMostDumps = 10000;

// A folder whose files are dumps, or one file.
struct DumpPlace {
    std::filesystem::path path;
    bool mayBeAbsent = false; // then its absence only means that no dump was ever written
};

std::vector<DumpPlace> SystemDumpPlaces();

struct DumpFile {
    std::filesystem::path path;
    std::uint64_t size = 0;
    std::int64_t time = 0; // of the last change, seconds since 1970
};

struct DumpListing {
    std::vector<DumpFile> files;               // newest first
    std::vector<std::filesystem::path> unread; // places that could not be read
};

// Folders within a folder, symbolic links and devices are no dumps. Threads: any.
DumpListing ListDumps(const std::vector<DumpPlace>& places);

} // namespace Vantor::Sentrix::CrashDump
