#include "veyrasvc/stream/DataStream.h"

#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <mutex>
#include <new>
#include <utility>

namespace Vantor::Sentrix {

namespace {

constexpr int kLengthBytes = sizeof(short);
constexpr std::size_t kLongestString = std::numeric_limits<short>::max();
constexpr int kMostElements = 5000;

// Wraps around: what is counted may be more than an int holds.
int Sum(int a, int b) {
    return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b));
}

// False when there was no memory for it.
template <class Append> bool WithinMemory(Append append) {
    try {
        append();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace

IOChannel::~IOChannel() = default;

IpcBufferBuild::IpcBufferBuild(void* buffer, unsigned int size, bool isRead)
    : m_size(size), m_begin(static_cast<char*>(buffer)), m_cursor(m_begin), m_isRead(isRead) {}

bool IpcBufferBuild::HasRoom(unsigned int length) const {
    // The cursor never passes the end, so that this cannot wrap around as a sum could.
    const unsigned int left = m_cursor == nullptr ? 0 : m_size - static_cast<unsigned int>(m_cursor - m_begin);
    return length <= left;
}

int IpcBufferBuild::Read(char* buffer, unsigned int length) {
    if (buffer == nullptr) {
        return static_cast<int>(length);
    }
    if (!m_isRead || !HasRoom(length)) {
        return -1;
    }
    std::copy_n(m_cursor, length, buffer);
    m_cursor += length;
    return static_cast<int>(length);
}

int IpcBufferBuild::Write(const char* buffer, unsigned int length) {
    if (buffer == nullptr) {
        return -1;
    }
    if (m_cursor == nullptr) {
        return static_cast<int>(length);
    }
    if (m_isRead || !HasRoom(length)) {
        return -1;
    }
    m_cursor = std::copy_n(buffer, length, m_cursor);
    return static_cast<int>(length);
}

IOStream::~IOStream() = default;

// Kept between reads, so that most strings need no allocation but their own.
struct DataStream::Scratch {
    std::mutex mutex;
    std::vector<char> bytes; // guarded by mutex
};

DataStream::DataStream(IOChannel* channel, bool swapBytes)
    : m_scratch(new (std::nothrow) Scratch), m_channel(channel), m_swapBytes(swapBytes) {}

DataStream::DataStream(const DataStream& other) : DataStream(other.m_channel, other.m_swapBytes) {}

DataStream& DataStream::operator=(const DataStream& other) {
    if (this != &other) { // the buffer stays everyone's own
        m_channel = other.m_channel;
        m_swapBytes = other.m_swapBytes;
    }
    return *this;
}

DataStream::~DataStream() = default;

template <class T> int DataStream::ReadValue(T& value) {
    if (m_channel == nullptr) {
        return 0;
    }
    std::array<char, sizeof(T)> bytes{};
    const int moved = m_channel->Read(bytes.data(), sizeof(T));
    if (m_swapBytes) {
        std::reverse(bytes.begin(), bytes.end());
    }
    value = std::bit_cast<T>(bytes);
    return moved;
}

template <class T> int DataStream::WriteValue(T value) {
    auto bytes = std::bit_cast<std::array<char, sizeof(T)>>(value);
    if (m_swapBytes) {
        std::reverse(bytes.begin(), bytes.end());
    }
    return Write(bytes.data(), sizeof(T));
}

int DataStream::Read(char* buffer, unsigned int length) {
    return m_channel == nullptr ? 0 : m_channel->Read(buffer, length);
}

int DataStream::ReadInt32() {
    int value = 0;
    ReadValue(value);
    return value;
}

int DataStream::ReadInt32(int& value) {
    return ReadValue(value);
}

short DataStream::ReadInt16() {
    short value = 0;
    ReadValue(value);
    return value;
}

int DataStream::ReadInt16(short& value) {
    return ReadValue(value);
}

float DataStream::ReadFloat() {
    float value = 0;
    ReadValue(value);
    return value;
}

int DataStream::ReadFloat(float& value) {
    return ReadValue(value);
}

double DataStream::ReadDouble() {
    double value = 0;
    ReadValue(value);
    return value;
}

int DataStream::ReadDouble(double& value) {
    return ReadValue(value);
}

char DataStream::ReadInt8() {
    char value = 0;
    ReadValue(value);
    return value;
}

int DataStream::ReadInt8(char& value) {
    return ReadValue(value);
}

std::int64_t DataStream::ReadInt64() {
    std::int64_t value = 0;
    ReadValue(value);
    return value;
}

int DataStream::ReadInt64(std::int64_t& value) {
    return ReadValue(value);
}

std::string DataStream::ReadString() {
    std::string value;
    ReadString(value);
    return value;
}

int DataStream::ReadString(std::string& value) {
    value.clear();
    if (m_scratch == nullptr) {
        return 0;
    }
    const short length = ReadInt16();
    if (length < 1) {
        return 0;
    }
    const std::lock_guard guard(m_scratch->mutex);
    auto& bytes = m_scratch->bytes;
    int moved = 0;
    const bool isRead = WithinMemory([&] {
        // Zeros, as under every other read: what a channel fails to deliver must not be text that was read before.
        bytes.assign(static_cast<std::size_t>(length), '\0');
        moved = Read(bytes.data(), static_cast<unsigned int>(length));
        value.append(bytes.data(), bytes.size());
    });
    return isRead ? Sum(moved, kLengthBytes) : -1;
}

int DataStream::ReadUtf8StringArray(std::vector<std::string>& values) {
    int count = 0;
    int total = ReadInt32(count);
    if (count > kMostElements) {
        LOG_ERROR("readPrimitiveTypes int32_t :" << count);
        return count;
    }
    // Nothing is reserved: the count may lie.
    for (int i = 0; i < count; ++i) {
        std::string value;
        const int moved = ReadString(value);
        if (moved < 0 || !WithinMemory([&] { values.push_back(std::move(value)); })) {
            break;
        }
        total = Sum(total, moved);
    }
    return total;
}

int DataStream::ReadLine(std::string& line) {
    line.clear();
    char next = 0;
    while (ReadInt8(next) > 0 && next != '\n' && WithinMemory([&] { line.push_back(next); })) {
    }
    return static_cast<int>(line.size());
}

int DataStream::Write(const char* buffer, unsigned int length) {
    return m_channel == nullptr ? 0 : m_channel->Write(buffer, length);
}

int DataStream::WriteInt32(int value) {
    return WriteValue(value);
}

int DataStream::WriteInt16(short value) {
    return WriteValue(value);
}

int DataStream::WriteFloat(float value) {
    return WriteValue(value);
}

int DataStream::WriteDouble(double value) {
    return WriteValue(value);
}

int DataStream::WriteInt8(char value) {
    return WriteValue(value);
}

int DataStream::WriteInt64(std::int64_t value) {
    return WriteValue(value);
}

int DataStream::WriteString(const std::string& value) {
    if (value.size() > kLongestString) {
        return -1;
    }
    WriteInt16(static_cast<short>(value.size()));
    return Sum(Write(value.data(), static_cast<unsigned int>(value.size())), kLengthBytes);
}

int DataStream::WriteUtf8StringArray(const std::vector<std::string>& values) {
    int total = WriteInt32(static_cast<int>(values.size()));
    for (const std::string& value : values) {
        const int moved = WriteString(value);
        if (moved < 0) {
            break;
        }
        total = Sum(total, moved);
    }
    return total;
}

int DataStream::WriteLine(const std::string& line) {
    Write(line.data(), static_cast<unsigned int>(line.size()));
    WriteInt8('\n');
    return static_cast<int>(line.size() + 1);
}

bool DataStream::GetSwapBytes() {
    return m_swapBytes;
}

void DataStream::SetSwapBytes(bool swapBytes) {
    m_swapBytes = swapBytes;
}

void DataStream::Flush() {}

NxIpcPackage::NxIpcPackage(IOChannel* channel) : m_dataStream(new (std::nothrow) DataStream(channel, false)) {}

NxIpcPackage::~NxIpcPackage() = default;
NxIpcPackage::NxIpcPackage(NxIpcPackage&& other) noexcept = default;
NxIpcPackage& NxIpcPackage::operator=(NxIpcPackage&& other) noexcept = default;

DataStream* NxIpcPackage::GetDataStream() {
    return m_dataStream.get();
}

int NxIpcPackage::PacketInt(int value) {
    return m_dataStream == nullptr ? 0 : m_dataStream->WriteInt32(value);
}

int NxIpcPackage::PacketUInt(unsigned int value) {
    return PacketInt(static_cast<int>(value));
}

int NxIpcPackage::PacketString(const std::string& value) {
    return m_dataStream == nullptr ? 0 : m_dataStream->WriteString(value);
}

int NxIpcPackage::UnpacketInt(int& value) {
    return m_dataStream == nullptr ? 0 : m_dataStream->ReadInt32(value);
}

int NxIpcPackage::UnpacketUInt(unsigned int& value) {
    if (m_dataStream == nullptr) {
        return 0;
    }
    int bits = 0;
    const int moved = m_dataStream->ReadInt32(bits);
    value = static_cast<unsigned int>(bits);
    return moved;
}

int NxIpcPackage::UnpacketString(std::string& value) {
    return m_dataStream == nullptr ? 0 : m_dataStream->ReadString(value);
}

} // namespace Vantor::Sentrix
