#include "kxRunLevels.h"

#include "kxHighestBit.h"

#include <algorithm>

namespace kxLinearBVH
{
namespace
{
// How far ahead of its writes a level's stretch of records is fetched, in child pairs.
constexpr uint32_t kStreamAhead = 64;

// Level 1 splits on z, 2 on y, 3 on x, 4 on z again.
constexpr uint32_t kAxisOfLevel[3] = {kxBBox::eAxisX, kxBBox::eAxisZ, kxBBox::eAxisY};

// A split whose run has not ended yet: the level it splits at, the first of the two
// records its halves got and the final words of its left half.
struct OpenSplit
{
    uint32_t children;
    unsigned level;
    kxNodeWords left;
};

// The record of a run that ends where a split of the given level begins: the right half
// of the split before it when that one is deeper, else the left half of the new split.
// Chosen without a branch, as which one it is follows the codes and cannot be predicted.
inline uint32_t halfEndingHere(const OpenSplit& before, unsigned level, uint32_t children)
{
    const uint32_t deeper = before.level > level ? ~0u : 0u;
    return ((before.children + 1u) & deeper) | (children & ~deeper);
}
} // namespace

size_t kxEmittedTree::footprint(uint32_t quantity)
{
    const size_t leaves = quantity > 0 ? quantity : 1u;
    return kxBuildArena::footprint(2u * leaves * sizeof(kxNodeWords)) + kxBuildArena::footprint(leaves * sizeof(uint32_t));
}

kxRunLevels::kxRunLevels(unsigned levels, uint32_t quantity, kxBuildArena& arena)
    : mLevels(levels), mQuantity(quantity), mPairLevel(arena.allocate<uint8_t>(quantity))
{
}

size_t kxRunLevels::footprint(uint32_t quantity)
{
    return kxBuildArena::footprint(quantity);
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

bool kxRunLevels::emit(kxEmittedTree& tree, uint32_t maxPrimitivesPerLeaf, kxBuildArena& arena,
                       const kx::kxCancelInterfaceReadOnly* cancel)
{
    tree.leafCount = distinctCodes();
    tree.records = arena.allocate<kxNodeWords>(2u * tree.leafCount);
    tree.pairRank = arena.allocate<uint32_t>(tree.leafCount);
    kxNodeWords* records = tree.records;
    uint32_t* survives = tree.pairRank;
    const auto lastRecord = static_cast<uint32_t>(2u * tree.leafCount - 1u);

    // The pairs of each level follow those of all lower levels.
    uint32_t nextChildren[kMaxLevels + 1];
    uint64_t pairsBefore = 0;
    for (unsigned level = 1; level <= mLevels; ++level)
    {
        nextChildren[level] = static_cast<uint32_t>(1u + 2u * pairsBefore);
        pairsBefore += mSplitsAt[level];
    }

    // The open splits, by strictly increasing level: two splits of one level always have
    // a split of a lower level between them (inside one run the bit of a level flips
    // once), so there is at most one per level. The run a split cuts reaches from the
    // nearest split of a lower level on its left to the nearest one on its right.
    // Below them lies a guard of level 0, shallower than every split, whose right half is
    // the root: the runs that end with no split left open are the root's.
    OpenSplit open[kMaxLevels + 2];
    open[0] = {~0u, 0u, {}};
    unsigned depth = 1;
    uint32_t axisOfLevel[kMaxLevels + 1];
    for (unsigned level = 0; level <= mLevels; ++level)
        axisOfLevel[level] = kAxisOfLevel[level % 3];
    // The words of the node completed last, leaf or closed split: the left half of a split
    // opened next, or the right half of a split closed next.
    kxNodeWords completed;
    const auto completeLeaf = [&](uint32_t record, uint32_t first, uint32_t count)
    {
        completed = {first | kxGNode::eLeafMark, count};
        records[record] = completed;
    };
    // A split closes when both its halves are final, so fusing decides here, bottom-up: the
    // split becomes a leaf over both halves' runs when both are leaves with at most the
    // limit together. The left half's run comes first.
    const auto close = [&](const OpenSplit& split, uint32_t record)
    {
        const kxNodeWords& left = split.left;
        const uint64_t sum = uint64_t{left.count} + completed.count;
        const bool fuse = left.offset >= kxGNode::eLeafMark && completed.offset >= kxGNode::eLeafMark &&
                          sum <= maxPrimitivesPerLeaf;
        survives[split.children >> 1] = fuse ? 0u : 1u;
        completed.offset = fuse ? left.offset : (split.children & kxGNode::eIndexMask) | axisOfLevel[split.level];
        completed.count = fuse ? static_cast<uint32_t>(sum) : split.children + 1u;
        records[record] = completed;
    };

    uint32_t runStart = 0;
    const uint32_t pairs = mQuantity > 0 ? mQuantity - 1u : 0u;
    for (unsigned part = 0; part < mLevels; ++part)
    {
        const uint32_t end = static_cast<uint32_t>(uint64_t{pairs} * (part + 1u) / mLevels);
        for (uint32_t j = static_cast<uint32_t>(uint64_t{pairs} * part / mLevels); j < end; ++j)
        {
            const unsigned level = mPairLevel[j];
            if (level == 0)
                continue;
            const uint32_t children = nextChildren[level];
            nextChildren[level] += 2u;
            // Each level fills its own stretch of records from left to right, too many
            // stretches at once for the hardware to see them coming.
            const uint32_t ahead = std::min(children + 2u * kStreamAhead, lastRecord);
            prefetchForWrite(records + ahead);
            prefetchForWrite(survives + (ahead >> 1));
            // The run ending at j is a leaf of the tree: the right half of the previous
            // split if that one is deeper, else the left half of this one.
            completeLeaf(halfEndingHere(open[depth - 1], level, children), runStart, j + 1u - runStart);
            runStart = j + 1u;
            // The runs of deeper splits end here. Each cut the right half of the split below
            // it when that one is deeper too, else the left half of this split.
            while (open[depth - 1].level > level)
            {
                --depth;
                close(open[depth], halfEndingHere(open[depth - 1], level, children));
            }
            open[depth++] = {children, level, completed};
        }
        // One poll per level, spread over the sweep: as often as emitting level after level.
        if (part + 1u < mLevels && cancelled(cancel))
            return false;
    }
    completeLeaf(open[depth - 1].children + 1u, runStart, mQuantity - runStart);
    while (depth > 1)
    {
        --depth;
        close(open[depth], open[depth - 1].children + 1u);
    }
    return mLevels == 0 || !cancelled(cancel);
}
} // namespace kxLinearBVH
