// The local heap, which is the C library's, and pages.
#include "veyrasvc/platform/posix/Handle.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <map>
#include <mutex>

namespace Vantor::Sentrix::Platform {

namespace {

// How long each mapping is, which VirtualFree is not told.
struct Mappings {
    std::mutex mutex;
    std::map<char*, SIZE_T> lengths; // guarded by mutex
};

Mappings& TheMappings() {
    static auto* const mappings = new Mappings; // never destroyed: memory may be freed while the process exits
    return *mappings;
}

} // namespace

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

namespace {

void* FailToAllocate(DWORD error) {
    SetLastError(error);
    return nullptr;
}

// In large pages where the system has some: to fill a long block page by page takes longer than to use it.
void* Map(SIZE_T bytes, bool commits) {
    const int protection = commits ? PROT_READ | PROT_WRITE : PROT_NONE;
    void* const block =
        mmap(nullptr, bytes, protection, MAP_PRIVATE | MAP_ANONYMOUS | (commits ? 0 : MAP_NORESERVE), -1, 0);
    if (block == MAP_FAILED) {
        return FailToAllocate(ERROR_NOT_ENOUGH_MEMORY);
    }
    madvise(block, bytes, MADV_HUGEPAGE);
    const bool isKept = IfMemoryLasts(false, [&] {
        Mappings& mappings = TheMappings();
        const std::lock_guard guard(mappings.mutex);
        return mappings.lengths.emplace(static_cast<char*>(block), bytes).second;
    });
    if (!isKept) {
        munmap(block, bytes);
        return FailToAllocate(ERROR_NOT_ENOUGH_MEMORY);
    }
    return block;
}

// The pages of a part of one mapping: made usable, or their content given up.
void* ChangePages(char* address, SIZE_T bytes, bool commits) {
    const auto page = static_cast<SIZE_T>(sysconf(_SC_PAGESIZE));
    Mappings& mappings = TheMappings();
    const std::lock_guard guard(mappings.mutex);
    const auto behind = mappings.lengths.upper_bound(address);
    if (behind == mappings.lengths.begin()) {
        return FailToAllocate(ERROR_INVALID_ADDRESS);
    }
    const auto& [begin, length] = *std::prev(behind);
    const auto from = static_cast<SIZE_T>(address - begin) / page * page;
    const auto to = static_cast<SIZE_T>(address - begin) + bytes;
    if (bytes > length || to > length) {
        return FailToAllocate(ERROR_INVALID_ADDRESS);
    }
    if ((commits ? mprotect(begin + from, to - from, PROT_READ | PROT_WRITE)
                 : madvise(begin + from, to - from, MADV_FREE)) != 0) {
        return FailToAllocate(ERROR_NOT_ENOUGH_MEMORY);
    }
    return begin + from;
}

} // namespace

void* VirtualAlloc(void* address, SIZE_T bytes, DWORD type, DWORD protection) {
    const bool commits = (type & MEM_COMMIT) != 0;
    const bool reserves = (type & MEM_RESERVE) != 0;
    const bool isKnown = (type & ~(MEM_COMMIT | MEM_RESERVE)) == 0 || type == MEM_RESET;
    if (!isKnown || protection != PAGE_READWRITE || bytes == 0 || reserves != (address == nullptr) || type == 0) {
        return FailToAllocate(ERROR_INVALID_PARAMETER);
    }
    return reserves ? Map(bytes, commits) : ChangePages(static_cast<char*>(address), bytes, commits);
}

BOOL VirtualFree(void* address, SIZE_T bytes, DWORD type) {
    Mappings& mappings = TheMappings();
    const std::lock_guard guard(mappings.mutex);
    const auto found = mappings.lengths.find(static_cast<char*>(address));
    if (found == mappings.lengths.end() || bytes != 0 || type != MEM_RELEASE) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    munmap(address, found->second);
    mappings.lengths.erase(found);
    return TRUE;
}

} // namespace Vantor::Sentrix::Platform
