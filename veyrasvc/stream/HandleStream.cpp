#include "veyrasvc/stream/FileHandle.h"
#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/util/LogStatement.h"

namespace Vantor::Sentrix {

static_assert(Stream::kFromStart == FILE_BEGIN && Stream::kFromCurrent == FILE_CURRENT && Stream::kFromEnd == FILE_END,
              "an origin is handed to the system as it is");

unsigned int HandleStream::Read(void* buffer, unsigned int count) {
    if (buffer == nullptr) {
        return 0;
    }
    const std::int64_t moved = ReadFileHandle(m_handle, buffer, count);
    return moved < 0 ? 0 : static_cast<unsigned int>(moved);
}

unsigned int HandleStream::Write(const void* buffer, unsigned int count) {
    if (buffer == nullptr) {
        return 0;
    }
    const std::int64_t moved = WriteFileHandle(m_handle, buffer, count);
    return moved < 0 ? 0 : static_cast<unsigned int>(moved);
}

std::int64_t HandleStream::Seek(std::int64_t offset, int origin) {
    return SeekFileHandle(m_handle, offset, origin);
}

void HandleStream::SetSize(const std::int64_t newSize) {
    // -1 would pass for the position that a failed seek returns.
    if (newSize < 0 || Seek(newSize, kFromStart) != newSize || SetEndOfFile(m_handle) == FALSE) {
        LOG_ERROR("set stream size failed!");
    }
}

bool HandleStream::IsValid() {
    return m_handle != INVALID_HANDLE_VALUE;
}

FileStream::FileStream(const std::string& name, std::uint16_t mode) : HandleStream(OpenFileHandle(name, mode)) {}

FileStream::FileStream(const std::wstring& name, std::uint16_t mode) : HandleStream(OpenFileHandle(name, mode)) {}

FileStream::~FileStream() {
    if (m_handle != INVALID_HANDLE_VALUE) {
        CloseFileHandle(m_handle);
    }
}

} // namespace Vantor::Sentrix
