#include "kxStandardOutputCapture.h"
#include "kxGenericBVH2D.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace
{
std::vector<kxBBox2D> randomBoxes2D(uint32_t seed, uint32_t n, int layout)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> wide(-100.0f, 100.0f);
    std::uniform_real_distribution<float> small(0.0f, 3.0f);
    std::uniform_int_distribution<int> lattice(0, 5);
    std::vector<kxBBox2D> boxes(n);
    for (auto& b : boxes)
    {
        Wm4::Vector2<float> lo;
        if (layout == 0)
            lo = Wm4::Vector2<float>(wide(rng), wide(rng));
        else if (layout == 1)
            lo = Wm4::Vector2<float>(float(lattice(rng)), float(lattice(rng)));
        else
            lo = Wm4::Vector2<float>(7.0f, -2.0f);
        const Wm4::Vector2<float> size = layout == 0 ? Wm4::Vector2<float>(small(rng), small(rng))
                                                     : Wm4::Vector2<float>(1.0f, 2.0f);
        b = kxBBox2D(lo, lo + size);
    }
    return boxes;
}

// 16-bit cells of the centres over their bounding rectangle, interleaved one bit at a
// time, x in the even bits.
std::vector<uint32_t> referenceCodes(const std::vector<kxBBox2D>& boxes)
{
    float lo[2] = {INFINITY, INFINITY}, hi[2] = {-INFINITY, -INFINITY};
    for (const auto& b : boxes)
        for (int a = 0; a < 2; ++a)
        {
            lo[a] = std::min(lo[a], b.getCenter()[a]);
            hi[a] = std::max(hi[a], b.getCenter()[a]);
        }
    std::vector<uint32_t> codes;
    for (const auto& b : boxes)
    {
        uint32_t cell[2];
        for (int a = 0; a < 2; ++a)
        {
            const float scale = hi[a] > lo[a] ? 65535.0f / (hi[a] - lo[a]) : 0.0f;
            const float q = (b.getCenter()[a] - lo[a]) * scale;
            cell[a] = q <= 0.0f ? 0u : (q >= 65535.0f ? 65535u : uint32_t(q));
        }
        uint32_t code = 0;
        for (int bit = 0; bit < 16; ++bit)
            code |= (((cell[0] >> bit) & 1u) << (2 * bit)) | (((cell[1] >> bit) & 1u) << (2 * bit + 1));
        codes.push_back(code);
    }
    return codes;
}

struct Walk
{
    const kxGenericBVH2D& bvh;
    const std::vector<kxBBox2D>& boxes;
    uint32_t maxLeaf;
    std::vector<uint32_t> codes;
    std::vector<int> reached;
    int leaves = 0, minLeaf = 0, maxSize = 0, sum = 0, maxLevel = 0;

    uint32_t code(uint32_t position) const { return codes[bvh.mPrimitiveIndices[position]]; }

    // Returns the subtree's run and checks its box against the union of its primitives.
    std::pair<uint32_t, uint32_t> visit(uint32_t node, int level)
    {
        EXPECT_LT(node, bvh.mNodes.size());
        EXPECT_EQ(reached[node]++, 0) << "record " << node << " reached twice";
        const kxGNode2D& n = bvh.mNodes[node];
        uint32_t first, count;
        kxBBox2D box;
        if (n.offset >= 0xC0000000u)
        {
            first = n.offset & 0x3FFFFFFFu;
            count = n.count;
            EXPECT_LE(count, maxLeaf);
            EXPECT_TRUE(count > 0 || boxes.empty());
            for (uint32_t p = first; p < first + count; ++p)
                box.extend(boxes[bvh.mPrimitiveIndices[p]]);
            ++leaves;
            sum += int(count);
            minLeaf = std::min(minLeaf, int(count));
            if (int(count) > maxSize)
            {
                maxSize = int(count);
                maxLevel = level;
            }
        }
        else
        {
            const uint32_t left = n.offset & 0x3FFFFFFFu;
            EXPECT_EQ(n.count, left + 1);
            const auto l = visit(left, level + 1);
            const auto r = visit(n.count, level + 1);
            EXPECT_EQ(l.first + l.second, r.first) << "runs of node " << node << " are not adjacent";
            first = l.first;
            count = l.second + r.second;
            // Split where the highest differing code bit turns on; that bit names the axis.
            const uint32_t differing = code(first) ^ code(first + count - 1);
            if (differing != 0)
            {
                int bit = 31;
                while (!(differing >> bit))
                    --bit;
                EXPECT_EQ((code(r.first - 1) >> bit) & 1u, 0u) << "node " << node;
                EXPECT_EQ((code(r.first) >> bit) & 1u, 1u) << "node " << node;
                EXPECT_EQ(n.offset & 0xC0000000u, bit % 2 ? 0x40000000u : 0u) << "node " << node;
            }
            box = bvh.mNodes[left].bbox;
            box.extend(bvh.mNodes[n.count].bbox);
        }
        EXPECT_EQ(n.bbox, box) << "node " << node;
        return {first, count};
    }
};

TEST(GenericBVH2D, LinearBuilderKeepsEveryTreeInvariant)
{
    const uint32_t sizes[] = {0, 1, 2, 5, 100, 3000};
    for (int layout = 0; layout < 3; ++layout)
        for (uint32_t n : sizes)
            for (unsigned int limit : {0u, 1u, 4u, 16u})
            {
                SCOPED_TRACE(::testing::Message() << "layout " << layout << " n " << n << " limit " << limit);
                const auto boxes = randomBoxes2D(n * 7 + limit, n, layout);
                kxLinearGenericBVH2DBuilder builder;
                builder.setMaxPrimitivesPerLeaf(limit);
                ASSERT_EQ(builder.getMaxPrimitivesPerLeaf(), std::max(limit, 1u));
                kxGenericBVH2D bvh;
                builder.build(kxBVH2DBoxContainer(boxes), bvh);

                ASSERT_EQ(bvh.mNodeCount, bvh.mNodes.size());
                EXPECT_EQ(bvh.mPrimitiveCount, n);
                ASSERT_EQ(bvh.mPrimitiveIndices.size(), n);
                const auto codes = referenceCodes(boxes);
                Walk walk{bvh, boxes, std::max(limit, 1u), codes, std::vector<int>(bvh.mNodes.size(), 0)};
                walk.minLeaf = int(bvh.mNodeCount);
                const auto root = walk.visit(0, 0);
                EXPECT_EQ(root.first, 0u);
                EXPECT_EQ(root.second, n);
                EXPECT_EQ(std::count(walk.reached.begin(), walk.reached.end(), 1), int(bvh.mNodeCount));
                EXPECT_EQ(bvh.mNodeCount, 2u * uint32_t(walk.leaves) - 1u);

                // Leaf order is Morton order, equal codes by ascending primitive number.
                std::vector<int> seen(n, 0);
                for (uint32_t p = 0; p < n; ++p)
                {
                    const uint32_t i = bvh.mPrimitiveIndices[p];
                    ASSERT_LT(i, n);
                    ++seen[i];
                    if (p > 0)
                    {
                        const uint32_t prev = bvh.mPrimitiveIndices[p - 1];
                        ASSERT_TRUE(codes[prev] < codes[i] || (codes[prev] == codes[i] && prev < i)) << "at " << p;
                    }
                }
                EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), int(n));

                int nodes, leaves, minLeaf, maxLeaf;
                float avg;
                kxStandardOutputCapture out;
                bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
                EXPECT_EQ(out.text(), "");
                EXPECT_EQ(nodes, int(bvh.mNodeCount));
                EXPECT_EQ(leaves, walk.leaves);
                EXPECT_EQ(minLeaf, walk.minLeaf);
                EXPECT_EQ(maxLeaf, walk.maxSize);
                EXPECT_EQ(avg, float(walk.sum) / float(walk.leaves));
                int iterLeaves = 0, iterMin = 1 << 20, iterMax = 0, iterSum = 0, maxAt = 0;
                bvh.getBVHInfoIter(0, iterLeaves, iterMin, iterMax, iterSum, maxAt, 0);
                EXPECT_EQ(maxAt >> 24, walk.maxLevel);
            }
}

TEST(GenericBVH2D, RootLeafStatistics)
{
    kxGenericBVH2D bvh;
    bvh.mNodes.resize(1);
    bvh.mNodes[0].offset = 0xC0000000u;
    bvh.mNodes[0].count = 5;
    bvh.mNodeCount = 1;
    int nodes, leaves, minLeaf, maxLeaf;
    float avg;
    bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
    EXPECT_EQ(nodes, 1);
    EXPECT_EQ(leaves, 1);
    EXPECT_EQ(minLeaf, 1);
    EXPECT_EQ(maxLeaf, 5);
    EXPECT_EQ(avg, 5.0f);
}
} // namespace
