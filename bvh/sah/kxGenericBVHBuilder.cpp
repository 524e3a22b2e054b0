#include "kxGenericBVHBuilder.h"
#include "kxSAHInternal.h"
#include "../kxHugePages.h"

#include <utility>

namespace
{
constexpr unsigned int kMaxForcedLeaf = 16;
constexpr unsigned int kMaxBinnedNode = 1024;
constexpr int kMaxSplitDepth = 31;
constexpr uint32_t kGrowthStep = 1024;

// Smallest multiple of the growth step strictly above index.
inline void growToHold(std::vector<kxGNode>& nodes, uint32_t index)
{
    if (index >= nodes.size())
        nodes.resize((index + kGrowthStep) & ~(kGrowthStep - 1));
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
    prepare(container, bvh);
    const auto n = static_cast<uint32_t>(mIndices.size());
    buildIter(0, bvh, 0, n, 0);
    bvh.mPrimitiveIndices = std::move(mIndices);
    bvh.mPrimitiveCount = n;
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
    if (count <= kMaxForcedLeaf || depth > kMaxSplitDepth)
    {
        makeLeaf(bvh.mNodes[node], start, count);
        return;
    }
    kxBBox::tAxis axis;
    float pos;
    if (count > kMaxBinnedNode)
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
