#include "kxRefitAndFuse.h"

#include "kxLinearBuildSupport.h"

#include "../kxBoxLanes.h"
#include "../kxHugePages.h"

#include <algorithm>

namespace kxLinearBVH
{
namespace
{
// Leaves of the main road hold up to four primitives.
constexpr uint32_t kSmallLeaf = 4;
// The refit fetches a leaf's primitive boxes, or an inner record's children, this many
// records before it reaches the record, and a leaf's positions three times as far.
constexpr size_t kRefitAhead = 16;

template <typename Node>
inline bool isLeaf(const Node& node)
{
    return node.offset >= kxGNode::eLeafMark;
}

template <typename Node>
inline uint32_t leftChild(const Node& node)
{
    return node.offset & kxGNode::eIndexMask;
}

template <typename Node>
inline uint32_t rightChild(const Node& node)
{
    return node.count & kxGNode::eRightChildMask;
}

// Turns the survival marks into ranks: entry q becomes the number of surviving pairs
// before pair q, and the last entry their total.
void rankSurvivingPairs(kxEmittedTree& tree)
{
    uint32_t* rank = tree.pairRank;
    uint32_t sum = 0;
    for (uint64_t pair = 0; pair < tree.leafCount; ++pair)
    {
        const uint32_t survives = pair + 1u < tree.leafCount ? rank[pair] : 0u;
        rank[pair] = sum;
        sum += survives;
    }
}

// Copies the root and the surviving pairs, renumbered, into nodes. A surviving pair of
// rank r becomes records 2r + 1 and 2r + 2.
void copySurvivors(kxEmittedTree& tree, std::vector<kxGNode>& nodes)
{
    const kxNodeWords* records = tree.records;
    const uint32_t* rank = tree.pairRank;
    const uint64_t pairs = tree.leafCount - 1u;
    kxMemory::reserveWithHugePages(nodes, 1u + 2u * uint64_t{rank[pairs]});
    const auto copy = [&](uint64_t record)
    {
        kxNodeWords words = records[record];
        if (!isLeaf(words))
        {
            const uint32_t left = 1u + 2u * rank[(leftChild(words) - 1u) >> 1];
            words.offset = (left & kxGNode::eIndexMask) | (words.offset & kxGNode::eKindMask);
            words.count = left + 1u;
        }
        // Built in place: a record assembled aside and copied would be reloaded in wider
        // pieces than it was stored, which stalls.
        kxGNode& node = nodes.emplace_back();
        node.offset = words.offset;
        node.count = words.count;
    };
    copy(0);
    for (uint64_t pair = 0; pair < pairs; ++pair)
    {
        if (rank[pair] == rank[pair + 1u])
            continue;
        copy(2u * pair + 1u);
        copy(2u * pair + 2u);
    }
}

// left extended by right, with the comparisons of kxBBox::extend.
inline void storeUnion(kxBBox& target, const kxBBox& left, const kxBBox& right)
{
    using namespace kxBoxLanes;
    storeShifted(target, lower(loadMinimum(right), loadMinimum(left)),
                 upper(loadShiftedMaximum(right), loadShiftedMaximum(left)));
}
} // namespace

bool fuseLeaves(kxEmittedTree& tree, const kx::kxCancelInterfaceReadOnly* cancel, std::vector<kxGNode>& nodes)
{
    // Emission has decided; a cancel source is still polled once per emitted record and
    // once after, as a count over the whole emitted tree would poll it.
    if (cancel)
    {
        const uint64_t polls = 2u * tree.leafCount;
        for (uint64_t poll = 0; poll < polls; ++poll)
            if (cancelled(cancel))
                return false;
    }
    rankSurvivingPairs(tree);
    copySurvivors(tree, nodes);
    return !cancelled(cancel);
}

template <typename Container>
bool refit(std::vector<kxGNode>& nodes, uint64_t emitted, const Container& container,
           const uint32_t* primitiveIndexes, uint32_t quantity, const kx::kxCancelInterfaceReadOnly* cancel)
{
    // A cancel source is polled once per emitted record and once per primitive, as a
    // refit of the whole emitted tree would poll it, so that where a cancel lands among
    // the build's polls and log lines does not depend on fusing.
    if (cancel)
    {
        for (uint64_t poll = 0; poll < emitted + quantity; ++poll)
            if (cancelled(cancel))
                return false;
    }
    // Records are visited from the last to the first, so that every child is done before
    // its parent and the records are written in one sweep. A leaf's positions and then its
    // primitives' boxes, scattered over the container, are fetched some records ahead.
    kxGNode* records = nodes.data();
    const auto leafPositions = [&](const kxGNode& node) { return primitiveIndexes + (node.offset & kxGNode::eIndexMask); };
    for (size_t k = nodes.size(); k-- > 0;)
    {
        if (k >= 3u * kRefitAhead && isLeaf(records[k - 3u * kRefitAhead]))
            prefetchForRead(leafPositions(records[k - 3u * kRefitAhead]));
        if (k >= kRefitAhead)
        {
            const kxGNode& ahead = records[k - kRefitAhead];
            if (!isLeaf(ahead))
                prefetchForRead(records + leftChild(ahead));
            else if (ahead.count > 0)
                for (uint32_t i = 0; i < kSmallLeaf; ++i)
                    prefetchForRead(&boxOf(container, leafPositions(ahead)[std::min(i, ahead.count - 1u)]));
        }
        kxGNode& node = records[k];
        if (!isLeaf(node))
        {
            storeUnion(node.bbox, records[leftChild(node)].bbox, records[rightChild(node)].bbox);
            continue;
        }
        // Only the root of an empty tree has no primitive; its box stays empty. Small leaves
        // take the same steps whatever their count, their last box taken again: growing a
        // box by the box it has just grown by changes nothing, and a loop that ends after
        // one to four steps at random would be mispredicted.
        const uint32_t* positions = leafPositions(node);
        kxBoxLanes::WholeBoxAccumulator box;
        if (node.count - 1u < kSmallLeaf)
            for (uint32_t i = 0; i < kSmallLeaf; ++i)
                box.extend(boxOf(container, positions[std::min(i, node.count - 1u)]));
        else
            for (uint32_t i = 0; i < node.count; ++i)
                box.extend(boxOf(container, positions[i]));
        box.store(node.bbox);
    }
    return true;
}

template bool refit(std::vector<kxGNode>&, uint64_t, const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface&,
                    const uint32_t*, uint32_t, const kx::kxCancelInterfaceReadOnly*);
template bool refit(std::vector<kxGNode>&, uint64_t, const kxBVHTriangleContainer&, const uint32_t*, uint32_t,
                    const kx::kxCancelInterfaceReadOnly*);
} // namespace kxLinearBVH
