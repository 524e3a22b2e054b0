#include "kxGenericBVH.h"

uint64_t kxGenericBVH::getMemoryUsed() const
{
    return 4ull * (static_cast<uint64_t>(mPrimitiveIndices.capacity()) +
                   8ull * static_cast<uint64_t>(mNodes.capacity()) + 2ull);
}
