#include "kxRunLevels.h"

#include "kxByteLanes.h"
#include "kxHighestBit.h"

#include "../kxBoxLanes.h"
#include "../kxHugePages.h"

#include <algorithm>
#include <cassert>
#include <cstring>

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
// Leaf limits up to this are decided sixteen pairs at a time from the pair levels around
// them (see splitsOfLongRuns), larger ones by a sweep of their own. The pads around the
// levels reach past the deepest search of the last sixteen pairs.
constexpr uint32_t kWindowLimit = 8;
static_assert(kxRunLevels::kPad >= 16 + kWindowLimit, "pads cover the search around the last pairs");

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

// Only the sweep's debug check asks.
[[maybe_unused]] inline bool isLeaf(uint32_t offset)
{
    return offset >= kxGNode::eLeafMark;
}

inline void place(kxGNode& record, const Finished& node)
{
    record.offset = node.offset;
    record.count = node.count;
    kxBoxLanes::storeShifted(record.bbox, node.lo, node.hi);
}

// Which of the sixteen pairs from first on split a run of more than limit primitives (at
// most kWindowLimit): bit i for the pair at first[i]. A run ends at the nearest pair on
// either side whose level is below its split's and not 0 (equal codes); the pads count as
// level 1. Each side is searched limit - 1 pairs deep, nearest last, so that the nearest
// end found gives the count on that side; limit stands for none found.
inline uint32_t splitsOfLongRuns(const uint8_t* first, uint32_t limit)
{
    using namespace kxByteLanes;
    const Lanes level = load(first);
    // Where the pairs from at on end the runs of the pairs from first on.
    const auto endsRun = [level](const uint8_t* at)
    {
        const Lanes other = load(at);
        return andNot(below(other, level), isZero(other));
    };
    Lanes left = splat(limit);
    Lanes right = left;
    for (uint32_t k = limit; k-- > 1;)
    {
        left = select(endsRun(first - k), splat(k), left);
        right = select(endsRun(first + k), splat(k), right);
    }
    const Lanes fused = below(add(left, right), splat(limit + 1));
    return ~bits(either(fused, isZero(level))) & 0xFFFFu;
}
} // namespace

kxRunLevels::kxRunLevels(unsigned levels, uint32_t quantity, kxBuildArena& arena)
    : mLevels(levels), mQuantity(quantity), mPairLevel(arena.allocate<uint8_t>(size_t{quantity} + 2u * kPad) + kPad),
      mSurviving(arena.allocate<uint16_t>(blocksOf(quantity)))
{
    std::fill(mPairLevel - kPad, mPairLevel, uint8_t{1});
    const uint32_t pairs = quantity > 0 ? quantity - 1u : 0u;
    std::fill(mPairLevel + pairs, mPairLevel + size_t{quantity} + kPad, uint8_t{1});
}

size_t kxRunLevels::footprint(uint32_t quantity)
{
    return kxBuildArena::footprint(size_t{quantity} + 2u * kPad) +
           kxBuildArena::footprint(blocksOf(quantity) * sizeof(uint16_t));
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
    // Sums in registers rather than a count per level: a count bumped again before its
    // last store has landed waits for it, and the deepest level comes every other pair.
    uint64_t splits = 0, runEnds = 0;
    for (uint32_t j = 0; j < pairs; ++j)
    {
        const Code difference = sortedCodes[j] ^ sortedCodes[j + 1];
        const unsigned split = difference != 0 ? ~0u : 0u;
        const unsigned level = (levels - highestBit(difference | 1u)) & split;
        pairLevel[j] = static_cast<uint8_t>(level);
        splits += split & 1u;
        runEnds += (levels + 1u - level) & split;
    }
    mSplits = splits;
    mRunEnds = runEnds;
}

template void kxRunLevels::count<uint32_t>(const uint32_t*);
template void kxRunLevels::count<uint64_t>(const uint64_t*);

uint64_t kxRunLevels::distinctCodes() const
{
    return 1u + mSplits;
}

uint64_t kxRunLevels::workingBufferBytes() const
{
    // Level l has 1 plus the splits of levels 1..l as runs: one run at each of the levels
    // 0..L, and each split adds a run to its own level and every deeper one.
    return 8u * (mLevels + 1u + mRunEnds);
}

// A split's children survive fusing exactly when its run holds more primitives than the
// limit: below it every subtree then holds more or is a single code, and above it all of
// it fuses into one leaf. The run of a split at pair j reaches from the nearest split of
// a lower level on its left to the nearest one on its right.
void kxRunLevels::findSurvivors(uint32_t maxPrimitivesPerLeaf, uint64_t (&survivors)[kMaxLevels + 1])
{
    std::fill(survivors, survivors + kMaxLevels + 1, uint64_t{0});
    const uint32_t pairs = mQuantity > 0 ? mQuantity - 1u : 0u;
    std::fill(mSurviving, mSurviving + blocksOf(mQuantity), uint16_t{0});
    if (mQuantity <= maxPrimitivesPerLeaf)
        return;
    if (maxPrimitivesPerLeaf <= kWindowLimit)
    {
        // Sixteen pairs at a time; the pads lie past the last block's end.
        alignas(16) uint8_t levels[16];
        for (uint64_t j = 0; j < pairs; j += 16)
        {
            const uint32_t inRange = pairs - j >= 16 ? 0xFFFFu : (1u << (pairs - j)) - 1u;
            const uint32_t surviving = splitsOfLongRuns(mPairLevel + j, maxPrimitivesPerLeaf) & inRange;
            mSurviving[j / 16] = static_cast<uint16_t>(surviving);
            std::memcpy(levels, mPairLevel + j, sizeof levels);
            for (uint32_t bits = surviving; bits != 0; bits &= bits - 1u)
                ++survivors[levels[__builtin_ctz(bits)]];
        }
        return;
    }
    // The splits still open, by strictly increasing level, with their pairs and the first
    // positions of their runs, above a guard of level 0.
    struct Open
    {
        unsigned level;
        uint32_t pair;
        uint32_t first;
    };
    Open open[kMaxLevels + 2];
    open[0] = {0u, 0u, 0u};
    unsigned depth = 1;
    const auto close = [&](const Open& split, uint32_t runEnd)
    {
        if (runEnd - split.first <= maxPrimitivesPerLeaf)
            return;
        ++survivors[split.level];
        mSurviving[split.pair / 16] = static_cast<uint16_t>(mSurviving[split.pair / 16] | 1u << (split.pair % 16));
    };
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
            close(open[--depth], j + 1u);
            first = open[depth].first;
        }
        open[depth++] = {level, j, first};
    }
    while (depth > 1)
        close(open[--depth], mQuantity);
}

template <typename Container>
bool kxRunLevels::build(std::vector<kxGNode>& nodes, const Container& container, const uint32_t* indexes,
                        uint32_t maxPrimitivesPerLeaf, const kx::kxCancelInterfaceReadOnly* cancel)
{
    // The surviving pairs of each level follow those of all lower levels, each level's in
    // the order of their positions, which is also the order in which they close.
    uint64_t survivors[kMaxLevels + 1];
    findSurvivors(maxPrimitivesPerLeaf, survivors);
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

    // Only the splits that survive fusing are visited: the positions between two of them
    // make a leaf of the fused tree. The open splits lie by strictly increasing level: two
    // splits of one level always have a split of a lower level between them (inside one
    // run the bit of a level flips once), so there is at most one per level. Below them
    // lies a guard of level 0, shallower than every split.
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
        if (count - 1u < kSmallLeaf)
            for (uint32_t i = 0; i < kSmallLeaf; ++i)
                box.extend(boxOf(container, positions[std::min(i, count - 1u)]));
        else
            for (uint32_t i = 0; i < count; ++i)
                box.extend(boxOf(container, positions[i]));
        completed.lo = box.minimumLanes();
        completed.hi = box.shiftedMaximumLanes();
    };
    // A split closes when both its halves are final: it takes the next pair of its level
    // for its halves and becomes inner, its box the union of its halves', the right one
    // extending the left.
    const auto close = [&](const OpenSplit& split)
    {
        const Finished& left = split.left;
        assert(!(isLeaf(left.offset) && isLeaf(completed.offset) &&
                 uint64_t{left.count} + completed.count <= maxPrimitivesPerLeaf) &&
               "only splits that survive fusing are visited");
        const uint32_t pair = nextPair[split.level]++;
        const uint32_t children = 1u + 2u * pair;
        // Each level fills its own stretch of records from left to right, too many
        // stretches at once for the hardware to see them coming.
        prefetchForWrite(records + std::min(children + 2u * kStreamAhead, lastRecord));
        place(records[children], left);
        place(records[children + 1u], completed);
        completed.offset = (children & kxGNode::eIndexMask) | axisOfLevel[split.level];
        completed.count = children + 1u;
        completed.lo = kxBoxLanes::lower(completed.lo, left.lo);
        completed.hi = kxBoxLanes::upper(completed.hi, left.hi);
    };

    uint32_t runStart = 0;
    const uint32_t pairs = mQuantity > 0 ? mQuantity - 1u : 0u;
    for (unsigned part = 0; part < mLevels; ++part)
    {
        const auto begin = static_cast<uint32_t>(uint64_t{pairs} * part / mLevels);
        const auto end = static_cast<uint32_t>(uint64_t{pairs} * (part + 1u) / mLevels);
        for (uint64_t block = begin / 16; block * 16u < end; ++block)
        {
            const auto base = static_cast<uint32_t>(block * 16u);
            uint32_t bits = mSurviving[block];
            if (base < begin)
                bits &= ~0u << (begin - base);
            if (end - base < 16u)
                bits &= (1u << (end - base)) - 1u;
            for (; bits != 0; bits &= bits - 1u)
            {
                const uint32_t j = base + static_cast<uint32_t>(__builtin_ctz(bits));
                const unsigned level = mPairLevel[j];
                // Boxes lie in the order of the primitives, scattered over the sorted
                // positions; leaves hold about as many as are fetched here for each.
                if (uint64_t{j} + kBoxesAhead + kSmallLeaf < mQuantity)
                    for (uint32_t i = 1; i <= kSmallLeaf; ++i)
                        prefetchForRead(&boxOf(container, indexes[j + kBoxesAhead + i]));
                // The run ending at j is a leaf of the fused tree; the runs of deeper
                // surviving splits end here too.
                finishLeaf(runStart, j + 1u - runStart);
                runStart = j + 1u;
                while (open[depth - 1].level > level)
                    close(open[--depth]);
                open[depth++] = {level, completed};
            }
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
        assert(nextPair[level] == placed && "survivors counted as the sweep visits them");
    }
#endif
    return mLevels == 0 || !cancelled(cancel);
}

template bool kxRunLevels::build(std::vector<kxGNode>&, const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface&,
                                 const uint32_t*, uint32_t, const kx::kxCancelInterfaceReadOnly*);
template bool kxRunLevels::build(std::vector<kxGNode>&, const kxBVHTriangleContainer&, const uint32_t*, uint32_t,
                                 const kx::kxCancelInterfaceReadOnly*);
} // namespace kxLinearBVH
