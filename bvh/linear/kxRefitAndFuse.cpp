#include "kxRefitAndFuse.h"

#include "kxLinearBuildSupport.h"

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

// Marks every record that survives with 1 at entry record + 1 and fuses small subtrees on
// the way up. An inner child has more primitives than the limit (or it would have been
// fused), so its parent can only fuse when both children are leaves.
bool markLiveRecords(kxGenericBVH& bvh, uint32_t maxPrimitivesPerLeaf, uint32_t* live,
                     const kx::kxCancelInterfaceReadOnly* cancel)
{
    kxGNode* nodes = bvh.mNodes.data();
    for (uint32_t k = bvh.mNodeCount; k-- > 0;)
    {
        if (cancelled(cancel))
            return false;
        live[k + 1] = 1;
        kxGNode& node = nodes[k];
        if (isLeaf(node))
            continue;
        const kxGNode& left = nodes[leftChild(node)];
        const kxGNode& right = nodes[rightChild(node)];
        if (!isLeaf(left) || !isLeaf(right))
            continue;
        const uint64_t sum = static_cast<uint64_t>(left.count) + right.count;
        if (sum > maxPrimitivesPerLeaf)
            continue;
        live[leftChild(node) + 1] = 0;
        live[rightChild(node) + 1] = 0;
        const uint32_t leftFirst = left.offset & kxGNode::eIndexMask;
        const uint32_t rightFirst = right.offset & kxGNode::eIndexMask;
        node.offset = (leftFirst < rightFirst ? leftFirst : rightFirst) | kxGNode::eLeafMark;
        node.count = static_cast<uint32_t>(sum);
    }
    return true;
}

// live[k] is the new number of record k once the table holds its running sum; a new number
// never exceeds the old one, so moving records in ascending order is safe in place.
void compactRecords(std::vector<kxGNode>& nodes, uint32_t* live)
{
    const size_t size = nodes.size();
    for (size_t k = 1; k <= size; ++k)
        live[k] += live[k - 1];
    for (size_t k = 0; k < size; ++k)
    {
        if (live[k] == live[k + 1])
            continue;
        kxGNode node = nodes[k];
        if (!isLeaf(node))
        {
            node.offset = (live[leftChild(node)] & kxGNode::eIndexMask) | (node.offset & kxGNode::eKindMask);
            node.count = live[rightChild(node)];
        }
        nodes[live[k]] = node;
    }
}
} // namespace

bool refit(kxGenericBVH& bvh, const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
           const uint32_t* primitiveIndexes, const kx::kxCancelInterfaceReadOnly* cancel)
{
    kxGNode* nodes = bvh.mNodes.data();
    for (uint32_t k = bvh.mNodeCount; k-- > 0;)
    {
        if (cancelled(cancel))
            return false;
        kxGNode& node = nodes[k];
        if (isLeaf(node))
        {
            kxBBox box;
            const uint32_t* primitive = primitiveIndexes + (node.offset & kxGNode::eIndexMask);
            for (uint32_t i = 0; i < node.count; ++i)
            {
                box.extend(container.getBBox(primitive[i]));
                if (cancelled(cancel))
                    return false;
            }
            node.bbox = box;
        }
        else
        {
            kxBBox box = nodes[leftChild(node)].bbox;
            box.extend(nodes[rightChild(node)].bbox);
            node.bbox = box;
        }
    }
    return true;
}

bool fuseLeaves(kxGenericBVH& bvh, uint32_t maxPrimitivesPerLeaf, const kx::kxCancelInterfaceReadOnly* cancel)
{
    std::vector<uint32_t> live(bvh.mNodes.size() + 1, 0u);
    if (!markLiveRecords(bvh, maxPrimitivesPerLeaf, live.data(), cancel) || cancelled(cancel))
        return false;
    compactRecords(bvh.mNodes, live.data());
    if (cancelled(cancel))
        return false;
    const size_t emittedSize = bvh.mNodes.size();
    const uint32_t kept = live.back();
    bvh.mNodes.resize(kept);
    kxBuildLogLine() << "fuse " << emittedSize << " into " << kept;
    std::vector<kxGNode>(bvh.mNodes.begin(), bvh.mNodes.end()).swap(bvh.mNodes);
    return true;
}
} // namespace kxLinearBVH
