#include "services/crashdump/DumpFolder.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <system_error>
#include <tuple>

namespace Vantor::Sentrix::CrashDump {

namespace fs = std::filesystem;

namespace {

// Where paths are wide strings, the system is Windows.
constexpr bool kOnWindows = sizeof(fs::path::value_type) != 1;

// The beginning of 1970 on the clock of the files, which each C++ library chooses for itself.
std::chrono::seconds FileClockEpoch() {
    using namespace std::chrono;
    static const seconds epoch =
        round<seconds>(duration_cast<milliseconds>(system_clock::now().time_since_epoch()) -
                       duration_cast<milliseconds>(fs::file_time_type::clock::now().time_since_epoch()));
    return epoch;
}

std::int64_t SecondsSince1970(fs::file_time_type time) {
    return (std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()) + FileClockEpoch()).count();
}

// Equal times are told apart by name, so that two listings agree.
bool IsNewer(const DumpFile& a, const DumpFile& b) {
    return std::tie(b.time, a.path) < std::tie(a.time, b.path);
}

// Adds the file unless it is none, or has gone meanwhile.
void Add(const fs::directory_entry& entry, std::vector<DumpFile>& files) {
    std::error_code error;
    if (!fs::is_regular_file(entry.symlink_status(error))) {
        return;
    }
    DumpFile file;
    file.path = entry.path();
    file.size = entry.file_size(error);
    if (!error) {
        file.time = SecondsSince1970(entry.last_write_time(error));
    }
    if (!error) {
        files.push_back(std::move(file));
    }
    // Half of them go at once, so that each costs little.
    if (files.size() >= 2 * kMostDumps) {
        std::nth_element(files.begin(), files.begin() + kMostDumps, files.end(), IsNewer);
        files.resize(kMostDumps);
    }
}

// False when the place cannot be read.
bool AddAll(const DumpPlace& place, std::vector<DumpFile>& files) {
    std::error_code error;
    const fs::file_status status = fs::status(place.path, error);
    if (!fs::exists(status)) {
        return status.type() == fs::file_type::not_found && place.mayBeAbsent;
    }
    if (!fs::is_directory(status)) {
        Add(fs::directory_entry(place.path, error), files);
        return fs::is_regular_file(status);
    }
    fs::directory_iterator at(place.path, error);
    while (!error && at != fs::directory_iterator()) {
        Add(*at, files);
        at.increment(error);
    }
    return !error;
}

} // namespace

std::vector<DumpPlace> SystemDumpPlaces() {
    if (!kOnWindows) {
        return {{"/var/crash", true}, {"/var/lib/systemd/coredump", true}};
    }
    const char* root = std::getenv("SystemRoot"); // NOLINT(concurrency-mt-unsafe): nobody changes it
    const fs::path windows(root != nullptr ? root : "C:\\Windows");
    return {{windows / "Minidump", true}, {windows / "MEMORY.DMP", true}};
}

DumpListing ListDumps(const std::vector<DumpPlace>& places) {
    DumpListing listing;
    for (const DumpPlace& place : places) {
        if (!AddAll(place, listing.files)) {
            listing.unread.push_back(place.path);
        }
    }
    std::sort(listing.files.begin(), listing.files.end(), IsNewer);
    listing.files.resize(std::min(listing.files.size(), kMostDumps));
    return listing;
}

} // namespace Vantor::Sentrix::CrashDump
