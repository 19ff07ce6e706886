#include "bench/parts/Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> allocations = 0;
}

// The array and nothrow forms of the C++ library come here as well.
void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const block = std::malloc(size > 0 ? size : 1)) {
        return block;
    }
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}

std::size_t Vantor::Sentrix::Allocations() {
    return allocations.load(std::memory_order_relaxed);
}
