#include "tools/support/StandardIo.h"

#include "tools/support/Utf8.h"
#include "veyrasvc/platform/Win32.h"

#include <algorithm>
#include <fstream>

namespace Vantor::Sentrix::Support {

namespace {

constexpr std::size_t kPiece = 1 << 20;

bool WriteAll(DWORD stream, std::string_view bytes) {
    const HANDLE handle = GetStdHandle(stream);
    while (!bytes.empty()) {
        DWORD written = 0;
        if (WriteFile(handle, bytes.data(), static_cast<DWORD>(std::min(bytes.size(), kPiece)), &written, nullptr) ==
                FALSE ||
            written == 0) {
            return false;
        }
        bytes.remove_prefix(written);
    }
    return true;
}

} // namespace

Utf8Console::Utf8Console() : m_before(GetConsoleOutputCP()) {
    if (m_before != 0) {
        SetConsoleOutputCP(CP_UTF8);
    }
}

Utf8Console::~Utf8Console() {
    if (m_before != 0) {
        SetConsoleOutputCP(m_before);
    }
}

bool WriteOutput(std::string_view bytes) {
    return WriteAll(STD_OUTPUT_HANDLE, bytes);
}

void WriteTalk(std::string_view text) {
    WriteAll(STD_ERROR_HANDLE, text);
}

std::optional<std::string> ReadInput(std::size_t limit) {
    const HANDLE handle = GetStdHandle(STD_INPUT_HANDLE);
    std::string bytes;
    for (;;) {
        const std::size_t held = bytes.size();
        bytes.resize(held + kPiece);
        DWORD count = 0;
        if (ReadFile(handle, bytes.data() + held, kPiece, &count, nullptr) == FALSE) {
            const DWORD error = GetLastError();
            if (error != ERROR_BROKEN_PIPE && error != ERROR_HANDLE_EOF) { // these two are the end of a pipe
                return std::nullopt;
            }
            count = 0;
        }
        bytes.resize(held + count);
        if (bytes.size() > limit) {
            return std::nullopt;
        }
        if (count == 0) {
            return bytes;
        }
    }
}

std::optional<std::string> ReadFileBytes(const std::string& path, std::size_t limit) {
    std::ifstream file(PathFromUtf8(path), std::ios::binary | std::ios::ate);
    const std::streamoff size = file.tellg();
    if (!file || size < 0 || static_cast<std::size_t>(size) > limit) {
        return std::nullopt;
    }
    std::string bytes(static_cast<std::size_t>(size), '\0');
    file.seekg(0);
    file.read(bytes.data(), size);
    return file.gcount() == size ? std::optional(std::move(bytes)) : std::nullopt;
}

bool WriteFileBytes(const std::string& path, std::string_view bytes) {
    std::ofstream file(PathFromUtf8(path), std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    return file.good();
}

} // namespace Vantor::Sentrix::Support
