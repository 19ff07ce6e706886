// Wide strings and their UTF-16 form, whatever the width of wchar_t.
//
// Where a wchar_t has 16 bits a string is its units. Where it is wider, a unit pair of surrogates is one wchar_t, a
// lone surrogate is kept as it is in both directions, and a wchar_t that is no code point becomes U+FFFD.
#pragma once

#include <cstddef>
#include <string>

namespace Vantor::Sentrix {

// Calls put(char16_t) for every unit of the text.
template <class Put> void ForEachUtf16Unit(const std::wstring& text, Put put) {
    for (const wchar_t wide : text) {
        if constexpr (sizeof(wchar_t) == sizeof(char16_t)) {
            put(static_cast<char16_t>(wide));
        } else {
            const auto code = static_cast<char32_t>(wide);
            if (code < 0x10000) {
                put(static_cast<char16_t>(code));
            } else if (code > 0x10FFFF) {
                put(u'\uFFFD');
            } else {
                put(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
                put(static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF)));
            }
        }
    }
}

// The text of `count` units, got by calling unitAt(index).
template <class UnitAt> std::wstring WideFromUtf16(std::size_t count, UnitAt unitAt) {
    std::wstring text;
    text.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const char16_t unit = unitAt(i);
        if constexpr (sizeof(wchar_t) > sizeof(char16_t)) {
            if ((unit & 0xFC00) == 0xD800 && i + 1 < count) {
                const char16_t next = unitAt(i + 1);
                if ((next & 0xFC00) == 0xDC00) {
                    text.push_back(static_cast<wchar_t>(0x10000 + ((unit & 0x3FF) << 10) + (next & 0x3FF)));
                    ++i;
                    continue;
                }
            }
        }
        text.push_back(static_cast<wchar_t>(unit));
    }
    return text;
}

} // namespace Vantor::Sentrix
