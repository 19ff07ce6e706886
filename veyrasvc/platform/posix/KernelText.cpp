#include "veyrasvc/platform/posix/KernelText.h"

#include "veyrasvc/platform/posix/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr std::uint64_t kBytesPerKilobyte = 1024;

} // namespace

bool ReadWhole(const std::string& path, std::string& text) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char buffer[4096];
    ssize_t got = file.Valid() ? 1 : -1;
    while (got > 0 || (got < 0 && file.Valid() && errno == EINTR)) {
        got = read(file.Get(), buffer, sizeof buffer);
        text.append(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return got == 0;
}

std::uint64_t BytesOf(std::string_view text, std::string_view name) {
    const std::string label = std::string(name) + ":";
    auto at = text.find(label);
    while (at != std::string_view::npos && at != 0 && text[at - 1] != '\n') {
        at = text.find(label, at + 1);
    }
    return at == std::string_view::npos
               ? 0
               : std::strtoull(text.data() + at + label.size(), nullptr, 10) * kBytesPerKilobyte;
}

} // namespace Vantor::Sentrix::Platform
