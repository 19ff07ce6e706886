#include "tests/support/Starvation.h"

#include <atomic>
#include <cstdlib>
#include <new>

#if defined(__linux__) && !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
#define STARVATION_INTERCEPTS_THREADS 1
#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#endif

namespace Vantor::Sentrix {

namespace {

thread_local char ownTag; // its address names the thread

// Constant while `active` is set.
Starvation::Threads threads;
const void* maker;
std::size_t firstToFail;
std::size_t failures;

std::atomic<bool> active{false};
std::atomic<std::size_t> allocations{0}; // of those threads since the beginning
std::atomic<bool> threadsAreShort{false};

bool IsMeant() {
    return threads == Starvation::Threads::Every || (threads == Starvation::Threads::Own) == (maker == &ownTag);
}

bool MustFail() {
    if (!active.load(std::memory_order_acquire) || !IsMeant()) {
        return false;
    }
    const std::size_t number = allocations.fetch_add(1, std::memory_order_relaxed) + 1;
    return number >= firstToFail && number - firstToFail < failures;
}

} // namespace

Starvation::Starvation(Threads whose, std::size_t first, std::size_t count) {
    threads = whose;
    maker = &ownTag;
    firstToFail = first;
    failures = count;
    allocations.store(0, std::memory_order_relaxed);
    active.store(true, std::memory_order_release);
}

Starvation::~Starvation() {
    active.store(false, std::memory_order_release);
}

bool Starvation::HasStruck() const {
    return allocations.load(std::memory_order_relaxed) >= firstToFail;
}

ThreadShortage::ThreadShortage() {
    threadsAreShort = true;
}

ThreadShortage::~ThreadShortage() {
    threadsAreShort = false;
}

bool ThreadShortage::IsSupported() {
#ifdef STARVATION_INTERCEPTS_THREADS
    return true;
#else
    return false;
#endif
}

} // namespace Vantor::Sentrix

// The array and nothrow forms of the C++ library come here as well.
void* operator new(std::size_t size) {
    void* const block = Vantor::Sentrix::MustFail() ? nullptr : std::malloc(size > 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}

#ifdef STARVATION_INTERCEPTS_THREADS
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) {
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"));
    return Vantor::Sentrix::threadsAreShort ? EAGAIN : real(thread, attributes, start, argument);
}
#endif
