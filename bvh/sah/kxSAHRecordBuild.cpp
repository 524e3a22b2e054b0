#include "kxSAHRecordBuild.h"
#include "kxBVHContainers.h"
#include "../kxHugePages.h"

#include <limits>
#include <typeinfo>
#include <utility>

using namespace kxSAHLanes;
using kx::detail::kSAHMaxBinnedNode;
using kx::detail::kSAHMaxForcedLeaf;
using kx::detail::kSAHMaxSplitDepth;
using kx::detail::kSAHNodeGrowthStep;

namespace
{
inline void growToHold(std::vector<kxGNode>& nodes, uint32_t index)
{
    if (index >= nodes.size())
        nodes.resize((index + kSAHNodeGrowthStep) & ~(kSAHNodeGrowthStep - 1));
}

inline void makeLeaf(kxGNode& node, uint32_t start, uint32_t count)
{
    node.count = count;
    node.offset = start | kxGNode::eLeafMark;
}
} // namespace

kxSAHRecordBuild::kxSAHRecordBuild(unsigned int binCount, const kxBVHCostFunctor* customCost)
    : mBinCount(binCount), mCustomCost(customCost)
{
}

void kxSAHRecordBuild::build(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
                             kxGenericBVH& bvh, std::vector<uint32_t>& indices)
{
    const uint32_t n = container.getQuantity();
    // The index array holds the median keys until the end: one array fewer to fault in.
    kxMemory::reserveWithHugePages(indices, n);
    indices.resize(n);
    mKeys = indices.data();
    mBVH = &bvh;
    fill(container, bvh);
    buildIter(0, 0, n, 0);
    mCandidates.reset();
    for (uint32_t i = 0; i < n; ++i)
        indices[i] = mRecords[i].index;
    mRecords.reset();
    bvh.mPrimitiveIndices = std::move(indices);
    bvh.mPrimitiveCount = n;
    mBVH = nullptr;
    mKeys = nullptr;
}

namespace
{
/// Records of the container's boxes; returns their union.
template <typename BoxOf>
Box fillRecords(Record* records, uint32_t n, const BoxOf& boxOf)
{
    Box root = emptyBox();
    for (uint32_t i = 0; i < n; ++i)
    {
        // Built in registers and stored whole: rereading four scalar stores as one vector
        // would stall on every record.
        const Box box = recordLanes(boxOf(i), i);
        storeRaw(records[i], box);
        grow(root, box);
    }
    return root;
}
} // namespace

void kxSAHRecordBuild::fill(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
                            kxGenericBVH& bvh)
{
    const uint32_t n = container.getQuantity();
    // Left uninitialised: each array is touched first where it is first filled.
    mRecords.reset(new Record[n]);
    kxMemory::adviseHugePages(mRecords.get(), size_t{n} * sizeof(Record));
    mCandidates.reset(new uint32_t[n]);
    kxMemory::adviseHugePages(mCandidates.get(), size_t{n} * sizeof(uint32_t));
    Box root;
    // The library's own triangle container: its boxes without a virtual call each.
    if (typeid(container) == typeid(kxBVHTriangleContainer))
    {
        const auto& triangles = static_cast<const kxBVHTriangleContainer&>(container);
        root = fillRecords(mRecords.get(), n,
                           [&](uint32_t i) -> const kxBBox& { return triangles.kxBVHTriangleContainer::getBBox(i); });
    }
    else
        root = fillRecords(mRecords.get(), n, [&](uint32_t i) -> const kxBBox& { return container.getBBox(i); });
    const uint32_t slots = 3u * mBinCount;
    mBinCounts.assign(slots, 0u);
    mLaneCounts.assign(4u * mBinCount, 0u);
    mLeftBoxes.assign(slots, emptyBox());
    mRightBoxes.assign(slots, emptyBox());
    mPlaneCosts.assign(slots, std::numeric_limits<float>::infinity());
    mRightCosts.assign(4u * mBinCount, 0.0f);
    mBinned = false;

    kxGNode rootNode;
    store(rootNode.bbox, root);
    bvh.mNodes = std::vector<kxGNode>(1, rootNode);
    bvh.mNodeCount = 1;
}

bool kxSAHRecordBuild::exportLastBinning(std::vector<uint32_t>& counts, std::vector<kxBBox>& left,
                                         std::vector<kxBBox>& right)
{
    if (!mBinned)
        return false;
    sweep();
    counts = mBinCounts;
    left.resize(mLeftBoxes.size());
    right.resize(mRightBoxes.size());
    for (size_t e = 0; e < mLeftBoxes.size(); ++e)
    {
        store(left[e], mLeftBoxes[e]);
        store(right[e], mRightBoxes[e]);
    }
    return true;
}

void kxSAHRecordBuild::buildIter(uint32_t node, uint32_t start, uint32_t count, int depth)
{
    std::vector<kxGNode>& nodes = mBVH->mNodes;
    if (count <= kSAHMaxForcedLeaf || depth > kSAHMaxSplitDepth)
    {
        makeLeaf(nodes[node], start, count);
        return;
    }
    const kxBBox box = nodes[node].bbox;
    kxBBox::tAxis axis;
    float pos;
    if (count > kSAHMaxBinnedNode)
    {
        box.getMaxExtent(axis);
        pos = medianPosition(box, start, count, kxBBox::component(axis));
        splitNode(node, start, count, axis, pos, depth);
        return;
    }
    computeBinning(box, start, count);
    if (!findSplitPlane(box, count, axis, pos))
    {
        makeLeaf(nodes[node], start, count);
        return;
    }
    splitNode(node, start, count, axis, pos, depth);
}

void kxSAHRecordBuild::splitNode(uint32_t node, uint32_t start, uint32_t count, kxBBox::tAxis axis, float pos,
                                 int depth)
{
    const int a = kxBBox::component(axis);
    Box left = emptyBox();
    Box right = emptyBox();
    Record* const records = mRecords.get();
    uint32_t front = start;
    uint32_t back = start + count - 1;
    for (uint32_t k = 0; k < count; ++k)
    {
        Record& r = records[front];
        const float c = (r.min[a] + r.max[a]) * 0.5f;
        // Only min and max see the index lane here: the child boxes store lanes 0-2.
        const Box mine = loadRaw(r);
        if (pos >= c)
        {
            grow(left, mine);
            ++front;
        }
        else
        {
            // The record brought in from the back is examined next.
            grow(right, mine);
            storeRaw(r, loadRaw(records[back]));
            storeRaw(records[back], mine);
            --back;
        }
    }
    const uint32_t nLeft = front - start;
    const uint32_t nRight = start + count - front;

    kxGenericBVH& bvh = *mBVH;
    const uint32_t l = bvh.mNodeCount;
    const uint32_t r = l + 1;
    bvh.mNodeCount += 2;
    // Two steps as in the builder's own split: the array's capacity, which the memory
    // figure reports, follows the same growth.
    growToHold(bvh.mNodes, l);
    growToHold(bvh.mNodes, r);
    store(bvh.mNodes[l].bbox, left);
    store(bvh.mNodes[r].bbox, right);
    bvh.mNodes[node].offset = (l & kxGNode::eIndexMask) | static_cast<uint32_t>(axis);
    bvh.mNodes[node].count = r;

    buildIter(l, start, nLeft, depth + 1);
    buildIter(r, start + nLeft, nRight, depth + 1);
}
