// The process heap and the local heap: both are the C library's, so what one gave the other could free. And pages.
#include "veyrasvc/platform/posix/Handle.h"

#include <sys/mman.h>

#include <cstdlib>
#include <mutex>
#include <unordered_map>

namespace Vantor::Sentrix::Platform {

namespace {

char heapTag; // its address names the one heap

// How long each mapping is, which VirtualFree is not told.
struct Mappings {
    std::mutex mutex;
    std::unordered_map<void*, SIZE_T> lengths; // guarded by mutex
};

Mappings& TheMappings() {
    static auto* const mappings = new Mappings; // never destroyed: memory may be freed while the process exits
    return *mappings;
}

} // namespace

HANDLE GetProcessHeap() {
    return &heapTag;
}

void* HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    if (heap != &heapTag) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return (flags & HEAP_ZERO_MEMORY) != 0 ? std::calloc(1, bytes) : std::malloc(bytes);
}

BOOL HeapFree(HANDLE heap, DWORD /*flags*/, void* block) {
    if (heap != &heapTag) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    std::free(block);
    return TRUE;
}

HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) {
    if (flags != LPTR && flags != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    void* const block = flags == LPTR ? std::calloc(1, bytes) : std::malloc(bytes);
    if (block == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return block;
}

HLOCAL LocalFree(HLOCAL block) {
    std::free(block);
    return nullptr;
}

// In large pages where the system has some: to fill a long block page by page takes longer than to use it.
void* VirtualAlloc(void* address, SIZE_T bytes, DWORD type, DWORD protection) {
    if (address != nullptr || bytes == 0 || type != (MEM_RESERVE | MEM_COMMIT) || protection != PAGE_READWRITE) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    void* const block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    madvise(block, bytes, MADV_HUGEPAGE);
    Mappings& mappings = TheMappings();
    const std::lock_guard guard(mappings.mutex);
    mappings.lengths.emplace(block, bytes);
    return block;
}

BOOL VirtualFree(void* address, SIZE_T bytes, DWORD type) {
    Mappings& mappings = TheMappings();
    const std::lock_guard guard(mappings.mutex);
    const auto found = mappings.lengths.find(address);
    if (found == mappings.lengths.end() || bytes != 0 || type != MEM_RELEASE) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    munmap(address, found->second);
    mappings.lengths.erase(found);
    return TRUE;
}

} // namespace Vantor::Sentrix::Platform
