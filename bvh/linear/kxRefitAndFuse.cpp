#include "kxRefitAndFuse.h"

#include "kxLinearBuildSupport.h"

#include "../kxBoxLanes.h"
#include "../kxHugePages.h"

#include <algorithm>

namespace kxLinearBVH
{
namespace
{
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
        if (isLeaf(words))
        {
            const uint32_t first = words.offset & kxGNode::eIndexMask;
            std::fill(tree.leafAt + first, tree.leafAt + first + words.count, static_cast<uint32_t>(nodes.size()));
        }
        else
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

// Hands out the container's boxes of the primitives at ascending positions. Each box is
// asked for a few positions ahead and prefetched, so that the cache misses of boxes
// scattered over the container overlap; every box is still asked for once, in order.
template <typename Container>
class kxBoxStream
{
public:
    kxBoxStream(const Container& container, const uint32_t* primitiveIndexes, uint32_t quantity)
        : mContainer(container), mIndexes(primitiveIndexes), mQuantity(quantity)
    {
        for (uint32_t position = 0; position < quantity && position < kAhead; ++position)
            request(position);
    }

    const kxBBox& next()
    {
        const kxBBox& box = *mAhead[mPosition % kAhead];
        if (mPosition + kAhead < mQuantity)
            request(mPosition + kAhead);
        ++mPosition;
        return box;
    }

private:
    static constexpr uint32_t kAhead = kPrefetchDistance;

    void request(uint32_t position)
    {
        const kxBBox& box = boxOf(mContainer, mIndexes[position]);
        prefetchForRead(&box);
        mAhead[position % kAhead] = &box;
    }

    const Container& mContainer;
    const uint32_t* mIndexes;
    uint32_t mQuantity;
    uint32_t mPosition = 0;
    const kxBBox* mAhead[kAhead];
};

// left extended by right, with the comparisons of kxBBox::extend.
inline void storeUnion(kxBBox& target, const kxBBox& left, const kxBBox& right)
{
    kxBoxLanes::store(target, _mm_min_ps(kxBoxLanes::load3(right.min), kxBoxLanes::load3(left.min)),
                      _mm_max_ps(kxBoxLanes::load3(right.max), kxBoxLanes::load3(left.max)));
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
bool refit(const kxEmittedTree& tree, std::vector<kxGNode>& nodes, const Container& container,
           const uint32_t* primitiveIndexes, uint32_t quantity, const kx::kxCancelInterfaceReadOnly* cancel)
{
    // Boxes are computed for the fused tree only, but a cancel source is polled once per
    // emitted record, as a refit of the whole emitted tree would poll it, so that where a
    // cancel lands among the build's polls and log lines does not depend on fusing.
    if (cancel)
    {
        const uint64_t emitted = 2u * tree.leafCount - 1u;
        for (uint64_t record = nodes.size(); record < emitted; ++record)
            if (cancelled(cancel))
                return false;
    }
    // The only leaf without primitives is the root of an empty tree; its box stays empty.
    if (quantity == 0)
        return !cancelled(cancel);
    const uint32_t* leafAt = tree.leafAt;
    kxBoxStream<Container> boxes(container, primitiveIndexes, quantity);
    for (uint32_t position = 0; position < quantity;)
    {
        if (position + kPrefetchDistance < quantity)
            prefetchForWrite(nodes.data() + leafAt[position + kPrefetchDistance]);
        if (cancelled(cancel))
            return false;
        kxGNode& node = nodes[leafAt[position]];
        kxBoxLanes::Accumulator box;
        for (uint32_t i = 0; i < node.count; ++i)
        {
            box.extend(boxes.next());
            if (cancelled(cancel))
                return false;
        }
        box.store(node.bbox);
        position += node.count;
    }
    for (size_t k = nodes.size(); k-- > 0;)
    {
        kxGNode& node = nodes[k];
        if (isLeaf(node))
            continue;
        if (cancelled(cancel))
            return false;
        storeUnion(node.bbox, nodes[leftChild(node)].bbox, nodes[rightChild(node)].bbox);
    }
    return true;
}

template bool refit(const kxEmittedTree&, std::vector<kxGNode>&,
                    const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface&, const uint32_t*, uint32_t,
                    const kx::kxCancelInterfaceReadOnly*);
template bool refit(const kxEmittedTree&, std::vector<kxGNode>&, const kxBVHTriangleContainer&, const uint32_t*,
                    uint32_t, const kx::kxCancelInterfaceReadOnly*);
} // namespace kxLinearBVH
