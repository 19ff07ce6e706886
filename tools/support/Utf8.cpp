#include "tools/support/Utf8.h"

#include <cstddef>
#include <cstdint>

namespace Vantor::Sentrix::Support {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kFirstBeyondUnit = 0x10000; // characters from here on are two UTF-16 units
constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;

bool IsLeadSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

bool IsTrailSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

bool IsCharacter(char32_t value) {
    return value <= 0x10FFFF && !IsLeadSurrogate(value) && !IsTrailSurrogate(value);
}

// Reads one character at `at` and moves past it; past one byte only when the bytes are no character.
char32_t NextFromUtf8(std::string_view text, std::size_t& at) {
    const auto lead = static_cast<unsigned char>(text[at++]);
    if (lead < 0x80) {
        return lead;
    }
    const std::size_t following = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    constexpr char32_t kLeast[] = {0, 0x80, 0x800, kFirstBeyondUnit};
    if (lead < 0xC0 || lead > 0xF7 || text.size() - at < following) {
        return kReplacement;
    }
    char32_t value = lead & (0x3FU >> following);
    for (std::size_t i = 0; i < following; ++i) {
        const auto byte = static_cast<unsigned char>(text[at + i]);
        if ((byte & 0xC0U) != 0x80) {
            return kReplacement;
        }
        value = (value << 6) | (byte & 0x3FU);
    }
    if (value < kLeast[following] || !IsCharacter(value)) {
        return kReplacement;
    }
    at += following;
    return value;
}

void AppendUtf8(std::string& to, char32_t value) {
    const auto tail = [value](int shift) { return static_cast<char>(0x80 | ((value >> shift) & 0x3F)); };
    if (value < 0x80) {
        to += static_cast<char>(value);
    } else if (value < 0x800) {
        to += {static_cast<char>(0xC0 | (value >> 6)), tail(0)};
    } else if (value < kFirstBeyondUnit) {
        to += {static_cast<char>(0xE0 | (value >> 12)), tail(6), tail(0)};
    } else {
        to += {static_cast<char>(0xF0 | (value >> 18)), tail(12), tail(6), tail(0)};
    }
}

// Reads one character at `at`, a surrogate pair included, and moves past it.
char32_t NextFromWide(std::wstring_view text, std::size_t& at) {
    const auto unit = static_cast<char32_t>(text[at++]);
    if (kWideIsUtf16 && IsLeadSurrogate(unit) && at < text.size() &&
        IsTrailSurrogate(static_cast<char32_t>(text[at]))) {
        const auto trail = static_cast<char32_t>(text[at++]);
        return kFirstBeyondUnit + ((unit - 0xD800) << 10) + (trail - 0xDC00);
    }
    return IsCharacter(unit) ? unit : kReplacement;
}

// Of the two forms in which a system keeps its file names, the one of this system is chosen. The standard library's
// own conversion throws for names that are no proper text, which anybody may give to a file.
[[maybe_unused]] std::string Utf8FromNative(const std::wstring& name) {
    return Utf8FromWide(name);
}
[[maybe_unused]] std::string Utf8FromNative(const std::string& name) {
    return name;
}

} // namespace

std::wstring WideFromUtf8(std::string_view text) {
    std::wstring wide;
    wide.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const char32_t value = NextFromUtf8(text, at);
        if (kWideIsUtf16 && value >= kFirstBeyondUnit) {
            wide += static_cast<wchar_t>(0xD800 + ((value - kFirstBeyondUnit) >> 10));
            wide += static_cast<wchar_t>(0xDC00 + (value & 0x3FF));
        } else {
            wide += static_cast<wchar_t>(value);
        }
    }
    return wide;
}

std::string Utf8FromWide(std::wstring_view text) {
    std::string narrow;
    narrow.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        AppendUtf8(narrow, NextFromWide(text, at));
    }
    return narrow;
}

std::filesystem::path PathFromUtf8(std::string_view text) {
    return std::u8string(text.begin(), text.end());
}

std::string Utf8FromPath(const std::filesystem::path& path) {
    return Utf8FromNative(path.native());
}

} // namespace Vantor::Sentrix::Support
