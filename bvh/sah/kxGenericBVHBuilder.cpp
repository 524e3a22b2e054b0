#include "kxGenericBVHBuilder.h"
#include "kxSAHInternal.h"
#include "kxSAHRecordBuild.h"
#include "../kxHugePages.h"

#include <typeinfo>
#include <utility>

namespace
{
using kx::detail::kSAHMaxBinnedNode;
using kx::detail::kSAHMaxForcedLeaf;
using kx::detail::kSAHMaxSplitDepth;
using kx::detail::kSAHNodeGrowthStep;

// Smallest multiple of the growth step strictly above index.
inline void growToHold(std::vector<kxGNode>& nodes, uint32_t index)
{
    if (index >= nodes.size())
        nodes.resize((index + kSAHNodeGrowthStep) & ~(kSAHNodeGrowthStep - 1));
}

template <typename T>
void release(std::vector<T>& v)
{
    std::vector<T>().swap(v);
}
} // namespace

kxBVHCostFunctor::~kxBVHCostFunctor() = default;

float kxDefaultSAH::f(const kxBBox& box, unsigned int n) const
{
    const float ex = box.max[0] - box.min[0];
    const float ey = box.max[1] - box.min[1];
    const float ez = box.max[2] - box.min[2];
    return (ex * (ey + ez) + ey * ez) * static_cast<float>(n + 4u);
}

kxGenericBVHBuilder::kxGenericBVHBuilder(unsigned int binCount, const kxBVHCostFunctor* cost)
    : mBinCount(binCount == 0 ? 1u : binCount), mSectionY(mBinCount), mSectionZ(2u * mBinCount),
      mCost(cost ? cost : &mDefaultCost)
{
}

kxGenericBVHBuilder::~kxGenericBVHBuilder() = default;

void kxGenericBVHBuilder::prepare(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
                                  kxGenericBVH& bvh)
{
    const uint32_t n = container.getQuantity();
    kxGNode root;
    // Each work array is touched page by page as it is first filled.
    kxMemory::reserveWithHugePages(mPrimitiveBoxes, n);
    kxMemory::reserveWithHugePages(mIndices, n);
    kxMemory::reserveWithHugePages(mMedianPermutation, n);
    kxMemory::reserveWithHugePages(mMedianScratch, n);
    kxMemory::reserveWithHugePages(mMedianKeys, n);
    kxMemory::reserveWithHugePages(mMedianKeyScratch, n);
    mPrimitiveBoxes.resize(n);
    mIndices.resize(n);
    for (uint32_t i = 0; i < n; ++i)
    {
        mPrimitiveBoxes[i] = container.getBBox(i);
        mIndices[i] = i;
        root.bbox.extend(mPrimitiveBoxes[i]);
    }
    mMedianPermutation.resize(n);
    mMedianScratch.resize(n);
    mMedianKeys.resize(n);
    mMedianKeyScratch.resize(n);
    mBinCounts.resize(3u * mBinCount);
    mLeftBoxes.resize(3u * mBinCount);
    mRightBoxes.resize(3u * mBinCount);

    bvh.mNodes = std::vector<kxGNode>(1, root);
    bvh.mNodeCount = 1;
}

void kxGenericBVHBuilder::build(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
                                kxGenericBVH& bvh)
{
    // The record build takes prepare's and buildIter's decisions without their work
    // arrays; only the default cost's exact type is priced inline.
    const kxBVHCostFunctor* custom = typeid(*mCost) == typeid(kxDefaultSAH) ? nullptr : mCost;
    {
        kxSAHRecordBuild records(mBinCount, custom);
        records.build(container, bvh, mIndices);
        if (!records.exportLastBinning(mBinCounts, mLeftBoxes, mRightBoxes))
        {
            mBinCounts.resize(3u * mBinCount);
            mLeftBoxes.resize(3u * mBinCount);
            mRightBoxes.resize(3u * mBinCount);
        }
    }
    release(mIndices);
    release(mPrimitiveBoxes);
    release(mMedianPermutation);
    release(mMedianScratch);
    release(mMedianKeys);
    release(mMedianKeyScratch);
}

void kxGenericBVHBuilder::makeLeaf(kxGNode& node, unsigned int start, unsigned int count) const
{
    node.count = count;
    node.offset = start | kxGNode::eLeafMark;
}

void kxGenericBVHBuilder::buildIter(unsigned int node, kxGenericBVH& bvh, unsigned int start, unsigned int count,
                                    int depth)
{
    if (count <= kSAHMaxForcedLeaf || depth > kSAHMaxSplitDepth)
    {
        makeLeaf(bvh.mNodes[node], start, count);
        return;
    }
    kxBBox::tAxis axis;
    float pos;
    if (count > kSAHMaxBinnedNode)
    {
        bvh.mNodes[node].bbox.getMaxExtent(axis);
        findMedianSplit(bvh.mNodes[node], start, count, axis, pos);
        splitNode(node, bvh, start, count, axis, pos, depth);
        return;
    }
    computeBinning(bvh.mNodes[node], start, count);
    if (!findSplitPlane(bvh.mNodes[node], count, axis, pos))
    {
        makeLeaf(bvh.mNodes[node], start, count);
        return;
    }
    splitNode(node, bvh, start, count, axis, pos, depth);
}

void kxGenericBVHBuilder::splitNode(unsigned int node, kxGenericBVH& bvh, unsigned int start, unsigned int count,
                                    kxBBox::tAxis axis, float pos, int depth)
{
    const int a = kxBBox::component(axis);
    kxBBox left;
    kxBBox right;
    uint32_t front = start;
    uint32_t back = start + count - 1;
    for (unsigned int k = 0; k < count; ++k)
    {
        const kxBBox& box = mPrimitiveBoxes[mIndices[front]];
        const float c = (box.min[a] + box.max[a]) * 0.5f;
        if (pos >= c)
        {
            kx::detail::grow(left, box);
            ++front;
        }
        else
        {
            // The entry brought in from the back is examined next.
            kx::detail::grow(right, box);
            std::swap(mIndices[front], mIndices[back]);
            --back;
        }
    }
    const uint32_t nLeft = front - start;
    const uint32_t nRight = start + count - front;

    const uint32_t l = bvh.mNodeCount;
    const uint32_t r = l + 1;
    bvh.mNodeCount += 2;
    growToHold(bvh.mNodes, l);
    growToHold(bvh.mNodes, r);
    // Growth moves the array: address the parent only from here on.
    bvh.mNodes[l].bbox = left;
    bvh.mNodes[r].bbox = right;
    bvh.mNodes[node].offset = (l & kxGNode::eIndexMask) | static_cast<uint32_t>(axis);
    bvh.mNodes[node].count = r;

    buildIter(l, bvh, start, nLeft, depth + 1);
    buildIter(r, bvh, start + nLeft, nRight, depth + 1);
}
