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

// The first: address space for that many bytes, none of which may be touched yet. The second: memory for as many of
// them, from the beginning; what is there stays when it is called again for more.
// Threads: any, one at a time for one storage.
// Fails: std::bad_alloc.
std::shared_ptr<char[]> ReserveStorage(std::size_t bytes);
void CommitStorage(const std::shared_ptr<char[]>& reserved, std::size_t bytes);

} // namespace Vantor::Sentrix
