#include "veyrasvc/platform/posix/Utf8.h"

namespace Vantor::Sentrix::Platform {

namespace {

constexpr bool IsCharacter(char32_t value) {
    return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

void AppendUtf8(std::string& to, char32_t value) {
    if (value < 0x80) {
        to += static_cast<char>(value);
    } else if (value < 0x800) {
        to += static_cast<char>(0xC0 | (value >> 6));
        to += static_cast<char>(0x80 | (value & 0x3F));
    } else if (value < 0x10000) {
        to += static_cast<char>(0xE0 | (value >> 12));
        to += static_cast<char>(0x80 | ((value >> 6) & 0x3F));
        to += static_cast<char>(0x80 | (value & 0x3F));
    } else {
        to += static_cast<char>(0xF0 | (value >> 18));
        to += static_cast<char>(0x80 | ((value >> 12) & 0x3F));
        to += static_cast<char>(0x80 | ((value >> 6) & 0x3F));
        to += static_cast<char>(0x80 | (value & 0x3F));
    }
}

// How many bytes follow a first byte, its own bits of the character, and the least character of that length.
struct Lead {
    int following;
    char32_t bits;
    char32_t least;
};

Lead LeadOf(unsigned char byte) {
    if (byte < 0x80) {
        return {0, byte, 0};
    }
    if ((byte & 0xE0) == 0xC0) {
        return {1, byte & 0x1FU, 0x80};
    }
    if ((byte & 0xF0) == 0xE0) {
        return {2, byte & 0x0FU, 0x800};
    }
    if ((byte & 0xF8) == 0xF0) {
        return {3, byte & 0x07U, 0x10000};
    }
    return {-1, 0, 0};
}

// Takes one character from the front of the text.
bool TakeCharacter(std::string_view& text, char32_t& value) {
    const Lead lead = LeadOf(static_cast<unsigned char>(text[0]));
    const std::size_t length = static_cast<std::size_t>(lead.following) + 1; // not used when it is negative
    if (lead.following < 0 || text.size() < length) {
        return false;
    }
    value = lead.bits;
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80) {
            return false;
        }
        value = (value << 6) | (byte & 0x3FU);
    }
    text.remove_prefix(length);
    return value >= lead.least && IsCharacter(value);
}

} // namespace

bool WideToUtf8(std::wstring_view wide, std::string& utf8) {
    utf8.clear();
    for (const wchar_t unit : wide) {
        const auto value = static_cast<char32_t>(unit);
        if (!IsCharacter(value)) {
            utf8.clear();
            SetLastError(ERROR_INVALID_NAME);
            return false;
        }
        AppendUtf8(utf8, value);
    }
    return true;
}

bool Utf8ToWide(std::string_view utf8, std::wstring& wide) {
    wide.clear();
    while (!utf8.empty()) {
        char32_t value = 0;
        if (!TakeCharacter(utf8, value)) {
            wide.clear();
            SetLastError(ERROR_INVALID_NAME);
            return false;
        }
        wide += static_cast<wchar_t>(value);
    }
    return true;
}

} // namespace Vantor::Sentrix::Platform
