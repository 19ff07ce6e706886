// Where bodies and frames are kept.
#pragma once

#include <cstddef>
#include <memory>

namespace Vantor::Sentrix {

// Unset bytes at an address for any type. A few long blocks that were given back are kept for the next of their kind,
// 4 MiB per process at most: fresh memory from the system is cleared page by page before it is written to. Those of
// 32 MiB and more are the system's own pages and go back to it at once.
// Threads: any; also the one that gives a block back.
// Fails: std::bad_alloc.
std::shared_ptr<char[]> AllocateStorage(std::size_t bytes);

} // namespace Vantor::Sentrix
