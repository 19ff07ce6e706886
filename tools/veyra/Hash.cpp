// veyra hash: the digests of files, in the form that md5sum and sha256sum write and check.
#include "tools/support/StandardIo.h"
#include "tools/support/Utf8.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"
#include "veyrasvc/platform/Win32.h"
#include "veyrasvc/stream/HashUtils.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <optional>

namespace Vantor::Sentrix::Tool {

namespace {

constexpr DWORD kPieceBytes = 1 << 20;
constexpr std::chrono::milliseconds kProgressInterval(500);
constexpr std::int64_t kMiB = 1 << 20;

struct HashOptions {
    std::vector<std::string> files;
    bool sha256 = false;
};

struct Input {
    std::string name; // as it was given; "-" is standard input
    HANDLE handle;
};

// ---- What is said --------------------------------------------------------------------------------------------------

// A name stays on its line: what would break it is escaped, and a backslash at the start of the line says so.
std::string EscapedName(const std::string& name) {
    std::string text;
    for (const char c : name) {
        switch (c) {
        case '\\':
            text += "\\\\";
            break;
        case '\n':
            text += "\\n";
            break;
        case '\r':
            text += "\\r";
            break;
        default:
            text += c;
        }
    }
    return text;
}

std::string HashLine(const std::string& digits, const std::string& name) {
    const std::string text = EscapedName(name);
    return (text == name ? "" : "\\") + digits + "  " + text + '\n';
}

std::string Reason(DWORD error) {
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
        return "there is no such file";
    case ERROR_ACCESS_DENIED:
        return "it is a folder, or access to it is denied";
    case ERROR_SHARING_VIOLATION:
        return "another program keeps it to itself";
    default:
        return "error " + std::to_string(error);
    }
}

void SayUnreadable(const std::string& name, DWORD error) {
    Say((name == "-" ? "standard input" : "'" + EscapedName(name) + "'") + " cannot be read: " + Reason(error));
}

// A line that counts, for somebody who watches; in a log it would be rubbish. Gone when the object is.
class Progress {
public:
    explicit Progress(const Input& input)
        : m_shows(GetFileType(GetStdHandle(STD_ERROR_HANDLE)) == FILE_TYPE_CHAR), m_name(EscapedName(input.name)) {
        const LARGE_INTEGER nowhere{};
        LARGE_INTEGER at{};
        LARGE_INTEGER end{};
        if (m_shows && GetFileType(input.handle) == FILE_TYPE_DISK &&
            SetFilePointerEx(input.handle, nowhere, &at, FILE_CURRENT) != FALSE &&
            SetFilePointerEx(input.handle, nowhere, &end, FILE_END) != FALSE &&
            SetFilePointerEx(input.handle, at, nullptr, FILE_BEGIN) != FALSE) {
            m_size = end.QuadPart - at.QuadPart;
        }
    }
    ~Progress() { Show(""); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Note(std::int64_t bytes) {
        m_done += bytes;
        const auto now = std::chrono::steady_clock::now();
        if (m_shows && now >= m_next) {
            m_next = now + kProgressInterval;
            Show("veyra: " + m_name + ": " + std::to_string(m_done / kMiB) + " MiB" + Share());
        }
    }

private:
    std::string Share() const {
        return m_size > 0 ? ", " + std::to_string(std::min(m_done, m_size) * 100 / m_size) + " %" : "";
    }

    // In place of what stands there.
    void Show(const std::string& line) {
        if (m_shown > 0 || !line.empty()) {
            Support::WriteTalk('\r' + std::string(m_shown, ' ') + '\r' + line);
        }
        m_shown = line.size();
    }

    const bool m_shows;
    const std::string m_name;
    std::int64_t m_size = 0; // 0: not known
    std::int64_t m_done = 0;
    std::size_t m_shown = 0;
    std::chrono::steady_clock::time_point m_next = std::chrono::steady_clock::now() + kProgressInterval;
};

// ---- What is done --------------------------------------------------------------------------------------------------

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;

// Of the two forms in which a system keeps its file names, the one of this system is chosen.
[[maybe_unused]] HANDLE OpenNative(const std::wstring& path) {
    return CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}
[[maybe_unused]] HANDLE OpenNative(const std::string& path) {
    return CreateFileA(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Hashes what is left to read. The error that ended it; NO_ERROR is the end of the file.
DWORD HashAll(const Input& input, CryptBase& hash) {
    Progress progress(input);
    std::vector<char> piece(kPieceBytes);
    for (;;) {
        DWORD count = 0;
        if (ReadFile(input.handle, piece.data(), kPieceBytes, &count, nullptr) == FALSE) {
            const DWORD error = GetLastError();
            return error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF ? NO_ERROR : error; // the end of a pipe
        }
        if (count == 0) {
            return NO_ERROR;
        }
        hash.Update(piece.data(), count);
        progress.Note(count);
    }
}

// Fails: nothing; the user has been told.
std::optional<std::string> DigitsOf(const Input& input, bool sha256) {
    CryptBase hash(sha256 ? CALG_SHA_256 : CALG_MD5, sha256 ? 32 : 16);
    hash.Init();
    if (const DWORD error = HashAll(input, hash); error != NO_ERROR) {
        SayUnreadable(input.name, error);
        return std::nullopt;
    }
    std::string digest(sha256 ? 32 : 16, '\0');
    hash.Final(reinterpret_cast<unsigned char*>(digest.data()));
    if (digest.find_first_not_of('\0') == std::string::npos) { // the library's sign for a hash that was never made
        Say(std::string("this system does not compute ") + (sha256 ? "SHA-256" : "MD5"));
        return std::nullopt;
    }
    std::string digits;
    CryptMD5::BytesToHexString(digest, digits);
    return digits;
}

bool HashOne(const std::string& name, bool sha256) {
    const bool isFile = name != "-";
    const Input input{name, isFile ? OpenNative(Support::PathFromUtf8(name).native()) : GetStdHandle(STD_INPUT_HANDLE)};
    if (input.handle == INVALID_HANDLE_VALUE) {
        SayUnreadable(name, GetLastError());
        return false;
    }
    const auto digits = DigitsOf(input, sha256);
    if (isFile) {
        CloseHandle(input.handle);
    }
    return digits && Support::WriteOutput(HashLine(*digits, name));
}

int Hash(const HashOptions& options) {
    bool allDone = true;
    for (const std::string& name : options.files) {
        allDone = HashOne(name, options.sha256) && allDone;
    }
    return allDone ? kDone : kFailed;
}

} // namespace

Verb AddHash(CLI::App& program) {
    auto options = std::make_shared<HashOptions>();
    options->files = {"-"};
    CLI::App* command = program.add_subcommand("hash", "Print the MD5 of files, as md5sum does in upper case");
    command->add_option("file", options->files, "Files; - is standard input, as is none at all")->type_name("FILE");
    command->add_flag("--sha256", options->sha256, "SHA-256 instead");
    return {command, [options] { return Hash(*options); }};
}

} // namespace Vantor::Sentrix::Tool
