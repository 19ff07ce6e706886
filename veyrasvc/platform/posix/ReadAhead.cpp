#include "veyrasvc/platform/posix/ReadAhead.h"

#include <array>
#include <mutex>
#include <new>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

// Enough for the connections that are read at the same time; more would only sit there.
constexpr std::size_t kStock = 4;

struct Stock {
    std::mutex mutex;
    std::array<std::unique_ptr<char[]>, kStock> buffers; // guarded by mutex; the first `count` are there
    std::size_t count = 0;
};

Stock& TheStock() {
    alignas(Stock) static unsigned char memory[sizeof(Stock)];
    static Stock* const stock = ::new (static_cast<void*>(memory)) Stock; // never destroyed: pipes may outlive statics
    return *stock;
}

} // namespace

char* ReadAhead::Borrow() {
    if (!m_buffer) {
        Stock& stock = TheStock();
        const std::lock_guard guard(stock.mutex);
        if (stock.count > 0) {
            m_buffer = std::move(stock.buffers[--stock.count]);
        }
    }
    if (!m_buffer) {
        m_buffer.reset(new (std::nothrow) char[kBytes]);
    }
    return m_buffer.get();
}

void ReadAhead::Return() {
    m_begin = m_end = 0;
    if (!m_buffer) {
        return;
    }
    Stock& stock = TheStock();
    const std::lock_guard guard(stock.mutex);
    if (stock.count < kStock) {
        stock.buffers[stock.count++] = std::move(m_buffer);
    }
    m_buffer.reset();
}

} // namespace Vantor::Sentrix::Platform
