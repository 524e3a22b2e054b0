#ifndef KXQBVHTESTUTIL_H
#define KXQBVHTESTUTIL_H

#include "kxMedianSplitBVH.h"
#include "kxQBVH.h"
#include "kxTestMeshes.h"

#include <cstring>
#include <limits>
#include <numeric>

namespace kxtest
{
constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr float kInf = std::numeric_limits<float>::infinity();

inline uint32_t bitsOf(float f)
{
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

// A complete tree over two or four leaves, which become the slots of one node in this
// order; leaf i holds the next counts[i] triangles.
inline kxGenericBVH leafTree(const std::vector<kxBBox>& boxes, const std::vector<uint32_t>& counts)
{
    const auto n = static_cast<uint32_t>(boxes.size());
    kxGenericBVH bvh;
    bvh.mNodes.resize(2 * n - 1);
    bvh.mNodeCount = 2 * n - 1;
    for (uint32_t i = 0; i + 1 < n; ++i)
        bvh.mNodes[i] = {kxBBox(), 2 * i + 1, 2 * i + 2};
    for (uint32_t i = 0; i < n; ++i)
    {
        bvh.mNodes[n - 1 + i] = {boxes[i], bvh.mPrimitiveCount | kxGNode::eLeafMark, counts[i]};
        bvh.mPrimitiveCount += counts[i];
    }
    bvh.mPrimitiveIndices.resize(bvh.mPrimitiveCount);
    std::iota(bvh.mPrimitiveIndices.begin(), bvh.mPrimitiveIndices.end(), 0u);
    return bvh;
}
} // namespace kxtest

#endif
