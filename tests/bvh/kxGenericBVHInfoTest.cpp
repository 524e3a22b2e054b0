#include "kxStandardOutputCapture.h"
#include "kxGenericBVH.h"
#include "kxGenericBVHBuilder.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

namespace
{
kxBBox box(float x0, float y0, float z0, float x1, float y1, float z1)
{
    return kxBBox(Wm4::Vector3<float>(x0, y0, z0), Wm4::Vector3<float>(x1, y1, z1));
}

TEST(GenericBVHInfo, PrintNodeWritesEachNodeIndentedByItsDepth)
{
    kxGenericBVH small;
    small.mNodes = {{box(0, 0, 0, 2, 1, 1), 1u, 2u},
                    {box(0, 0, 0, 1, 1, 1), 0xC0000000u, 2u},
                    {box(1, 0, 0, 2, 1, 1), 0xC0000002u, 1u}};
    small.mPrimitiveIndices = {0, 1, 2};
    small.mNodeCount = 3;
    {
        kxStandardOutputCapture out;
        small.printNode(0, 0);
        EXPECT_EQ(out.text(), "N ID 0 (0,0,0)(2,1,1)\n"
                              "|L ID 1 (0,0,0)(1,1,1)\n"
                              "|0 1 \n"
                              "|L ID 2 (1,0,0)(2,1,1)\n"
                              "|2 \n");
    }
    {
        kxStandardOutputCapture out;
        small.printNode(2, 0);
        EXPECT_EQ(out.text(), "L ID 2 (1,0,0)(2,1,1)\n2 \n");
    }

    // Split on y then z, an empty leaf, primitives out of order, a start depth of 1.
    kxGenericBVH deeper;
    deeper.mNodes = {{box(0, 0, 0, 4, 2.5f, 1), 1u | kxBBox::eAxisY, 2u},
                     {box(0, 0, 0, 2, 2.5f, 1), 3u | kxBBox::eAxisZ, 4u},
                     {box(2, 0, 0, 4, 2, 1), 0xC0000003u, 2u},
                     {box(0, 0, 0, 1, 0.333333f, 1), 0xC0000000u, 3u},
                     {kxBBox(), 0xC0000003u, 0u}};
    deeper.mPrimitiveIndices = {7, 3, 5, 1, 0};
    deeper.mNodeCount = 5;
    kxStandardOutputCapture out;
    deeper.printNode(0, 1);
    EXPECT_EQ(out.text(), "|N ID 0 (0,0,0)(4,2.5,1)\n"
                          "||N ID 1 (0,0,0)(2,2.5,1)\n"
                          "|||L ID 3 (0,0,0)(1,0.333333,1)\n"
                          "|||7 3 5 \n"
                          "|||L ID 4 (inf,inf,inf)(-inf,-inf,-inf)\n"
                          "|||\n"
                          "||L ID 2 (2,0,0)(4,2,1)\n"
                          "||1 0 \n");
}

TEST(GenericBVHInfo, SummaryPutsNumbersBeforeTheirLabelAndTheLevelOnStandardOutput)
{
    kxGenericBVH leaf;
    leaf.mNodes = {{box(0, 0, 0, 1, 1, 1), 0xC0000000u, 5u}};
    leaf.mPrimitiveIndices = {0, 1, 2, 3, 4};
    leaf.mNodeCount = 1;
    std::ostringstream os;
    kxStandardOutputCapture out;
    os << leaf;
    EXPECT_EQ(os.str(), "1 nodes. 1(5,1,5) leaves (max, min, avg):");
    EXPECT_EQ(out.text(), "max at lvl:0\n");

    // The minimum starts at the node count, so a lone leaf of 100 reports 1.
    leaf.mNodes[0].count = 100;
    int nodes, leaves, minLeaf, maxLeaf;
    float avg;
    leaf.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
    EXPECT_EQ(minLeaf, 1);
    EXPECT_EQ(maxLeaf, 100);
    EXPECT_EQ(avg, 100.0f);
}

// Leaf statistics by an explicit-stack walk, left child first.
struct Reference
{
    int leaves = 0, minLeaf = 0, maxLeaf = 0, sum = 0, maxNode = 0, maxLevel = 0;
};

Reference referenceStatistics(const kxGenericBVH& bvh, uint32_t from, int fromLevel, int minStart)
{
    Reference r;
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
        const int s = int(n.count);
        ++r.leaves;
        r.sum += s;
        r.minLeaf = std::min(r.minLeaf, s);
        if (s > r.maxLeaf)
        {
            r.maxLeaf = s;
            r.maxNode = int(node);
            r.maxLevel = level;
        }
    }
    return r;
}

// A random tree in the node encoding: pairs allocated right subtree first, small leaves
// (some empty), junk above the right child index.
void growRandomTree(kxGenericBVH& bvh, std::mt19937& rng, uint32_t node, int depth, uint32_t& position)
{
    if (depth > 12 || std::uniform_int_distribution<int>(0, 9)(rng) < 3 + depth / 3)
    {
        const uint32_t count = std::uniform_int_distribution<uint32_t>(0, 9)(rng);
        bvh.mNodes[node].offset = position | 0xC0000000u;
        bvh.mNodes[node].count = count;
        position += count;
        return;
    }
    const uint32_t left = bvh.mNodeCount;
    bvh.mNodeCount += 2;
    bvh.mNodes.resize(bvh.mNodeCount);
    bvh.mNodes[node].offset = left | (uint32_t(depth % 3) << 30);
    // Readers keep only the low 28 bits of an inner node's count word.
    bvh.mNodes[node].count = (left + 1) | (std::uniform_int_distribution<uint32_t>(0, 15)(rng) << 28);
    // The right subtree is grown first so that numbering is not left-first.
    uint32_t rightPosition = position + 1000;
    growRandomTree(bvh, rng, left + 1, depth + 1, rightPosition);
    growRandomTree(bvh, rng, left, depth + 1, position);
}

TEST(GenericBVHInfo, StatisticsMatchAnIndependentWalk)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 60; ++round)
    {
        kxGenericBVH bvh;
        if (round % 3 == 0)
        {
            const auto layout = round % 2 ? kxtest::Layout::Grid : kxtest::Layout::Clustered;
            const kxtest::BoxContainer container(kxtest::randomBoxes(round, 500 + 100 * round, layout));
            kxGenericBVHBuilder(4).build(container, bvh);
        }
        else
        {
            bvh.mNodes.resize(1);
            bvh.mNodeCount = 1;
            uint32_t position = 0;
            growRandomTree(bvh, rng, 0, 0, position);
        }
        const Reference ref = referenceStatistics(bvh, 0, 0, int(bvh.mNodeCount));
        int nodes, leaves, minLeaf, maxLeaf;
        float avg;
        kxStandardOutputCapture out;
        bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
        EXPECT_EQ(out.text(), "max at lvl:" + std::to_string(ref.maxLevel) + "\n");
        EXPECT_EQ(nodes, int(bvh.mNodeCount));
        EXPECT_EQ(leaves, ref.leaves);
        EXPECT_EQ(minLeaf, ref.minLeaf);
        EXPECT_EQ(maxLeaf, ref.maxLeaf);
        EXPECT_EQ(avg, float(ref.sum) / float(ref.leaves));

        // A walk of one subtree from a given level adds to what the caller already has.
        const auto from = std::uniform_int_distribution<uint32_t>(0, bvh.mNodeCount - 1)(rng);
        const Reference sub = referenceStatistics(bvh, from, 7, 1000);
        int subLeaves = 2, subMin = 1000, subMax = 0, subSum = 5, maxAt = -1;
        bvh.getBVHInfoIter(int(from), subLeaves, subMin, subMax, subSum, maxAt, 7);
        EXPECT_EQ(subLeaves, 2 + sub.leaves);
        EXPECT_EQ(subMin, sub.minLeaf);
        EXPECT_EQ(subMax, sub.maxLeaf);
        EXPECT_EQ(subSum, 5 + sub.sum);
        EXPECT_EQ(maxAt, sub.maxLeaf > 0 ? (sub.maxLevel << 24) | sub.maxNode : -1);
    }
}
} // namespace
