#include "kxLinearBuildSupport.h"

#include "../kxHugePages.h"

#include <new>

namespace kxLinearBVH
{
namespace
{
using kxMemory::kHugePage;
// Below this, rounding up to whole huge pages would waste more than it saves.
constexpr size_t kHugeArrayBytes = 2 * kHugePage;
} // namespace

kxBuildArena::kxBuildArena(size_t capacity) : mCapacity(capacity)
{
    if (capacity < kHugeArrayBytes)
    {
        mBlock = static_cast<unsigned char*>(::operator new(capacity, std::align_val_t(kAlignment)));
        return;
    }
    mCapacity = (capacity + kHugePage - 1) & ~(kHugePage - 1);
    mBlock = static_cast<unsigned char*>(::operator new(mCapacity, std::align_val_t(kHugePage)));
    kxMemory::adviseHugePages(mBlock, mCapacity);
}

kxBuildArena::~kxBuildArena()
{
    ::operator delete(mBlock, std::align_val_t(mCapacity < kHugeArrayBytes ? kAlignment : kHugePage));
}
} // namespace kxLinearBVH
