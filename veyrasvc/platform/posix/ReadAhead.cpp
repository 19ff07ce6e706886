#include "veyrasvc/platform/posix/ReadAhead.h"

#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace Vantor::Sentrix::Platform {

namespace {

// Enough for the connections that are read at the same time; more would only sit there.
constexpr std::size_t kStock = 4;

struct Stock {
    std::mutex mutex;
    std::vector<std::unique_ptr<char[]>> buffers; // guarded by mutex
};

Stock& TheStock() {
    static auto* const stock = new Stock; // never destroyed: pipes may outlive static objects
    return *stock;
}

} // namespace

char* ReadAhead::Borrow() {
    if (!m_buffer) {
        Stock& stock = TheStock();
        const std::lock_guard guard(stock.mutex);
        if (!stock.buffers.empty()) {
            m_buffer = std::move(stock.buffers.back());
            stock.buffers.pop_back();
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
    if (stock.buffers.size() < kStock) {
        stock.buffers.push_back(std::move(m_buffer));
    }
    m_buffer.reset();
}

} // namespace Vantor::Sentrix::Platform
