#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <istream>
#include <memory>
#include <new>
#include <ostream>

namespace Vantor::Sentrix {

namespace {

constexpr unsigned int kTransferBytes = 0xF000;

// Zeroed, so that a source that delivers less than was promised never sends what lay on the heap.
std::unique_ptr<char[]> TransferBuffer() {
    return std::unique_ptr<char[]>(new (std::nothrow) char[kTransferBytes]());
}

} // namespace

std::int64_t Stream::GetSize() {
    const std::int64_t position = Seek(0, kFromCurrent);
    const std::int64_t size = Seek(0, kFromEnd);
    Seek(position, kFromStart);
    return size;
}

void Stream::SetSize(const std::int64_t /*newSize*/) {}

void Stream::ReadBuffer(void* buffer, unsigned int count) {
    if (buffer == nullptr || count == 0) {
        return;
    }
    if (Read(buffer, count) != count) {
        LOG_ERROR("read buffer error!");
    }
}

void Stream::WriteBuffer(const void* buffer, unsigned int count) {
    if (buffer == nullptr || count == 0) {
        return;
    }
    if (Write(buffer, count) != count) {
        LOG_ERROR("write buffer error!");
    }
}

std::int64_t Stream::CopyFrom(Stream& source, std::int64_t count) {
    const auto buffer = TransferBuffer();
    if (!buffer) {
        return 0;
    }
    if (count == 0) {
        source.SetPosition(0);
        count = source.GetSize();
    }
    if (count < 0) {
        return 0;
    }
    for (std::int64_t left = count; left > 0;) {
        const auto piece = static_cast<unsigned int>(std::min<std::int64_t>(left, kTransferBytes));
        source.ReadBuffer(buffer.get(), piece);
        WriteBuffer(buffer.get(), piece);
        left -= piece;
    }
    return count;
}

std::int64_t Stream::CopyFrom(std::istream& in) {
    const auto buffer = TransferBuffer();
    std::int64_t total = 0;
    while (buffer && !in.eof()) {
        in.read(buffer.get(), kTransferBytes);
        if (in.gcount() <= 0) {
            break;
        }
        WriteBuffer(buffer.get(), static_cast<unsigned int>(in.gcount()));
        total += in.gcount();
    }
    return total;
}

std::int64_t Stream::CopyTo(std::ostream& out) {
    const auto buffer = TransferBuffer();
    std::int64_t total = 0;
    while (buffer) {
        const unsigned int piece = Read(buffer.get(), kTransferBytes);
        if (piece == 0 || out.eof()) {
            break;
        }
        total += piece;
        out.write(buffer.get(), piece);
    }
    return total;
}

} // namespace Vantor::Sentrix
