#ifndef KXSAHINTERNAL_H
#define KXSAHINTERNAL_H

#include "kxBBox.h"

#include <cstdint>

namespace kx
{
namespace detail
{
/// Nodes of at most this many primitives become leaves.
constexpr unsigned int kSAHMaxForcedLeaf = 16;
/// Larger nodes are split at the median, smaller ones by binned SAH.
constexpr unsigned int kSAHMaxBinnedNode = 1024;
/// Nodes deeper than this become leaves.
constexpr int kSAHMaxSplitDepth = 31;
/// The node array grows by this many records at a time.
constexpr uint32_t kSAHNodeGrowthStep = 1024;

/// kxBBox::extend without branches: the same comparisons, so the same results (NaN and
/// signed zeros included), but hot loops over unpredictable bins and sides do not stall.
inline void grow(kxBBox& box, const kxBBox& b)
{
#pragma GCC unroll 3
    for (int k = 0; k < 3; ++k)
    {
        box.min[k] = b.min[k] < box.min[k] ? b.min[k] : box.min[k];
        box.max[k] = b.max[k] > box.max[k] ? b.max[k] : box.max[k];
    }
}
} // namespace detail
} // namespace kx

#endif
