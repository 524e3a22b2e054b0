#include "kxLinearBuildSupport.h"

#include <sys/mman.h>

#include <new>

namespace kxLinearBVH
{
namespace
{
constexpr size_t kHugePage = size_t{1} << 21;
// Below this, rounding up to whole huge pages would waste more than it saves.
constexpr size_t kHugeArrayBytes = 4 * kHugePage;
} // namespace

void adviseHugePages(const void* data, size_t bytes)
{
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kHugePage - 1);
    // Only a hint: without transparent huge pages the kernel declines and nothing changes.
    if (end > begin)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

void* allocateWorkMemory(size_t bytes)
{
    if (bytes < kHugeArrayBytes)
        return ::operator new(bytes);
    const size_t rounded = (bytes + kHugePage - 1) & ~(kHugePage - 1);
    void* memory = ::operator new(rounded, std::align_val_t(kHugePage));
    adviseHugePages(memory, rounded);
    return memory;
}

void releaseWorkMemory(void* memory, size_t bytes) noexcept
{
    if (!memory)
        return;
    if (bytes < kHugeArrayBytes)
        ::operator delete(memory);
    else
        ::operator delete(memory, std::align_val_t(kHugePage));
}
} // namespace kxLinearBVH
