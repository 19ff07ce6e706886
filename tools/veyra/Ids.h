// Module and message ids as people write them: decimal, or hexadecimal after 0x.
// Threads: any.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vantor::Sentrix::Tool {

struct IdRange {
    std::uint32_t first;
    std::uint32_t last; // inclusive
};

// Fails: nothing when the text is anything but one number of at most 32 bits.
std::optional<std::uint32_t> ParseId(std::string_view text);

// ID or FIRST-LAST.
std::optional<IdRange> ParseIdRange(std::string_view text);

std::string HexId(std::uint32_t id);
inline std::string HexId(std::int32_t id) {
    return HexId(static_cast<std::uint32_t>(id));
}

// Messages with the ids 0 and 0xFFFFFFFF are never delivered to anybody.
constexpr bool IsDeliverable(std::uint32_t messageId) {
    return messageId != 0 && messageId != 0xFFFFFFFF;
}

// A module id for a program that nobody has to know: made from the process id, in a range of its own.
std::uint32_t PassingModuleId();

} // namespace Vantor::Sentrix::Tool
