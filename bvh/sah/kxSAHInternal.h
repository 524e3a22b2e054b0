#ifndef KXSAHINTERNAL_H
#define KXSAHINTERNAL_H

#include "kxBBox.h"

#include <cstdint>

#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

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

/// Truncation toward zero to 64 bits, low 32 bits kept. NaN and out-of-range values give
/// the integer indefinite 0x8000000000000000, whose low half is 0: on an axis of zero
/// extent (0 * infinity) everything lands in bin 0.
inline uint32_t truncateToLow32(float v)
{
#if defined(__x86_64__)
    // The conversion instruction itself: no range test on the hot path.
    return static_cast<uint32_t>(_mm_cvttss_si64(_mm_set_ss(v)));
#else
    constexpr float kTwo63 = 9223372036854775808.0f;
    if (v >= -kTwo63 && v < kTwo63)
        return static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(v)));
    return 0u;
#endif
}
} // namespace detail
} // namespace kx

#endif
