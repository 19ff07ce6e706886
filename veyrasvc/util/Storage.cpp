#include "veyrasvc/util/Storage.h"

#include "veyrasvc/platform/Win32.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace Vantor::Sentrix {

namespace {

constexpr std::size_t kMi = 1024 * 1024;

constexpr std::size_t kLong = 128 * 1024; // shorter blocks are recycled well enough by the heap
constexpr std::size_t kPages = 8 * kMi;   // from here on blocks are the system's own pages
constexpr std::size_t kHeapBytes = 8 * kMi;
constexpr std::size_t kPagesBytes = 128 * kMi;

// Blocks for messages of about the same length fit each other, and pages are large ones where there are such.
std::size_t Rounded(std::size_t bytes) {
    const std::size_t step = bytes < kPages ? 64 * 1024 : 2 * kMi;
    return (bytes + step - 1) / step * step;
}

struct Block {
    std::unique_ptr<char[], void (*)(char*)> bytes;
    std::size_t size;
    std::size_t committed; // less than the size while one that was reserved grows
};

enum class Kept { Resident, Offered };

// Threads: any.
class Recycler {
public:
    // Offered: the system may take the memory of a block, whose content is of no interest, until it is used again.
    Recycler(std::size_t mostBytes, Kept kept) : m_mostBytes(mostBytes), m_kept(kept) {}

    std::optional<Block> Take(std::size_t size) {
        const std::lock_guard guard(m_mutex);
        const auto fits = [size](const Block& block) { return block.size >= size && block.size / 2 <= size; };
        // The one that came last may still be in the processor's cache.
        const auto found = std::find_if(m_blocks.rbegin(), m_blocks.rend(), fits);
        if (found == m_blocks.rend()) {
            return std::nullopt;
        }
        Block block = std::move(*found);
        m_blocks.erase(std::next(found).base());
        m_bytes -= block.size;
        return block;
    }

    // Makes room by letting go of what has been there longest. Fails: std::bad_alloc, and the block is freed.
    void Give(Block block) {
        if (block.committed < block.size || block.size > m_mostBytes) {
            return;
        }
        if (m_kept == Kept::Offered) {
            VirtualAlloc(block.bytes.get(), block.size, MEM_RESET, PAGE_READWRITE);
        }
        std::vector<Block> dropped; // freed without the mutex
        const std::lock_guard guard(m_mutex);
        dropped.reserve(m_blocks.size()); // whatever fails does so before anything is changed
        m_blocks.reserve(m_blocks.size() + 1);
        auto last = m_blocks.begin();
        for (; m_bytes + block.size > m_mostBytes; ++last) {
            m_bytes -= last->size;
        }
        dropped.assign(std::make_move_iterator(m_blocks.begin()), std::make_move_iterator(last));
        m_blocks.erase(m_blocks.begin(), last);
        m_bytes += block.size;
        m_blocks.push_back(std::move(block));
    }

private:
    const std::size_t m_mostBytes;
    const Kept m_kept;
    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::vector<Block> m_blocks;
    std::size_t m_bytes = 0;
};

// Never destroyed: messages may outlive static objects.
Recycler& RecyclerFor(std::size_t size) {
    static auto* const ofHeap = new Recycler(kHeapBytes, Kept::Resident);
    static auto* const ofPages = new Recycler(kPagesBytes, Kept::Offered);
    return size < kPages ? *ofHeap : *ofPages;
}

// The deleter of a long block.
struct GiveBack {
    std::shared_ptr<Block> block; // shared because deleters are copied

    void operator()(const char* /*bytes*/) const noexcept {
        try {
            RecyclerFor(block->size).Give(std::move(*block));
        } catch (const std::bad_alloc&) {
        }
    }
};

std::shared_ptr<char[]> Shared(Block block) {
    char* const bytes = block.bytes.get();
    return {bytes, GiveBack{std::make_shared<Block>(std::move(block))}};
}

Block FromHeap(std::size_t size) {
    auto bytes = std::make_unique_for_overwrite<char[]>(size);
    return {{bytes.release(), [](char* block) { std::default_delete<char[]>()(block); }}, size, size};
}

Block FromSystem(std::size_t size, DWORD type) {
    void* const bytes = VirtualAlloc(nullptr, size, type, PAGE_READWRITE);
    if (bytes == nullptr) {
        throw std::bad_alloc();
    }
    return {{static_cast<char*>(bytes), [](char* address) { VirtualFree(address, 0, MEM_RELEASE); }},
            size,
            (type & MEM_COMMIT) != 0 ? size : 0};
}

} // namespace

std::shared_ptr<char[]> AllocateStorage(std::size_t bytes) {
    if (bytes < kLong) {
        return std::make_shared_for_overwrite<char[]>(bytes);
    }
    const std::size_t size = Rounded(bytes);
    if (auto block = RecyclerFor(size).Take(size)) {
        return Shared(*std::move(block));
    }
    return Shared(size < kPages ? FromHeap(size) : FromSystem(size, MEM_RESERVE | MEM_COMMIT));
}

std::shared_ptr<char[]> ReserveStorage(std::size_t bytes) {
    const std::size_t size = Rounded(std::max(bytes, kPages));
    if (auto block = RecyclerFor(size).Take(size)) {
        return Shared(*std::move(block)); // committed already
    }
    return Shared(FromSystem(size, MEM_RESERVE));
}

void CommitStorage(const std::shared_ptr<char[]>& reserved, std::size_t bytes) {
    Block& block = *std::get_deleter<GiveBack>(reserved)->block;
    const std::size_t needed = Rounded(std::max(bytes, kPages)); // as its size was, so that it gets there
    if (needed <= block.committed) {
        return;
    }
    if (needed > block.size || VirtualAlloc(reserved.get(), needed, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
        throw std::bad_alloc();
    }
    block.committed = needed;
}

} // namespace Vantor::Sentrix
