// The process heap and the local heap: both are the C library's, so what one gave the other could free.
#include "veyrasvc/platform/posix/Handle.h"

#include <cstdlib>

namespace Vantor::Sentrix::Platform {

namespace {

char heapTag; // its address names the one heap

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

} // namespace Vantor::Sentrix::Platform
