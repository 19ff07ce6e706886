// Shortage on demand: allocations and thread starts of this program that fail. Linking Starvation.cpp replaces the
// program's operator new, so it is for test programs that are about shortage.
#pragma once

#include <cstddef>

namespace Vantor::Sentrix {

// While it lives, allocations with operator new fail: number `first`, counted from 1, and the `count` - 1 after it.
// Threads: made and destroyed by one thread; one at a time in the program.
class Starvation {
public:
    enum class Threads { Every, Own, Others }; // seen from the thread that made it
    static constexpr std::size_t kAllThatFollow = ~std::size_t{0};

    Starvation(Threads whose, std::size_t first, std::size_t count = 1);
    ~Starvation();
    Starvation(const Starvation&) = delete;
    Starvation& operator=(const Starvation&) = delete;

    // Whether an allocation has failed. When none has, there are no more than `first` - 1 on the tested road.
    bool HasStruck() const;
};

// While it lives, no thread can be started.
class ThreadShortage {
public:
    ThreadShortage();
    ~ThreadShortage();
    ThreadShortage(const ThreadShortage&) = delete;
    ThreadShortage& operator=(const ThreadShortage&) = delete;

    // False where thread starts cannot be intercepted: on Windows, and under a sanitizer, which does so itself.
    static bool IsSupported();
};

} // namespace Vantor::Sentrix
