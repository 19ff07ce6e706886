#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/stream/StringStream.h"
#include "veyrasvc/stream/Utf16.h"
#include "veyrasvc/util/ByteOrder.h"
#include "veyrasvc/util/LogStatement.h"

#include <charconv>
#include <memory>
#include <new>

namespace Vantor::Sentrix {

namespace {

constexpr std::size_t kTooManyUnits = 0x40000000;
constexpr std::size_t kShortText = 256;   // bytes that need no allocation
constexpr std::size_t kLongestFloat = 64; // 39 digits of the largest, point, six decimals, sign
constexpr int kFloatDecimals = 6;

template <class Container> unsigned int CountOf(const Container& values) {
    return static_cast<unsigned int>(values.size());
}

template <class T> void WriteElements(StreamWriter& writer, const std::vector<T>& values) {
    writer.Write(CountOf(values));
    for (const T& value : values) {
        writer.Write(value);
    }
}

template <class T> void WriteEntries(StreamWriter& writer, const std::map<T, T>& values) {
    writer.Write(CountOf(values));
    for (const auto& [key, value] : values) {
        writer.Write(key);
        writer.Write(value);
    }
}

template <class Container> std::string Serialized(const Container& values) {
    try {
        std::string bytes;
        StringStream stream(bytes);
        StreamWriter(&stream).Write(values);
        return bytes;
    } catch (const std::bad_alloc&) {
        LOG_ERROR("write buffer error!");
        return {};
    }
}

} // namespace

StreamWriter::~StreamWriter() = default;

void StreamWriter::Write(int value) {
    Write(static_cast<unsigned int>(value));
}

void StreamWriter::Write(unsigned int value) {
    char bytes[sizeof value];
    StoreBigEndian32(bytes, value);
    m_stream->WriteBuffer(bytes, sizeof bytes);
}

void StreamWriter::Write(std::int64_t value) {
    Write(static_cast<std::uint64_t>(value));
}

void StreamWriter::Write(std::uint64_t value) {
    char bytes[sizeof value];
    StoreBigEndian32(bytes, static_cast<std::uint32_t>(value >> 32));
    StoreBigEndian32(bytes + 4, static_cast<std::uint32_t>(value));
    m_stream->WriteBuffer(bytes, sizeof bytes);
}

void StreamWriter::Write(float value) {
    // Not printf: its decimal point follows the locale of the process, and the reader may run in another one.
    char text[kLongestFloat];
    const auto end =
        std::to_chars(text, text + sizeof text, static_cast<double>(value), std::chars_format::fixed, kFloatDecimals);
    const auto length = static_cast<unsigned int>(end.ptr - text);
    Write(length);
    m_stream->WriteBuffer(text, length);
}

void StreamWriter::Write(const FILETIME& value) {
    Write(static_cast<unsigned int>(value.dwLowDateTime));
    Write(static_cast<unsigned int>(value.dwHighDateTime));
}

void StreamWriter::Write(const std::string& value) {
    Write(CountOf(value));
    m_stream->WriteBuffer(value.data(), CountOf(value));
}

void StreamWriter::Write(const std::wstring& value) {
    std::size_t units = 0;
    ForEachUtf16Unit(value, [&units](char16_t /*unit*/) { ++units; });
    if (units >= kTooManyUnits) {
        return;
    }
    const auto length = static_cast<unsigned int>(units * sizeof(char16_t));
    char shortText[kShortText];
    const std::unique_ptr<char[]> longText(length > kShortText ? new (std::nothrow) char[length] : nullptr);
    char* const bytes = longText ? longText.get() : shortText;
    if (length > kShortText && !longText) {
        LOG_ERROR("write buffer error!");
        return;
    }
    ForEachUtf16Unit(value, [next = bytes](char16_t unit) mutable {
        *next++ = static_cast<char>(unit >> 8);
        *next++ = static_cast<char>(unit & 0xFF);
    });
    Write(length);
    m_stream->WriteBuffer(bytes, length);
}

void StreamWriter::Write(const std::vector<int>& values) {
    WriteElements(*this, values);
}

void StreamWriter::Write(const std::vector<unsigned int>& values) {
    WriteElements(*this, values);
}

void StreamWriter::Write(const std::vector<std::string>& values) {
    WriteElements(*this, values);
}

void StreamWriter::Write(const std::vector<std::wstring>& values) {
    WriteElements(*this, values);
}

void StreamWriter::Write(const std::map<std::string, std::string>& values) {
    WriteEntries(*this, values);
}

void StreamWriter::Write(const std::map<std::wstring, std::wstring>& values) {
    WriteEntries(*this, values);
}

std::string SerializeToString(const std::map<std::string, std::string>& values) {
    return Serialized(values);
}

std::string SerializeToString(const std::map<std::wstring, std::wstring>& values) {
    return Serialized(values);
}

std::string SerializeToString(const std::vector<std::string>& values) {
    return Serialized(values);
}

std::string SerializeToString(const std::vector<std::wstring>& values) {
    return Serialized(values);
}

} // namespace Vantor::Sentrix
