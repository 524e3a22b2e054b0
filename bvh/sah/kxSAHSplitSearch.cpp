#include "kxGenericBVHBuilder.h"
#include "kxSAHInternal.h"
#include "kxSAHLanes.h"

#include <algorithm>
#include <limits>

void kxGenericBVHBuilder::computeBinning(const kxGNode& node, unsigned int start, unsigned int count)
{
    const uint32_t bins = mBinCount;
    const uint32_t section[3] = {0u, mSectionY, mSectionZ};
    float scale[3];
    for (int a = 0; a < 3; ++a)
        scale[a] = static_cast<float>(bins) / (node.bbox.max[a] - node.bbox.min[a]);

    std::fill(mBinCounts.begin(), mBinCounts.end(), 0u);
    std::fill(mLeftBoxes.begin(), mLeftBoxes.end(), kxBBox());

    for (unsigned int p = start; p < start + count; ++p)
    {
        const kxBBox& b = mPrimitiveBoxes[mIndices[p]];
#pragma GCC unroll 3
        for (int a = 0; a < 3; ++a)
        {
            const float c = (b.min[a] + b.max[a]) * 0.5f;
            const uint32_t j = std::min(bins - 1u, kxSAHLanes::truncateToLow32((c - node.bbox.min[a]) * scale[a]));
            const uint32_t e = section[a] + j;
            ++mBinCounts[e];
            kx::detail::grow(mLeftBoxes[e], b);
        }
    }
    // Left and right boxes of a bin receive the same boxes in the same order.
    std::copy(mLeftBoxes.begin(), mLeftBoxes.end(), mRightBoxes.begin());

    if (bins < 2)
        return;
    for (uint32_t j = 1; j < bins; ++j)
    {
        for (uint32_t s : section)
        {
            mBinCounts[s + j] += mBinCounts[s + j - 1];
            kx::detail::grow(mLeftBoxes[s + j], mLeftBoxes[s + j - 1]);
            kx::detail::grow(mRightBoxes[s + bins - 1 - j], mRightBoxes[s + bins - j]);
        }
    }
}

bool kxGenericBVHBuilder::findSplitPlane(const kxGNode& node, unsigned int count, kxBBox::tAxis& axis,
                                         float& pos) const
{
    const uint32_t bins = mBinCount;
    const uint32_t section[3] = {0u, mSectionY, mSectionZ};
    float best = std::numeric_limits<float>::infinity();
    uint32_t bestIndex = 0;
    for (uint32_t s : section)
    {
        for (uint32_t j = 0; j + 1 < bins; ++j)
        {
            const uint32_t e = s + j;
            const uint32_t nLeft = mBinCounts[e];
            const float cost = mCost->f(mLeftBoxes[e], nLeft) + mCost->f(mRightBoxes[e + 1], count - nLeft);
            if (cost < best)
            {
                best = cost;
                bestIndex = e;
            }
        }
    }
    if (!(best < mCost->f(node.bbox, count)))
        return false;

    uint32_t j;
    if (bestIndex < bins)
    {
        axis = kxBBox::eAxisX;
        j = bestIndex;
    }
    else if (bestIndex < 2u * bins)
    {
        axis = kxBBox::eAxisY;
        j = bestIndex - bins;
    }
    else
    {
        axis = kxBBox::eAxisZ;
        j = bestIndex - 2u * bins;
    }
    const int a = kxBBox::component(axis);
    pos = static_cast<float>(j + 1) * (node.bbox.max[a] - node.bbox.min[a]) / static_cast<float>(bins) +
          node.bbox.min[a];
    return true;
}
