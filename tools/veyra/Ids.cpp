#include "tools/veyra/Ids.h"

#include "veyrasvc/platform/Win32.h"

#include <charconv>

namespace Vantor::Sentrix::Tool {

std::optional<std::uint32_t> ParseId(std::string_view text) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint32_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return id;
}

std::optional<IdRange> ParseIdRange(std::string_view text) {
    const std::size_t dash = text.find('-');
    const auto first = ParseId(text.substr(0, dash));
    const auto last = dash == std::string_view::npos ? first : ParseId(text.substr(dash + 1));
    if (!first || !last || *first > *last) {
        return std::nullopt;
    }
    return IdRange{*first, *last};
}

std::string HexId(std::uint32_t id) {
    char digits[8];
    const auto result = std::to_chars(digits, digits + sizeof digits, id, 16);
    return "0x" + std::string(digits, result.ptr);
}

std::uint32_t PassingModuleId() {
    constexpr std::uint32_t kRange = 0x7E000000;
    constexpr std::uint32_t kProcessIdBits = 0xFFFFFF;
    return kRange | (GetCurrentProcessId() & kProcessIdBits);
}

} // namespace Vantor::Sentrix::Tool
