// Where bodies and frames are kept.
#pragma once

#include <cstddef>
#include <memory>

namespace Vantor::Sentrix {

// Unset bytes at an address for any type. Long blocks that were given back are kept for the next of their kind, because
// fresh memory is cleared by the system, page by page, before it is written to: 8 MiB per process at most of blocks
// below 8 MiB, and 128 MiB of longer ones. Those are offered to the system meanwhile, which takes their memory when it
// is short of it.
// Threads: any; also the one that gives a block back.
// Fails: std::bad_alloc.
std::shared_ptr<char[]> AllocateStorage(std::size_t bytes);

// The first: address space for that many bytes, none of which may be touched yet; it has memory already when it is a
// block that was kept. The second: memory for as many of them, from the beginning; what is there stays when it is
// called again for more.
// Threads: any, one at a time for one storage.
// Fails: std::bad_alloc.
std::shared_ptr<char[]> ReserveStorage(std::size_t bytes);
void CommitStorage(const std::shared_ptr<char[]>& reserved, std::size_t bytes);

} // namespace Vantor::Sentrix
