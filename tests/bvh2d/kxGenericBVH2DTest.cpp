#include "kxBVHInvariants.h"
#include "kxGenericBVH2D.h"
#include "kxRandomGeometry.h"
#include "kxStandardOutputCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace
{
// The x and y extents of random triangle boxes.
std::vector<kxBBox2D> randomBoxes2D(uint32_t seed, uint32_t n, kxtest::Layout layout)
{
    std::vector<kxBBox2D> boxes;
    for (const kxBBox& b : kxtest::randomBoxes(seed, n, layout))
        boxes.push_back(kxBBox2D(Wm4::Vector2<float>(b.min[0], b.min[1]), Wm4::Vector2<float>(b.max[0], b.max[1])));
    return boxes;
}

// 16-bit cells of the centres over their bounding rectangle, interleaved one bit at a
// time, x in the even bits.
std::vector<uint32_t> referenceCodes(const std::vector<kxBBox2D>& boxes)
{
    kxBBox2D bounds;
    for (const auto& b : boxes)
        bounds.extend(b.getCenter());
    std::vector<uint32_t> codes;
    for (const auto& b : boxes)
    {
        uint32_t code = 0;
        for (int a = 0; a < 2; ++a)
        {
            const float lo = bounds.min[a], hi = bounds.max[a], scale = hi > lo ? 65535.0f / (hi - lo) : 0.0f;
            const float q = (b.getCenter()[a] - lo) * scale;
            const uint32_t cell = q <= 0.0f ? 0u : (q >= 65535.0f ? 65535u : uint32_t(q));
            for (int bit = 0; bit < 16; ++bit)
                code |= ((cell >> bit) & 1u) << (2 * bit + a);
        }
        codes.push_back(code);
    }
    return codes;
}

TEST(GenericBVH2D, LinearBuilderKeepsEveryTreeInvariantInMortonOrder)
{
    using kxtest::Layout;
    for (Layout layout : {Layout::Uniform, Layout::Clustered, Layout::Grid, Layout::Identical})
        for (uint32_t n : {0u, 1u, 2u, 5u, 100u, 3000u})
            for (unsigned int limit : {0u, 1u, 4u, 16u})
            {
                SCOPED_TRACE(::testing::Message() << "layout " << int(layout) << " n " << n << " limit " << limit);
                const auto boxes = randomBoxes2D(n * 7 + limit, n, layout);
                kxLinearGenericBVH2DBuilder builder;
                builder.setMaxPrimitivesPerLeaf(limit);
                ASSERT_EQ(builder.getMaxPrimitivesPerLeaf(), std::max(limit, 1u));
                kxGenericBVH2D bvh;
                builder.build(kxBVH2DBoxContainer(boxes), bvh);
                const kxtest::TreeShape shape = kxtest::checkTree(bvh, boxes);
                ASSERT_FALSE(HasFailure());
                ASSERT_EQ(bvh.mNodes.size(), bvh.mNodeCount);
                ASSERT_EQ(bvh.mNodeCount, 2 * shape.leaves.size() - 1) << "records outside the tree";

                // Leaf order is Morton order, equal codes by ascending primitive number.
                const auto codes = referenceCodes(boxes);
                const auto code = [&](uint32_t position) { return codes[bvh.mPrimitiveIndices[position]]; };
                for (uint32_t p = 1; p < n; ++p)
                    ASSERT_TRUE(code(p - 1) < code(p) ||
                                (code(p - 1) == code(p) && bvh.mPrimitiveIndices[p - 1] < bvh.mPrimitiveIndices[p]))
                        << "at " << p;
                // Inner nodes split where the highest differing code bit turns on; that bit
                // names the axis.
                for (uint32_t k = 0; k < bvh.mNodeCount; ++k)
                {
                    const kxGNode2D& node = bvh.mNodes[k];
                    const uint32_t first = shape.runs[k].first, last = first + shape.runs[k].count - 1;
                    const uint32_t differing = n == 0 ? 0 : code(first) ^ code(last);
                    if (node.offset >= 0xC0000000u || differing == 0)
                        continue;
                    const int bit = 31 - __builtin_clz(differing);
                    const uint32_t split = shape.runs[node.count].first;
                    EXPECT_TRUE((code(split - 1) >> bit & 1u) == 0 && (code(split) >> bit & 1u) == 1) << "node " << k;
                    EXPECT_EQ(node.offset & 0xC0000000u, bit % 2 ? 0x40000000u : 0u) << "node " << k;
                }
                for (const kxtest::TreeShape::Leaf& leaf : shape.leaves)
                    EXPECT_TRUE(leaf.count <= std::max(limit, 1u) && (leaf.count > 0 || n == 0)) << leaf.node;
                // The statistics walk is shared with the 3D tree; here it prints nothing.
                int nodes, leaves, minLeaf, maxLeaf;
                float avg;
                kxStandardOutputCapture out;
                bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
                EXPECT_TRUE(out.text().empty() && nodes == int(bvh.mNodeCount) && leaves == int(shape.leaves.size()) &&
                            avg == float(n) / float(leaves));
            }
}
} // namespace
