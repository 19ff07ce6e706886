#include "veyrasvc/util/Storage.h"

#include "veyrasvc/platform/Win32.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

namespace Vantor::Sentrix {

namespace {

constexpr std::size_t kLong = 128 * 1024; // shorter blocks are recycled well enough by the heap
constexpr std::size_t kRecycledBytes = 4 * 1024 * 1024;
constexpr std::size_t kLongest = 32 * 1024 * 1024; // a heap would ask the system for longer ones each time
constexpr std::size_t kStep = 64 * 1024;           // blocks for messages of about the same length fit each other

class Recycler {
public:
    struct Block {
        std::unique_ptr<char[]> bytes;
        std::size_t size;
    };

    Block Take(std::size_t size) {
        {
            const std::lock_guard guard(m_mutex);
            const auto fits = [size](const Block& block) { return block.size >= size && block.size / 2 <= size; };
            // The one that came last may still be in the processor's cache.
            const auto found = std::find_if(m_blocks.rbegin(), m_blocks.rend(), fits);
            if (found != m_blocks.rend()) {
                Block block = std::move(*found);
                m_blocks.erase(std::next(found).base());
                m_bytes -= block.size;
                return block;
            }
        }
        const std::size_t rounded = (size + kStep - 1) / kStep * kStep;
        return {std::make_unique_for_overwrite<char[]>(rounded), rounded};
    }

    // Makes room by letting go of what has been there longest.
    void Give(Block block) {
        std::vector<Block> dropped; // freed without the mutex
        const std::lock_guard guard(m_mutex);
        if (block.size > kRecycledBytes) {
            return;
        }
        auto last = m_blocks.begin();
        for (; m_bytes + block.size > kRecycledBytes; ++last) {
            m_bytes -= last->size;
        }
        dropped.assign(std::make_move_iterator(m_blocks.begin()), std::make_move_iterator(last));
        m_blocks.erase(m_blocks.begin(), last);
        m_bytes += block.size;
        m_blocks.push_back(std::move(block));
    }

private:
    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::vector<Block> m_blocks;
    std::size_t m_bytes = 0;
};

// Never destroyed: messages may outlive static objects.
Recycler& TheRecycler() {
    static auto* const recycler = new Recycler;
    return *recycler;
}

std::shared_ptr<char[]> AllocateFromSystem(std::size_t bytes, DWORD type) {
    void* const block = VirtualAlloc(nullptr, bytes, type, PAGE_READWRITE);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return {static_cast<char*>(block), [](char* address) { VirtualFree(address, 0, MEM_RELEASE); }};
}

} // namespace

std::shared_ptr<char[]> AllocateStorage(std::size_t bytes) {
    if (bytes < kLong) {
        return std::make_shared_for_overwrite<char[]>(bytes);
    }
    if (bytes >= kLongest) {
        return AllocateFromSystem(bytes, MEM_RESERVE | MEM_COMMIT);
    }
    Recycler::Block block = TheRecycler().Take(bytes);
    char* const address = block.bytes.get();
    return {address, [owned = std::make_shared<Recycler::Block>(std::move(block))](char*) {
                TheRecycler().Give(std::move(*owned));
            }};
}

std::shared_ptr<char[]> ReserveStorage(std::size_t bytes) {
    return AllocateFromSystem(bytes, MEM_RESERVE);
}

void CommitStorage(const std::shared_ptr<char[]>& reserved, std::size_t bytes) {
    if (VirtualAlloc(reserved.get(), bytes, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
        throw std::bad_alloc();
    }
}

} // namespace Vantor::Sentrix
