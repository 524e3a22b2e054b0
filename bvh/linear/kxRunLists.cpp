#include "kxRunLists.h"

#include "kxHighestBit.h"
#include "kxLinearBuildSupport.h"

namespace kxLinearBVH
{
namespace
{
// Level 1 splits on z, 2 on y, 3 on x, 4 on z again.
constexpr uint32_t kAxisOfLevel[3] = {kxBBox::eAxisX, kxBBox::eAxisZ, kxBBox::eAxisY};
} // namespace

kxRunLists::kxRunLists(unsigned levels) : mLevels(levels)
{
}

template <typename Code>
void kxRunLists::count(const Code* sortedCodes, uint32_t quantity)
{
    mQuantity = quantity;
    if (quantity < 2)
        return;
    const uint32_t pairs = quantity - 1u;
    mPairLevel = kxWorkArray<uint8_t>(pairs);
    for (uint32_t j = 0; j < pairs; ++j)
    {
        const Code difference = sortedCodes[j] ^ sortedCodes[j + 1];
        const unsigned level = difference ? mLevels - highestBit(difference) : 0u;
        mPairLevel[j] = static_cast<uint8_t>(level);
        ++mSplitsAt[level];
    }
}

template void kxRunLists::count<uint32_t>(const uint32_t*, uint32_t);
template void kxRunLists::count<uint64_t>(const uint64_t*, uint32_t);

uint64_t kxRunLists::distinctCodes() const
{
    uint64_t runs = 1;
    for (unsigned level = 1; level <= mLevels; ++level)
        runs += mSplitsAt[level];
    return runs;
}

uint64_t kxRunLists::workingBufferBytes() const
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

void kxRunLists::list()
{
    uint64_t cursor[kMaxLevels + 1];
    for (unsigned level = 1; level <= mLevels; ++level)
    {
        mListStart[level + 1] = mListStart[level] + mSplitsAt[level];
        cursor[level] = mListStart[level];
    }
    mSplits = kxWorkArray<Split>(distinctCodes() - 1u);
    mParentOfPair = kxWorkArray<uint32_t>(distinctCodes() - 1u);
    mRunNode = kxWorkArray<uint32_t>(mQuantity);
    if (mQuantity == 0)
        return;
    mRunNode[mQuantity - 1u] = 0;

    // The splits whose right end is still open, by strictly increasing level: two splits of
    // one level always have a split of a lower level between them (inside one run the bit
    // of a level flips once), so at most one entry per level.
    struct Open
    {
        uint64_t slot;
        unsigned level;
    };
    Open open[kMaxLevels + 1];
    unsigned depth = 0;
    for (uint32_t j = 0; j + 1u < mQuantity; ++j)
    {
        const unsigned level = mPairLevel[j];
        if (level == 0)
            continue;
        // The run a split cuts reaches from the nearest split of a lower level on its left
        // to the nearest one on its right.
        while (depth > 0 && open[depth - 1].level > level)
            mSplits[open[--depth].slot].last = j;
        const uint32_t first = depth > 0 ? mSplits[open[depth - 1].slot].position + 1u : 0u;
        const uint64_t slot = cursor[level]++;
        mSplits[slot].position = j;
        mSplits[slot].first = first;
        open[depth++] = {slot, level};
    }
    while (depth > 0)
        mSplits[open[--depth].slot].last = mQuantity - 1u;
    mPairLevel.reset();
}

void kxRunLists::emitLevel(unsigned level, kxNodeWords* records, uint32_t& nextFree)
{
    const uint32_t axis = kAxisOfLevel[level % 3];
    const Split* end = mSplits.get() + mListStart[level + 1];
    const Split* begin = mSplits.get() + mListStart[level];
    for (const Split* split = begin; split != end; ++split)
    {
        if (end - split > kPrefetchDistance)
            prefetchForWrite(records + mRunNode[split[kPrefetchDistance].last]);
        const uint32_t left = nextFree;
        const uint32_t right = left + 1u;
        nextFree += 2;
        const uint32_t parent = mRunNode[split->last];
        mParentOfPair[left >> 1] = parent;
        records[parent].offset = (left & kxGNode::eIndexMask) | axis;
        records[parent].count = right;
        records[left].offset = split->first | kxGNode::eLeafMark;
        records[left].count = split->position - split->first + 1u;
        records[right].offset = (split->position + 1u) | kxGNode::eLeafMark;
        records[right].count = split->last - split->position;
        mRunNode[split->position] = left;
        mRunNode[split->last] = right;
    }
}

void kxRunLists::finishEmission(kxEmittedTree& tree)
{
    tree.leafCount = distinctCodes();
    tree.parentOfPair = std::move(mParentOfPair);
    mSplits.reset();
    mRunNode.reset();
}
} // namespace kxLinearBVH
