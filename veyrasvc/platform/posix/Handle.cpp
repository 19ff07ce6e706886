#include "veyrasvc/platform/posix/Handle.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <utility>

namespace Vantor::Sentrix::Platform {

namespace {

thread_local DWORD lastError = NO_ERROR;

// A lock of one word: held for a few instructions, and there is one for every slot.
class SpinLock {
public:
    void lock() {
        while (m_flag.test_and_set(std::memory_order_acquire)) {
            while (m_flag.test(std::memory_order_relaxed)) {
                __builtin_ia32_pause();
            }
        }
    }
    void unlock() { m_flag.clear(std::memory_order_release); }

private:
    std::atomic_flag m_flag;
};

struct Slot {
    SpinLock lock;
    std::uint32_t generation = 1;   // guarded by lock
    std::shared_ptr<Object> object; // guarded by lock; null when the slot is free
    std::uint32_t nextFree = 0;     // guarded by the table's mutex
};

class HandleTable {
public:
    HANDLE Add(std::shared_ptr<Object> object) {
        std::uint32_t index = kNoIndex;
        if (const DWORD error = TakeFreeIndex(index); error != NO_ERROR) {
            SetLastError(error);
            return nullptr;
        }
        Slot& slot = *Locate(index);
        const std::lock_guard guard(slot.lock);
        slot.object = std::move(object);
        return Encode(index, slot.generation);
    }

    std::shared_ptr<Object> Find(HANDLE handle) {
        Slot* slot = Locate(IndexOf(handle));
        if (slot == nullptr) {
            return nullptr;
        }
        const std::lock_guard guard(slot->lock);
        return slot->generation == GenerationOf(handle) ? slot->object : nullptr;
    }

    std::shared_ptr<Object> Remove(HANDLE handle) {
        Slot* slot = Locate(IndexOf(handle));
        if (slot == nullptr) {
            return nullptr;
        }
        std::shared_ptr<Object> removed;
        {
            const std::lock_guard guard(slot->lock);
            if (slot->generation != GenerationOf(handle) || !slot->object) {
                return nullptr;
            }
            removed = std::move(slot->object);
            ++slot->generation;
        }
        const std::lock_guard guard(m_mutex);
        slot->nextFree = std::exchange(m_free, IndexOf(handle));
        return removed;
    }

private:
    static constexpr std::uint32_t kChunkSlots = 256;
    static constexpr std::uint32_t kChunks = 256;
    static constexpr std::uint32_t kNoIndex = 0xFFFFFFFF;

    // Like the system's, a handle is a small number and a multiple of four; slot 0 is not the null handle.
    static HANDLE Encode(std::uint32_t index, std::uint32_t generation) {
        const auto value = (std::uint64_t{generation & 0x7FFFFFFF} << 32) | (std::uint64_t{index + 1} << 2);
        return reinterpret_cast<HANDLE>(value);
    }
    static std::uint32_t IndexOf(HANDLE handle) {
        return (static_cast<std::uint32_t>(reinterpret_cast<std::uint64_t>(handle)) >> 2) - 1;
    }
    static std::uint32_t GenerationOf(HANDLE handle) {
        return static_cast<std::uint32_t>(reinterpret_cast<std::uint64_t>(handle) >> 32);
    }

    Slot* Locate(std::uint32_t index) {
        if (index >= kChunkSlots * kChunks) {
            return nullptr;
        }
        auto* chunk = m_chunks[index / kChunkSlots].load(std::memory_order_acquire);
        return chunk == nullptr ? nullptr : &(*chunk)[index % kChunkSlots];
    }

    DWORD TakeFreeIndex(std::uint32_t& index) {
        const std::lock_guard guard(m_mutex);
        if (m_free != kNoIndex) {
            index = m_free;
            m_free = Locate(index)->nextFree;
            return NO_ERROR;
        }
        if (m_used == kChunkSlots * kChunks) {
            return ERROR_TOO_MANY_OPEN_FILES;
        }
        auto& chunk = m_chunks[m_used / kChunkSlots];
        if (chunk.load(std::memory_order_relaxed) == nullptr) {
            auto* const made = new (std::nothrow) Chunk;
            if (made == nullptr) {
                return ERROR_NOT_ENOUGH_MEMORY;
            }
            chunk.store(made, std::memory_order_release);
        }
        index = m_used++;
        return NO_ERROR;
    }

    using Chunk = std::array<Slot, kChunkSlots>;
    std::array<std::atomic<Chunk*>, kChunks> m_chunks{};
    std::mutex m_mutex;
    std::uint32_t m_free = kNoIndex; // guarded by m_mutex; the head of a list through the slots
    std::uint32_t m_used = 0;        // guarded by m_mutex
};

// Never destroyed: threads may still use handles while the process exits.
HandleTable& Table() {
    alignas(HandleTable) static unsigned char memory[sizeof(HandleTable)];
    static HandleTable* const table = ::new (static_cast<void*>(memory)) HandleTable;
    return *table;
}

} // namespace

DWORD GetLastError() {
    return lastError;
}

void SetLastError(DWORD error) {
    lastError = error;
}

HANDLE AddHandle(std::shared_ptr<Object> object) {
    return object ? Table().Add(std::move(object)) : nullptr;
}

std::shared_ptr<Object> FindObject(HANDLE handle) {
    return Table().Find(handle);
}

BOOL CloseHandle(HANDLE handle) {
    const auto object = Table().Remove(handle);
    if (!object) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    object->OnClose();
    return TRUE;
}

DWORD ErrorFromErrno(int errnoValue) {
    switch (errnoValue) {
    case 0:
        return ERROR_SUCCESS;
    case ENOENT:
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
        return ERROR_PATH_NOT_FOUND;
    case EMFILE:
    case ENFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
        return ERROR_ACCESS_DENIED;
    case EBADF:
        return ERROR_INVALID_HANDLE;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case ENOSPC:
    case EDQUOT:
        return ERROR_DISK_FULL;
    case EPIPE:
    case ECONNRESET:
        return ERROR_BROKEN_PIPE;
    case EEXIST:
        return ERROR_ALREADY_EXISTS;
    case EINVAL:
        return ERROR_INVALID_PARAMETER;
    case ENAMETOOLONG:
        return ERROR_INVALID_NAME;
    default:
        return ERROR_GEN_FAILURE;
    }
}

} // namespace Vantor::Sentrix::Platform
