// Where bodies and frames are kept.
#pragma once

#include <cstddef>
#include <memory>

namespace Vantor::Sentrix {

// Unset bytes at an address for any type. A few long blocks that were given back are kept for the next of their kind,
// 4 MiB per process at most: fresh memory from the system is cleared page by page before it is written to.
// Threads: any; also the one that gives a block back.
// Fails: std::bad_alloc.
std::shared_ptr<char[]> AllocateStorage(std::size_t bytes);

} // namespace Vantor::Sentrix
