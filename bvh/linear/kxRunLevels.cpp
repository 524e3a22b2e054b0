#include "kxRunLevels.h"

#include "kxHighestBit.h"

#include "../kxBoxLanes.h"
#include "../kxHugePages.h"

#include <emmintrin.h>

#include <algorithm>
#include <cassert>

namespace kxLinearBVH
{
namespace
{
// How far ahead of its writes a level's stretch of records is fetched, in child pairs.
constexpr uint32_t kStreamAhead = 64;
// How far ahead of the sweep the box of a position's primitive is fetched, in positions.
constexpr uint32_t kBoxesAhead = 32;
// Leaves of up to this many primitives take the same steps whatever their count.
constexpr uint32_t kSmallLeaf = 4;
// Leaf limits up to this are decided from the pair levels around each split (see
// lowerLevelBits); larger ones by a sweep of their own.
constexpr uint32_t kWindowLimit = 8;

// Level 1 splits on z, 2 on y, 3 on x, 4 on z again.
constexpr uint32_t kAxisOfLevel[3] = {kxBBox::eAxisX, kxBBox::eAxisZ, kxBBox::eAxisY};

// A node whose words and box are final, waiting for its parent to place it. The box's
// minimum is in lanes 0 to 2 and its maximum in lanes 1 to 3, as kxBoxLanes loads them.
struct Finished
{
    uint32_t offset;
    uint32_t count;
    __m128 lo;
    __m128 hi;
};

// A split whose run has not ended yet: the level it splits at and its finished left half.
struct OpenSplit
{
    unsigned level;
    Finished left;
};

inline bool isLeaf(uint32_t offset)
{
    return offset >= kxGNode::eLeafMark;
}

inline void place(kxGNode& record, const Finished& node)
{
    record.offset = node.offset;
    record.count = node.count;
    kxBoxLanes::storeShifted(record.bbox, node.lo, node.hi);
}

// Bit k set where the pair level at first[k] is that of a split shallower than level:
// not 0 (equal codes) and below level. The pads count as level 1.
inline uint32_t lowerLevelBits(const uint8_t* first, unsigned level)
{
    const __m128i levels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(first));
    const __m128i below = _mm_cmplt_epi8(levels, _mm_set1_epi8(static_cast<char>(level)));
    const __m128i equal = _mm_cmpeq_epi8(levels, _mm_setzero_si128());
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_andnot_si128(equal, below)));
}
} // namespace

kxRunLevels::kxRunLevels(unsigned levels, uint32_t quantity, kxBuildArena& arena)
    : mLevels(levels), mQuantity(quantity), mPairLevel(arena.allocate<uint8_t>(quantity + 2u * kPad) + kPad)
{
    std::fill(mPairLevel - kPad, mPairLevel, uint8_t{1});
    const uint32_t pairs = quantity > 0 ? quantity - 1u : 0u;
    std::fill(mPairLevel + pairs, mPairLevel + quantity + kPad, uint8_t{1});
}

size_t kxRunLevels::footprint(uint32_t quantity)
{
    return kxBuildArena::footprint(quantity + 2u * kPad);
}

template <typename Code>
void kxRunLevels::count(const Code* sortedCodes)
{
    if (mQuantity < 2)
        return;
    const uint32_t pairs = mQuantity - 1u;
    // Locals, as the byte stores could otherwise alias the members. Equal neighbours follow
    // the geometry and cannot be predicted, so their level 0 is masked in, not branched to.
    const unsigned levels = mLevels;
    uint8_t* const pairLevel = mPairLevel;
    for (uint32_t j = 0; j < pairs; ++j)
    {
        const Code difference = sortedCodes[j] ^ sortedCodes[j + 1];
        const unsigned level = (levels - highestBit(difference | 1u)) & (difference != 0 ? ~0u : 0u);
        pairLevel[j] = static_cast<uint8_t>(level);
        ++mSplitsAt[level];
    }
}

template void kxRunLevels::count<uint32_t>(const uint32_t*);
template void kxRunLevels::count<uint64_t>(const uint64_t*);

uint64_t kxRunLevels::distinctCodes() const
{
    uint64_t runs = 1;
    for (unsigned level = 1; level <= mLevels; ++level)
        runs += mSplitsAt[level];
    return runs;
}

uint64_t kxRunLevels::workingBufferBytes() const
{
    uint64_t runs = 1;
    uint64_t entries = runs;
    for (unsigned level = 1; level <= mLevels; ++level)
    {
        runs += mSplitsAt[level];
        entries += runs;
    }
    return 8u * entries;
}

// A split's children survive fusing exactly when its run holds more primitives than the
// limit: below it every subtree then holds more or is a single code, and above it all of
// it fuses into one leaf. The run of a split at pair j reaches from the nearest split of
// a lower level on its left to the nearest one on its right.
void kxRunLevels::countSurvivors(uint32_t maxPrimitivesPerLeaf, uint64_t (&survivors)[kMaxLevels + 1]) const
{
    std::fill(survivors, survivors + kMaxLevels + 1, uint64_t{0});
    if (mQuantity <= maxPrimitivesPerLeaf)
        return;
    const uint32_t pairs = mQuantity - 1u;
    if (maxPrimitivesPerLeaf <= kWindowLimit)
    {
        // Seven pairs on the left and eight on the right of j cover every run of up to
        // eight primitives; the pads stand for the ends of the positions.
        for (uint32_t j = 0; j < pairs; ++j)
        {
            const unsigned level = mPairLevel[j];
            if (level == 0)
                continue;
            const uint32_t bits = lowerLevelBits(mPairLevel + j - 7, level);
            // Primitives from the left end of the run to j, and from j + 1 to its right
            // end; 8 and 9 stand for more.
            const uint32_t left = 8u - highestBit(((bits & 0x7Fu) << 1) | 1u);
            const uint32_t right = static_cast<uint32_t>(__builtin_ctz((bits >> 8) | 0x100u)) + 1u;
            survivors[level] += left + right > maxPrimitivesPerLeaf ? 1u : 0u;
        }
        return;
    }
    // The splits still open, by strictly increasing level, with the first position of
    // their runs, above a guard of level 0.
    struct Open
    {
        unsigned level;
        uint32_t first;
    };
    Open open[kMaxLevels + 2];
    open[0] = {0u, 0u};
    unsigned depth = 1;
    uint32_t runStart = 0;
    for (uint32_t j = 0; j < pairs; ++j)
    {
        const unsigned level = mPairLevel[j];
        if (level == 0)
            continue;
        uint32_t first = runStart;
        runStart = j + 1u;
        while (open[depth - 1].level > level)
        {
            --depth;
            survivors[open[depth].level] += j + 1u - open[depth].first > maxPrimitivesPerLeaf ? 1u : 0u;
            first = open[depth].first;
        }
        open[depth++] = {level, first};
    }
    while (depth > 1)
    {
        --depth;
        survivors[open[depth].level] += mQuantity - open[depth].first > maxPrimitivesPerLeaf ? 1u : 0u;
    }
}

template <typename Container>
bool kxRunLevels::build(std::vector<kxGNode>& nodes, const Container& container, const uint32_t* indexes,
                        uint32_t maxPrimitivesPerLeaf, const kx::kxCancelInterfaceReadOnly* cancel) const
{
    // The surviving pairs of each level follow those of all lower levels, each level's in
    // the order of their positions, which is also the order in which they close.
    uint64_t survivors[kMaxLevels + 1];
    countSurvivors(maxPrimitivesPerLeaf, survivors);
    uint32_t nextPair[kMaxLevels + 1];
    uint64_t pairsBefore = 0;
    for (unsigned level = 1; level <= mLevels; ++level)
    {
        nextPair[level] = static_cast<uint32_t>(pairsBefore);
        pairsBefore += survivors[level];
    }
    const uint64_t recordCount = 1u + 2u * pairsBefore;
    kxMemory::reserveWithHugePages(nodes, recordCount);
    nodes.resize(recordCount);
    kxGNode* const records = nodes.data();
    const auto lastRecord = static_cast<uint32_t>(recordCount - 1u);

    uint32_t axisOfLevel[kMaxLevels + 1];
    for (unsigned level = 0; level <= mLevels; ++level)
        axisOfLevel[level] = kAxisOfLevel[level % 3];

    // The open splits, by strictly increasing level: two splits of one level always have
    // a split of a lower level between them (inside one run the bit of a level flips
    // once), so there is at most one per level. Below them lies a guard of level 0,
    // shallower than every split.
    OpenSplit open[kMaxLevels + 2];
    open[0].level = 0;
    unsigned depth = 1;
    // The node finished last, leaf or closed split: the left half of a split opened next,
    // or the right half of a split closed next.
    Finished completed;
    // A leaf's box is the union of its primitives' boxes in position order. Small leaves
    // take the same steps whatever their count, their last box taken again: growing a box
    // by the box it has just grown by changes nothing.
    const auto finishLeaf = [&](uint32_t first, uint32_t count)
    {
        completed.offset = first | kxGNode::eLeafMark;
        completed.count = count;
        const uint32_t* positions = indexes + first;
        kxBoxLanes::WholeBoxAccumulator box;
        if (count == 1)
            box.extend(boxOf(container, positions[0]));
        else if (count - 1u < kSmallLeaf)
            for (uint32_t i = 0; i < kSmallLeaf; ++i)
                box.extend(boxOf(container, positions[std::min(i, count - 1u)]));
        else
            for (uint32_t i = 0; i < count; ++i)
                box.extend(boxOf(container, positions[i]));
        completed.lo = box.minimumLanes();
        completed.hi = box.shiftedMaximumLanes();
    };
    // A split closes when both its halves are final. It becomes a leaf over both halves'
    // runs when both are leaves with at most the limit together; otherwise it takes the
    // next pair of its level for its halves and becomes inner. Either way its box is the
    // union of its halves', the right one extending the left: for a fused leaf that is bit
    // for bit the union of its primitives' boxes in position order, as minimum and
    // maximum are exact and keep the first of equal values either way.
    const auto close = [&](const OpenSplit& split)
    {
        const Finished& left = split.left;
        const __m128 lo = kxBoxLanes::lower(completed.lo, left.lo);
        const __m128 hi = kxBoxLanes::upper(completed.hi, left.hi);
        const uint64_t sum = uint64_t{left.count} + completed.count;
        if (isLeaf(left.offset) && isLeaf(completed.offset) && sum <= maxPrimitivesPerLeaf)
        {
            completed.offset = left.offset;
            completed.count = static_cast<uint32_t>(sum);
        }
        else
        {
            const uint32_t pair = nextPair[split.level]++;
            const uint32_t children = 1u + 2u * pair;
            // Each level fills its own stretch of records from left to right, too many
            // stretches at once for the hardware to see them coming.
            prefetchForWrite(records + std::min(children + 2u * kStreamAhead, lastRecord));
            place(records[children], left);
            place(records[children + 1u], completed);
            completed.offset = (children & kxGNode::eIndexMask) | axisOfLevel[split.level];
            completed.count = children + 1u;
        }
        completed.lo = lo;
        completed.hi = hi;
    };

    uint32_t runStart = 0;
    const uint32_t pairs = mQuantity > 0 ? mQuantity - 1u : 0u;
    const uint32_t lastAhead = pairs > kBoxesAhead ? pairs - kBoxesAhead : 0u;
    for (unsigned part = 0; part < mLevels; ++part)
    {
        const uint32_t end = static_cast<uint32_t>(uint64_t{pairs} * (part + 1u) / mLevels);
        for (uint32_t j = static_cast<uint32_t>(uint64_t{pairs} * part / mLevels); j < end; ++j)
        {
            const unsigned level = mPairLevel[j];
            if (level == 0)
                continue;
            // Boxes lie in the order of the primitives, scattered over the sorted positions.
            if (j < lastAhead)
                prefetchForRead(&boxOf(container, indexes[j + kBoxesAhead]));
            // The run ending at j is a leaf of the emitted tree; the runs of deeper splits
            // end here too.
            finishLeaf(runStart, j + 1u - runStart);
            runStart = j + 1u;
            while (open[depth - 1].level > level)
                close(open[--depth]);
            open[depth++] = {level, completed};
        }
        // One poll per level, spread over the sweep: as often as emitting level after level.
        if (part + 1u < mLevels && cancelled(cancel))
            return false;
    }
    finishLeaf(runStart, mQuantity - runStart);
    while (depth > 1)
        close(open[--depth]);
    place(records[0], completed);
#ifndef NDEBUG
    uint64_t placed = 0;
    for (unsigned level = 1; level <= mLevels; ++level)
    {
        placed += survivors[level];
        assert(nextPair[level] == placed && "survivors counted as the sweep fuses");
    }
#endif
    return mLevels == 0 || !cancelled(cancel);
}

template bool kxRunLevels::build(std::vector<kxGNode>&, const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface&,
                                 const uint32_t*, uint32_t, const kx::kxCancelInterfaceReadOnly*) const;
template bool kxRunLevels::build(std::vector<kxGNode>&, const kxBVHTriangleContainer&, const uint32_t*, uint32_t,
                                 const kx::kxCancelInterfaceReadOnly*) const;
} // namespace kxLinearBVH
