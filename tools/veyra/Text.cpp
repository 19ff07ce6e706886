#include "tools/veyra/Text.h"

#include "tools/support/Utf8.h"

#include <cstdint>

namespace Vantor::Sentrix::Tool {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

// The short escapes that C and JSON share; 0 when there is none.
char ShortEscape(char c) {
    switch (c) {
    case '"':
    case '\\':
        return c;
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\t':
        return 't';
    default:
        return 0;
    }
}

void AppendHexByte(std::string& to, char c) {
    to += kHexDigits[static_cast<unsigned char>(c) >> 4];
    to += kHexDigits[static_cast<unsigned char>(c) & 15];
}

bool IsControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

bool IsAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

} // namespace

std::string Quoted(std::string_view bytes) {
    std::string text = "\"";
    for (const char c : bytes) {
        if (const char escape = ShortEscape(c); escape != 0) {
            text += {'\\', escape};
        } else if (IsControl(c) || !IsAscii(c)) {
            text += "\\x";
            AppendHexByte(text, c);
        } else {
            text += c;
        }
    }
    return text + '"';
}

// The conversion replaces everything that is not UTF-8, so only UTF-8 comes back as it was.
bool IsUtf8(std::string_view bytes) {
    return Support::Utf8FromWide(Support::WideFromUtf8(bytes)) == bytes;
}

std::string JsonString(std::string_view text) {
    std::string json = "\"";
    for (const char c : text) {
        if (const char escape = ShortEscape(c); escape != 0) {
            json += {'\\', escape};
        } else if (IsControl(c)) {
            json += "\\u00";
            AppendHexByte(json, c);
        } else {
            json += c;
        }
    }
    return json + '"';
}

std::string Base64(std::string_view bytes) {
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (; !bytes.empty(); bytes.remove_prefix(bytes.size() < 3 ? bytes.size() : 3)) {
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            group = group << 8 | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            text += i <= bytes.size() ? kDigits[group >> (18 - 6 * i) & 63] : '=';
        }
    }
    return text;
}

} // namespace Vantor::Sentrix::Tool
