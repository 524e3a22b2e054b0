#include "kxLinearBuildSupport.h"

#include <sys/mman.h>

#include <new>

namespace kxLinearBVH
{
namespace
{
constexpr size_t kHugePage = size_t{1} << 21;
// Below this, rounding up to whole huge pages would waste more than it saves.
constexpr size_t kHugeArrayBytes = 2 * kHugePage;
} // namespace

void adviseHugePages(const void* data, size_t bytes)
{
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kHugePage - 1);
    // Only a hint: without transparent huge pages the kernel declines and nothing changes.
    if (end > begin)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

kxBuildArena::kxBuildArena(size_t capacity) : mCapacity(capacity)
{
    if (capacity < kHugeArrayBytes)
    {
        mBlock = static_cast<unsigned char*>(::operator new(capacity, std::align_val_t(kAlignment)));
        return;
    }
    mCapacity = (capacity + kHugePage - 1) & ~(kHugePage - 1);
    mBlock = static_cast<unsigned char*>(::operator new(mCapacity, std::align_val_t(kHugePage)));
    adviseHugePages(mBlock, mCapacity);
}

kxBuildArena::~kxBuildArena()
{
    ::operator delete(mBlock, std::align_val_t(mCapacity < kHugeArrayBytes ? kAlignment : kHugePage));
}
} // namespace kxLinearBVH
