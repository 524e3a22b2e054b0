#include "kxGenericBVH.h"
#include "kxStandardOutputCapture.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

namespace
{
kxBBox box(float x0, float y0, float z0, float x1, float y1, float z1)
{
    return kxBBox(Wm4::Vector3<float>(x0, y0, z0), Wm4::Vector3<float>(x1, y1, z1));
}

struct Statistics
{
    int leaves = 0, minLeaf = 0, maxLeaf = 0, sum = 0, maxNode = 0, maxLevel = 0;
};

// Leaf statistics by an explicit-stack walk, left child first.
Statistics walk(const kxGenericBVH& bvh, uint32_t from, int fromLevel, int minStart)
{
    Statistics r;
    r.minLeaf = minStart;
    std::vector<std::pair<uint32_t, int>> stack{{from, fromLevel}};
    while (!stack.empty())
    {
        const auto [node, level] = stack.back();
        stack.pop_back();
        const kxGNode& n = bvh.mNodes[node];
        if ((n.offset >> 30) != 3)
        {
            stack.push_back({n.count & 0x0FFFFFFFu, level + 1});
            stack.push_back({n.offset & 0x3FFFFFFFu, level + 1});
            continue;
        }
        const int size = int(n.count);
        ++r.leaves;
        r.sum += size;
        r.minLeaf = std::min(r.minLeaf, size);
        if (size > r.maxLeaf)
            r.maxLeaf = size, r.maxNode = int(node), r.maxLevel = level;
    }
    return r;
}

// A random tree in the node encoding: the right subtree is grown first so that numbering
// is not left-first, leaves are small (some empty), junk sits above the right child index.
void growRandomTree(kxGenericBVH& bvh, std::mt19937& rng, uint32_t node, int depth, uint32_t& position)
{
    auto u = [&rng](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
    if (depth > 12 || int(u(0, 9)) < 3 + depth / 3)
    {
        bvh.mNodes[node].count = u(0, 9);
        bvh.mNodes[node].offset = position | 0xC0000000u;
        position += bvh.mNodes[node].count;
        return;
    }
    const uint32_t left = bvh.mNodeCount;
    bvh.mNodeCount += 2;
    bvh.mNodes.resize(bvh.mNodeCount);
    bvh.mNodes[node].offset = left | (uint32_t(depth % 3) << 30);
    bvh.mNodes[node].count = (left + 1) | (u(0, 15) << 28);
    uint32_t rightPosition = position + 1000;
    growRandomTree(bvh, rng, left + 1, depth + 1, rightPosition);
    growRandomTree(bvh, rng, left, depth + 1, position);
}
} // namespace

TEST(GenericBVHInfo, PrintNodeWritesEachNodeIndentedByItsDepth)
{
    // Splits on y then z, an empty leaf, primitives out of order, a start depth of 1.
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
        bvh.mNodes.resize(1);
        bvh.mNodeCount = 1;
        uint32_t position = 0;
        growRandomTree(bvh, rng, 0, 0, position);
        // The minimum starts at the node count, so it may stay there.
        const Statistics ref = walk(bvh, 0, 0, int(bvh.mNodeCount));
        int nodes, leaves, minLeaf, maxLeaf;
        float avg;
        kxStandardOutputCapture out;
        bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
        EXPECT_EQ(nodes, int(bvh.mNodeCount));
        EXPECT_EQ(leaves, ref.leaves);
        EXPECT_EQ(minLeaf, ref.minLeaf);
        EXPECT_EQ(maxLeaf, ref.maxLeaf);
        EXPECT_EQ(avg, float(ref.sum) / float(ref.leaves));
        // The summary puts the numbers before their label; the level line goes to standard output.
        std::ostringstream summary, average;
        summary << bvh;
        average << double(avg);
        EXPECT_EQ(summary.str(), std::to_string(nodes) + " nodes. " + std::to_string(leaves) + "(" +
                                     std::to_string(maxLeaf) + "," + std::to_string(minLeaf) + "," +
                                     average.str() + ") leaves (max, min, avg):");
        const std::string level = "max at lvl:" + std::to_string(ref.maxLevel) + "\n";
        EXPECT_EQ(out.text(), level + level);

        // A walk of one subtree from a given level adds to what the caller already has.
        const auto from = std::uniform_int_distribution<uint32_t>(0, bvh.mNodeCount - 1)(rng);
        const Statistics sub = walk(bvh, from, 7, 1000);
        int subLeaves = 2, subMin = 1000, subMax = 0, subSum = 5, maxAt = -1;
        bvh.getBVHInfoIter(int(from), subLeaves, subMin, subMax, subSum, maxAt, 7);
        EXPECT_EQ(subLeaves, 2 + sub.leaves);
        EXPECT_EQ(subMin, sub.minLeaf);
        EXPECT_EQ(subMax, sub.maxLeaf);
        EXPECT_EQ(subSum, 5 + sub.sum);
        EXPECT_EQ(maxAt, sub.maxLeaf > 0 ? (sub.maxLevel << 24) | sub.maxNode : -1);
    }
}
