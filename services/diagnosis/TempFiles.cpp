#include "services/diagnosis/TempFiles.h"

#include "services/diagnosis/Judgement.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/platform/Win32.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Diagnosis {

namespace {

namespace fs = std::filesystem;

// Nobody works for a week on a file in a folder for passing things.
constexpr std::chrono::hours kOld{7 * 24};

// The account of this process.
class OwnAccount {
public:
    OwnAccount() {
        HANDLE token = nullptr;
        if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) != FALSE) {
            DWORD needed = 0;
            m_known = GetTokenInformation(token, TokenUser, m_block, sizeof m_block, &needed) != FALSE;
            CloseHandle(token);
        }
    }

    bool Owns(const fs::path& path) const {
        PSID owner = nullptr;
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        std::wstring name = Support::WideFromUtf8(Support::Utf8FromPath(path)); // no such file when it is no UTF-8
        if (!m_known || GetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr,
                                              nullptr, nullptr, &descriptor) != ERROR_SUCCESS) {
            return false;
        }
        const bool same = EqualSid(owner, reinterpret_cast<const TOKEN_USER*>(m_block)->User.Sid) != FALSE;
        LocalFree(descriptor);
        return same;
    }

private:
    static constexpr std::size_t kRoomForUser = 256; // an account has at most 68 bytes, and 16 stand before it
    alignas(TOKEN_USER) unsigned char m_block[kRoomForUser];
    bool m_known = false;
};

struct Tally {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
    std::uint64_t stuck = 0; // could not be moved

    std::string Text() const {
        return std::to_string(files) + (files == 1 ? " file, " : " files, ") + ReadableSize(bytes);
    }
};

bool IsOldFile(const fs::directory_entry& entry) {
    std::error_code error;
    if (entry.symlink_status(error).type() != fs::file_type::regular) {
        return false;
    }
    const auto written = entry.last_write_time(error);
    return !error && fs::file_time_type::clock::now() - written > kOld;
}

// Where a repair puts what it takes: a folder of its own beside the files, and so in their file system. There a move is
// a renaming, which leaves the file in one place whatever happens, and overwrites nothing, for the folder is new.
class Aside {
public:
    explicit Aside(const fs::path& folder) : m_folder(folder) {}
    ~Aside() {
        if (!m_place.empty()) {
            std::error_code error;
            fs::remove(m_place, error); // an empty one; else this fails
        }
    }
    Aside(const Aside&) = delete;
    Aside& operator=(const Aside&) = delete;

    void Take(const fs::path& file, std::error_code& error) {
        if (m_place.empty()) {
            MakePlace(error);
        }
        if (!m_place.empty()) {
            fs::rename(file, m_place / file.filename(), error);
        }
    }
    // Empty: nothing was taken.
    const fs::path& Place() const { return m_place; }

private:
    void MakePlace(std::error_code& error) {
        for (int number = 1; m_place.empty(); ++number) {
            const fs::path place = m_folder / ("removed-" + std::to_string(number));
            if (fs::create_directory(place, error)) {
                m_place = place;
            } else if (error && error != std::errc::file_exists) {
                return;
            }
        }
    }

    const fs::path m_folder;
    fs::path m_place;
};

void Treat(const fs::directory_entry& entry, Aside* aside, Tally& tally) {
    std::error_code error;
    const std::uint64_t size = entry.file_size(error);
    if (!error && aside != nullptr) {
        aside->Take(entry.path(), error);
    }
    if (error == std::errc::no_such_file_or_directory) {
        return; // somebody else was faster
    }
    if (error) {
        ++tally.stuck;
        return;
    }
    ++tally.files;
    tally.bytes += size;
}

} // namespace

std::filesystem::path DefaultTempFolder() {
    std::error_code error;
    const fs::path folder = fs::temp_directory_path(error);
    return error ? fs::path() : folder / "veyra";
}

Finding RepairTempFiles(const fs::path& folder, bool carryOut, const std::stop_token& stop) {
    std::error_code error;
    const std::string name = Support::Utf8FromPath(folder);
    const fs::file_type type = fs::symlink_status(folder, error).type();
    if (type == fs::file_type::not_found) {
        return {Outcome::Ok, "there is no folder " + name};
    }
    const OwnAccount account;
    if (type != fs::file_type::directory || !account.Owns(folder)) {
        return {Outcome::Warning, name + " is no folder of the service's own account; nothing was touched"};
    }
    Aside aside(folder);
    Tally tally;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator() && !stop.stop_requested(); entry.increment(error)) {
        if (IsOldFile(*entry) && account.Owns(entry->path())) {
            Treat(*entry, carryOut ? &aside : nullptr, tally);
        }
    }
    const std::string where = carryOut ? Support::Utf8FromPath(aside.Place()) : "a folder in it";
    const std::string text = (carryOut ? "moved " : "would move ") + tally.Text() + ", from " + name + " to " + where;
    if (error || tally.stuck != 0) {
        return {Outcome::Warning,
                (tally.files == 0 ? "" : text + "; ") + "not all of " + name + " can be read and moved"};
    }
    if (tally.files == 0) {
        return {Outcome::Ok, "nothing to move in " + name};
    }
    return {carryOut ? Outcome::Done : Outcome::Would, text};
}

} // namespace Vantor::Sentrix::Diagnosis
