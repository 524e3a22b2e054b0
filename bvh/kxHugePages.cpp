#include "kxHugePages.h"

#include <sys/mman.h>

#include <cstdint>

namespace kxMemory
{
void adviseHugePages(const void* data, size_t bytes)
{
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kHugePage - 1);
    // Without transparent huge pages the kernel declines and nothing changes.
    if (end > begin)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}
} // namespace kxMemory
