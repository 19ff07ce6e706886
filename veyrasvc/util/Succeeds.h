// Where an operation for want of memory becomes one that has failed.
#pragma once

#include <new>
#include <utility>

namespace Vantor::Sentrix {

// The result of `operation()`; false when it could not have the memory that it needs. The operation itself sees to it
// that nothing half done is left behind.
template <class Operation> bool Succeeds(Operation&& operation) {
    try {
        return std::forward<Operation>(operation)();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace Vantor::Sentrix
