#include "kxGenericBVH.h"
#include "kxStandardOutputCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>

namespace
{
struct Statistics
{
    int leaves = 0, minLeaf, maxLeaf = 0, sum = 0, maxNode = 0, maxLevel = 0;
};

// Leaf statistics, left child first.
void walk(const kxGenericBVH& bvh, uint32_t node, int level, Statistics& r)
{
    const kxGNode& n = bvh.mNodes[node];
    if ((n.offset >> 30) != 3)
        return walk(bvh, n.offset & 0x3FFFFFFFu, level + 1, r), walk(bvh, n.count & 0x0FFFFFFFu, level + 1, r);
    ++r.leaves;
    r.sum += int(n.count);
    r.minLeaf = std::min(r.minLeaf, int(n.count));
    if (int(n.count) > r.maxLeaf)
        r.maxLeaf = int(n.count), r.maxNode = int(node), r.maxLevel = level;
}

// A random tree in the node encoding: the right subtree is grown first so that numbering
// is not left-first, leaves are small (some empty), junk sits above the right child index.
void growRandomTree(kxGenericBVH& bvh, std::mt19937& rng, uint32_t node, int depth, uint32_t& position)
{
    auto u = [&rng](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
    if (depth > 12 || int(u(0, 9)) < 3 + depth / 3)
    {
        bvh.mNodes[node] = {kxBBox(), position | 0xC0000000u, u(0, 9)};
        position += bvh.mNodes[node].count;
        return;
    }
    const uint32_t left = bvh.mNodeCount;
    bvh.mNodes.resize(bvh.mNodeCount += 2);
    bvh.mNodes[node] = {kxBBox(), left | (uint32_t(depth % 3) << 30), (left + 1) | (u(0, 15) << 28)};
    uint32_t rightPosition = position + 1000;
    growRandomTree(bvh, rng, left + 1, depth + 1, rightPosition);
    growRandomTree(bvh, rng, left, depth + 1, position);
}
} // namespace

TEST(GenericBVHInfo, PrintNodeWritesEachNodeIndentedByItsDepth)
{
    // Splits on y then z, an empty leaf, primitives out of order, a start depth of 1.
    auto box = [](float x0, float y0, float z0, float x1, float y1, float z1) {
        return kxBBox(Wm4::Vector3<float>(x0, y0, z0), Wm4::Vector3<float>(x1, y1, z1));
    };
    kxGenericBVH bvh;
    bvh.mNodes = {{box(0, 0, 0, 4, 2.5f, 1), 1u | kxBBox::eAxisY, 2u},
                  {box(0, 0, 0, 2, 2.5f, 1), 3u | kxBBox::eAxisZ, 4u},
                  {box(2, 0, 0, 4, 2, 1), 0xC0000003u, 2u},
                  {box(0, 0, 0, 1, 0.333333f, 1), 0xC0000000u, 3u},
                  {kxBBox(), 0xC0000003u, 0u}};
    bvh.mPrimitiveIndices = {7, 3, 5, 1, 0};
    bvh.mNodeCount = 5;
    kxStandardOutputCapture out;
    bvh.printNode(0, 1);
    EXPECT_EQ(out.text(), "|N ID 0 (0,0,0)(4,2.5,1)\n"
                          "||N ID 1 (0,0,0)(2,2.5,1)\n"
                          "|||L ID 3 (0,0,0)(1,0.333333,1)\n"
                          "|||7 3 5 \n"
                          "|||L ID 4 (inf,inf,inf)(-inf,-inf,-inf)\n"
                          "|||\n"
                          "||L ID 2 (2,0,0)(4,2,1)\n"
                          "||1 0 \n");
}

TEST(GenericBVHInfo, StatisticsMatchAnIndependentWalk)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 60; ++round)
    {
        kxGenericBVH bvh;
        bvh.mNodes.resize(bvh.mNodeCount = 1);
        uint32_t position = 0;
        growRandomTree(bvh, rng, 0, 0, position);
        // The minimum starts at the node count, so it may stay there.
        Statistics ref{0, int(bvh.mNodeCount)};
        walk(bvh, 0, 0, ref);
        int nodes, leaves, minLeaf, maxLeaf;
        float avg;
        kxStandardOutputCapture out;
        bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
        EXPECT_TRUE(nodes == int(bvh.mNodeCount) && leaves == ref.leaves && minLeaf == ref.minLeaf &&
                    maxLeaf == ref.maxLeaf && avg == float(ref.sum) / float(ref.leaves));
        // The summary puts the numbers before their label; the level line goes to standard output.
        std::ostringstream summary, expected;
        summary << bvh, expected << nodes << " nodes. " << leaves << "(" << maxLeaf << "," << minLeaf << ","
                                 << double(avg) << ") leaves (max, min, avg):";
        EXPECT_EQ(summary.str(), expected.str());
        const std::string level = "max at lvl:" + std::to_string(ref.maxLevel) + "\n";
        EXPECT_EQ(out.text(), level + level);

        // A walk of one subtree from a given level adds to what the caller already has.
        const auto from = std::uniform_int_distribution<uint32_t>(0, bvh.mNodeCount - 1)(rng);
        Statistics sub{0, 1000};
        walk(bvh, from, 7, sub);
        int subLeaves = 2, subMin = 1000, subMax = 0, subSum = 5, maxAt = -1;
        bvh.getBVHInfoIter(int(from), subLeaves, subMin, subMax, subSum, maxAt, 7);
        EXPECT_TRUE(subLeaves == 2 + sub.leaves && subMin == sub.minLeaf && subMax == sub.maxLeaf &&
                    subSum == 5 + sub.sum);
        EXPECT_EQ(maxAt, sub.maxLeaf > 0 ? (sub.maxLevel << 24) | sub.maxNode : -1);
    }
}
