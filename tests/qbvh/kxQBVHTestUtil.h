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

inline void buildWithLeafSize(kxQBVH& qbvh, unsigned int flags, const kx::kxTriMesh& mesh, unsigned int maxLeafSize)
{
    MedianSplitOptions options;
    options.maxLeafSize = maxLeafSize;
    qbvh.buildFromBVH(kxQBVH::tQBVHDataFlags(flags), buildMedianSplitBVH(mesh, options), mesh);
}
// A root over two leaves: triangles 0 .. count0 - 1 in the first, the next count1 in the
// second, with the boxes given.
inline kxGenericBVH twoLeaves(const kxBBox& first, uint32_t count0, const kxBBox& second, uint32_t count1)
{
    kxGenericBVH bvh;
    bvh.mPrimitiveCount = count0 + count1;
    bvh.mPrimitiveIndices.resize(bvh.mPrimitiveCount);
    std::iota(bvh.mPrimitiveIndices.begin(), bvh.mPrimitiveIndices.end(), 0u);
    bvh.mNodes = {{kxBBox(), 1, 2}, {first, kxGNode::eLeafMark, count0}, {second, count0 | kxGNode::eLeafMark, count1}};
    bvh.mNodeCount = 3;
    return bvh;
}
} // namespace kxtest

#endif
