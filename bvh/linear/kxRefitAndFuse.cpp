#include "kxRefitAndFuse.h"

#include "kxLinearBuildSupport.h"

#include <algorithm>
#include <vector>

namespace kxLinearBVH
{
namespace
{
inline bool isLeaf(const kxGNode& node)
{
    return node.offset >= kxGNode::eLeafMark;
}

inline uint32_t leftChild(const kxGNode& node)
{
    return node.offset & kxGNode::eIndexMask;
}

inline uint32_t rightChild(const kxGNode& node)
{
    return node.count & kxGNode::eRightChildMask;
}

// Marks every record that survives with 1 at entry record + 1, fusing small subtrees on
// the way up. An inner child has more primitives than the limit (or it would have been
// fused), so a parent can only fuse when both children are leaves.
bool markLiveRecords(kxGNode* nodes, const kxEmittedTree& tree, uint32_t maxPrimitivesPerLeaf, uint32_t* live,
                     const kx::kxCancelInterfaceReadOnly* cancel)
{
    for (uint64_t pair = tree.leafCount - 1u; pair-- > 0;)
    {
        if (pair >= kPrefetchDistance)
            prefetchForWrite(nodes + tree.parentOfPair[pair - kPrefetchDistance]);
        const uint64_t left = 2u * pair + 1u;
        const uint64_t right = left + 1u;
        if (cancelled(cancel))
            return false;
        live[left + 1u] = 1;
        if (cancelled(cancel))
            return false;
        live[right + 1u] = 1;
        const kxGNode& leftNode = nodes[left];
        const kxGNode& rightNode = nodes[right];
        if (!isLeaf(leftNode) || !isLeaf(rightNode))
            continue;
        const uint64_t sum = static_cast<uint64_t>(leftNode.count) + rightNode.count;
        if (sum > maxPrimitivesPerLeaf)
            continue;
        live[left + 1u] = 0;
        live[right + 1u] = 0;
        const uint32_t leftFirst = leftNode.offset & kxGNode::eIndexMask;
        const uint32_t rightFirst = rightNode.offset & kxGNode::eIndexMask;
        kxGNode& parent = nodes[tree.parentOfPair[pair]];
        parent.offset = (leftFirst < rightFirst ? leftFirst : rightFirst) | kxGNode::eLeafMark;
        parent.count = static_cast<uint32_t>(sum);
    }
    if (cancelled(cancel))
        return false;
    live[1] = 1;
    return true;
}

// Copies the surviving records into nodes, renumbered: once live holds its running sum,
// live[k] is the new number of record k.
void compactRecords(const kxGNode* records, size_t recordCount, uint32_t* live, std::vector<kxGNode>& nodes)
{
    for (size_t k = 1; k <= recordCount; ++k)
        live[k] += live[k - 1];
    nodes.reserve(live[recordCount]);
    adviseHugePages(nodes.data(), nodes.capacity() * sizeof(kxGNode));
    for (size_t k = 0; k < recordCount; ++k)
    {
        if (live[k] == live[k + 1])
            continue;
        if (k + kPrefetchDistance < recordCount && !isLeaf(records[k + kPrefetchDistance]))
            prefetchForRead(live + leftChild(records[k + kPrefetchDistance]));
        kxGNode node = records[k];
        if (!isLeaf(node))
        {
            node.offset = (live[leftChild(node)] & kxGNode::eIndexMask) | (node.offset & kxGNode::eKindMask);
            node.count = live[rightChild(node)];
        }
        nodes.push_back(node);
    }
}

// Written component by component: a box assembled on the stack and copied whole would be
// reloaded in wider pieces than it was stored, which stalls.
inline void storeBox(kxBBox& target, const kxBBox& box)
{
    for (int a = 0; a < 3; ++a)
    {
        target.min[a] = box.min[a];
        target.max[a] = box.max[a];
    }
}

inline void storeUnion(kxBBox& target, const kxBBox& left, const kxBBox& right)
{
    for (int a = 0; a < 3; ++a)
    {
        target.min[a] = right.min[a] < left.min[a] ? right.min[a] : left.min[a];
        target.max[a] = right.max[a] > left.max[a] ? right.max[a] : left.max[a];
    }
}
} // namespace

bool refit(kxEmittedTree& tree, const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
           const uint32_t* primitiveIndexes, const kx::kxCancelInterfaceReadOnly* cancel)
{
    kxGNode* records = tree.records.get();
    for (uint64_t leaf = 0; leaf < tree.leafCount; ++leaf)
    {
        if (leaf + kPrefetchDistance < tree.leafCount)
            prefetchForWrite(records + tree.leaves[leaf + kPrefetchDistance]);
        if (cancelled(cancel))
            return false;
        kxGNode& node = records[tree.leaves[leaf]];
        kxBBox box;
        const uint32_t* primitive = primitiveIndexes + (node.offset & kxGNode::eIndexMask);
        for (uint32_t i = 0; i < node.count; ++i)
        {
            box.extend(container.getBBox(primitive[i]));
            if (cancelled(cancel))
                return false;
        }
        storeBox(node.bbox, box);
    }
    for (uint64_t pair = tree.leafCount - 1u; pair-- > 0;)
    {
        if (pair >= kPrefetchDistance)
            prefetchForWrite(records + tree.parentOfPair[pair - kPrefetchDistance]);
        if (cancelled(cancel))
            return false;
        storeUnion(records[tree.parentOfPair[pair]].bbox, records[2u * pair + 1u].bbox, records[2u * pair + 2u].bbox);
    }
    return true;
}

bool fuseLeaves(kxEmittedTree& tree, kxGenericBVH& bvh, uint32_t maxPrimitivesPerLeaf,
                const kx::kxCancelInterfaceReadOnly* cancel)
{
    const size_t recordCount = 2u * tree.leafCount;
    kxWorkArray<uint32_t> live(recordCount + 1);
    std::fill(live.get(), live.get() + recordCount + 1, 0u);
    if (!markLiveRecords(tree.records.get(), tree, maxPrimitivesPerLeaf, live.get(), cancel) || cancelled(cancel))
        return false;
    std::vector<kxGNode> nodes;
    compactRecords(tree.records.get(), recordCount, live.get(), nodes);
    if (cancelled(cancel))
        return false;
    kxBuildLogLine() << "fuse " << recordCount << " into " << nodes.size();
    bvh.mNodes.swap(nodes);
    return true;
}
} // namespace kxLinearBVH
