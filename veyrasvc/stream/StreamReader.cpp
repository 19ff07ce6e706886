#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/stream/SpanStream.h"
#include "veyrasvc/stream/Utf16.h"
#include "veyrasvc/util/ByteOrder.h"
#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <new>
#include <typeinfo>
#include <utility>

namespace Vantor::Sentrix {

namespace {

// A string is taken from a stream in pieces of this size, so that a length that lies costs no more than what arrives
// and one piece, whose rest stays zeros. Even, so that no UTF-16 unit lies in two.
constexpr unsigned int kPieceBytes = 0x10000;
constexpr unsigned int kSkippedBytes = 512;

// Runs `fill`. What there is no memory for stays as it was, and a line in the log tells.
template <class Fill> void WithinMemory(Fill fill) {
    try {
        fill();
    } catch (const std::bad_alloc&) {
        LOG_ERROR("read buffer error!");
    }
}

void Skip(Stream& stream, unsigned int count) {
    char bytes[kSkippedBytes];
    while (count > 0) {
        const unsigned int skipped = stream.Read(bytes, std::min(count, kSkippedBytes));
        count = skipped == 0 ? 0 : count - skipped;
    }
}

std::string Joined(std::vector<std::string>& pieces) {
    if (pieces.size() == 1) {
        return std::move(pieces.front());
    }
    std::size_t size = 0;
    for (const std::string& piece : pieces) {
        size += piece.size();
    }
    std::string bytes;
    bytes.reserve(size);
    for (const std::string& piece : pieces) {
        bytes += piece;
    }
    return bytes;
}

std::wstring WideFromBytes(const char* bytes, std::size_t units) {
    return WideFromUtf16(units, [bytes](std::size_t i) {
        const auto high = static_cast<unsigned char>(bytes[2 * i]);
        const auto low = static_cast<unsigned char>(bytes[2 * i + 1]);
        return static_cast<char16_t>(high << 8 | low);
    });
}

} // namespace

StreamReader::~StreamReader() = default;

// The next bytes where they lie, if the stream is one that keeps them in memory and has them all. The two classes are
// recognised exactly: a class derived from MemoryrStream may have a Read of its own. Comparing the addresses can at
// worst miss a match, which only costs the copy.
const char* StreamReader::TakeInPlace(unsigned int count) {
    const std::type_info* type = &typeid(*m_stream);
    if (type == &typeid(SpanStream)) {
        return static_cast<SpanStream*>(m_stream)->TakeInPlace(count);
    }
    if (type == &typeid(MemoryrStream)) {
        auto* memory = static_cast<MemoryrStream*>(m_stream);
        return TakeBytes(memory->m_memory, memory->m_size, memory->m_position, count);
    }
    return nullptr;
}

// ReadBuffer that tells how much arrived.
unsigned int StreamReader::ReadCounted(void* buffer, unsigned int count) {
    const unsigned int arrived = m_stream->Read(buffer, count);
    if (arrived != count) {
        LOG_ERROR("read buffer error!");
    }
    return arrived;
}

// The stream is behind the bytes also when there is no memory for them.
std::string StreamReader::ReadBytes(unsigned int count) {
    if (const char* bytes = TakeInPlace(count)) {
        return {bytes, count};
    }
    std::vector<std::string> pieces;
    unsigned int left = count;
    try {
        for (bool isWhole = true; left > 0 && isWhole;) {
            const unsigned int wanted = std::min(left, kPieceBytes);
            std::string& piece = pieces.emplace_back(wanted, '\0');
            left -= wanted;
            isWhole = ReadCounted(piece.data(), wanted) == wanted;
        }
    } catch (const std::bad_alloc&) {
        Skip(*m_stream, left);
        throw;
    }
    return Joined(pieces);
}

bool StreamReader::ReadValue(unsigned int& value) {
    if (const char* bytes = TakeInPlace(sizeof value)) {
        value = LoadBigEndian32(bytes);
        return true;
    }
    char bytes[sizeof value] = {};
    const unsigned int arrived = ReadCounted(bytes, sizeof bytes);
    value = LoadBigEndian32(bytes);
    return arrived != 0;
}

bool StreamReader::ReadValue(int& value) {
    unsigned int bits = 0;
    const bool arrived = ReadValue(bits);
    value = static_cast<int>(bits);
    return arrived;
}

bool StreamReader::ReadValue(std::string& value) {
    int length = 0;
    const bool arrived = ReadValue(length);
    value.clear();
    if (length >= 1) {
        WithinMemory([&] { value = ReadBytes(static_cast<unsigned int>(length)); });
    }
    return arrived;
}

bool StreamReader::ReadValue(std::wstring& value) {
    int length = 0;
    const bool arrived = ReadValue(length);
    value.clear();
    if (length % 2 != 0) {
        LOG_ERROR("stream error");
    } else if (length >= 1) {
        const auto count = static_cast<unsigned int>(length);
        WithinMemory([&] {
            if (const char* bytes = TakeInPlace(count)) {
                value = WideFromBytes(bytes, count / 2);
            } else {
                const std::string copy = ReadBytes(count);
                value = WideFromBytes(copy.data(), copy.size() / 2);
            }
        });
    }
    return arrived;
}

int StreamReader::ReadInt() {
    return static_cast<int>(ReadUInt());
}

unsigned int StreamReader::ReadUInt() {
    unsigned int value = 0;
    ReadValue(value);
    return value;
}

std::int64_t StreamReader::ReadInt64() {
    return static_cast<std::int64_t>(ReadUInt64());
}

std::uint64_t StreamReader::ReadUInt64() {
    char bytes[sizeof(std::uint64_t)] = {};
    m_stream->ReadBuffer(bytes, sizeof bytes);
    return std::uint64_t{LoadBigEndian32(bytes)} << 32 | LoadBigEndian32(bytes + 4);
}

FILETIME StreamReader::ReadFileTime() {
    FILETIME value{};
    value.dwLowDateTime = ReadUInt();
    value.dwHighDateTime = ReadUInt();
    return value;
}

std::string StreamReader::ReadString() {
    std::string value;
    ReadValue(value);
    return value;
}

std::wstring StreamReader::ReadWString() {
    std::wstring value;
    ReadValue(value);
    return value;
}

// The announced number is only a promise: nothing is reserved for it, and the stream decides when it ends.
template <class T> void StreamReader::ReadElements(std::vector<T>& values) {
    WithinMemory([&] {
        T value{};
        for (unsigned int left = ReadUInt(); left > 0 && ReadValue(value); --left) {
            values.push_back(std::move(value));
        }
    });
}

template <class T> void StreamReader::ReadEntries(std::map<T, T>& values) {
    WithinMemory([&] {
        T key;
        T value;
        for (unsigned int left = ReadUInt(); left > 0 && ReadValue(key); --left) {
            ReadValue(value);
            values.insert_or_assign(std::move(key), std::move(value));
        }
    });
}

void StreamReader::Read(std::vector<int>& values) {
    ReadElements(values);
}

void StreamReader::Read(std::vector<unsigned int>& values) {
    ReadElements(values);
}

void StreamReader::Read(std::vector<std::string>& values) {
    ReadElements(values);
}

void StreamReader::Read(std::vector<std::wstring>& values) {
    ReadElements(values);
}

void StreamReader::Read(std::map<std::string, std::string>& values) {
    ReadEntries(values);
}

void StreamReader::Read(std::map<std::wstring, std::wstring>& values) {
    ReadEntries(values);
}

} // namespace Vantor::Sentrix
