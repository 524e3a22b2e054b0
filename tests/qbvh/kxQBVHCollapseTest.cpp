#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxGenericBVHBuilder.h"
#include "kxHighQualityBVHBuilder.h"
#include "kxQBVHReference.h"
#include "kxQBVHTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>

using namespace kxtest;

namespace
{
bool isLeaf(const kxGNode& n)
{
    return n.offset >= 0xC0000000u;
}

template <typename T>
bool sameBytes(const T* a, const T* b, size_t count)
{
    return (a == nullptr) == (b == nullptr) && (a == nullptr || std::memcmp(a, b, count * sizeof(T)) == 0);
}

// Equation words agree bit for bit, except that a NaN matches any NaN: where two NaNs
// meet in a product, the one kept depends on the order in which the compiler takes the
// operands, which differs between the places the equations are computed.
bool sameEquations(const kxQBVH::tSOATriangleEquations* a, const kxQBVH::tSOATriangleEquations* b, size_t count)
{
    if ((a == nullptr) != (b == nullptr))
        return false;
    for (size_t g = 0; a && g < count; ++g)
        for (int i = 0; i < 12; ++i)
            for (int k = 0; k < 4; ++k)
            {
                const float x = a[g].eq[i][k], y = b[g].eq[i][k];
                if (bitsOf(x) != bitsOf(y) && !(std::isnan(x) && std::isnan(y)))
                    return false;
            }
    return true;
}

// Every word of the two hierarchies' arrays, their counts and flags.
void expectSameArrays(const kxQBVH& fast, const kxQBVH& plain)
{
    ASSERT_EQ(fast.getNodeCount(), plain.getNodeCount());
    ASSERT_EQ(fast.getGroupCount(), plain.getGroupCount());
    ASSERT_EQ(fast.getDataFlags(), plain.getDataFlags());
    const size_t groups = plain.getGroupCount();
    EXPECT_TRUE(sameBytes(fast.getNodes(), plain.getNodes(), plain.getNodeCount())) << "nodes";
    EXPECT_TRUE(sameBytes(fast.getTriangleVertices(), plain.getTriangleVertices(), groups)) << "vertices";
    EXPECT_TRUE(sameEquations(fast.getTriangleEquations(), plain.getTriangleEquations(), groups)) << "equations";
    EXPECT_TRUE(sameBytes(fast.getTriangleIndices(), plain.getTriangleIndices(), groups)) << "indices";
}

// The same tree with its records in another order: the root stays first and child pairs
// stay adjacent. Pairs are placed in a random order that keeps parents ahead of their
// children, or, with childrenFirst, in the reverse of such an order.
kxGenericBVH renumbered(const kxGenericBVH& bvh, std::mt19937& rng, bool childrenFirst)
{
    std::vector<uint32_t> pairs, pending;
    if (!isLeaf(bvh.mNodes[0]))
        pending.push_back(bvh.mNodes[0].offset & 0x3FFFFFFFu);
    while (!pending.empty())
    {
        const size_t pick = std::uniform_int_distribution<size_t>(0, pending.size() - 1)(rng);
        const uint32_t left = pending[pick];
        pending.erase(pending.begin() + static_cast<std::ptrdiff_t>(pick));
        pairs.push_back(left);
        for (uint32_t child : {left, left + 1})
            if (!isLeaf(bvh.mNodes[child]))
                pending.push_back(bvh.mNodes[child].offset & 0x3FFFFFFFu);
    }
    if (childrenFirst)
        std::reverse(pairs.begin(), pairs.end());
    std::vector<uint32_t> place(bvh.mNodes.size(), 0);
    for (size_t i = 0; i < pairs.size(); ++i)
    {
        place[pairs[i]] = static_cast<uint32_t>(1 + 2 * i);
        place[pairs[i] + 1] = static_cast<uint32_t>(2 + 2 * i);
    }
    kxGenericBVH out = bvh;
    out.mNodes.assign(1 + 2 * pairs.size(), kxGNode());
    out.mNodeCount = static_cast<uint32_t>(out.mNodes.size());
    for (uint32_t n = 0; n < bvh.mNodes.size(); ++n)
    {
        if (n != 0 && place[n] == 0)
            continue;
        kxGNode node = bvh.mNodes[n];
        if (!isLeaf(node))
        {
            const uint32_t left = place[node.offset & 0x3FFFFFFFu];
            node.offset = (node.offset & 0xC0000000u) | left;
            node.count = left + 1;
        }
        out.mNodes[place[n]] = node;
    }
    return out;
}

struct Tree
{
    std::string name;
    kxGenericBVH bvh;
};

std::vector<Tree> treesOver(const kx::kxTriMesh& mesh, std::mt19937& rng)
{
    std::vector<Tree> trees;
    for (unsigned int leaf : {1u, 4u, 7u})
    {
        kxLinearGenericBVHBuilder linear;
        linear.setMaxPrimitivesPerLeaf(leaf);
        for (unsigned int bits : {20u, 3u})
        {
            Tree tree{"linear, leaves of " + std::to_string(leaf) + ", " + std::to_string(bits) + " bits", {}};
            if (linear.build(kxBVHTriangleContainer(mesh), tree.bvh, nullptr, bits))
                trees.push_back(std::move(tree));
        }
        kxHighQualityBVHBuilder hq;
        hq.setMaxPrimitivesPerLeaf(leaf);
        Tree tree{"hq, leaves of " + std::to_string(leaf), {}};
        if (hq.build(mesh, tree.bvh))
            trees.push_back(std::move(tree));
    }
    Tree sah{"sah", {}};
    kxGenericBVHBuilder(16).build(kxBVHTriangleContainer(mesh), sah.bvh);
    trees.push_back(std::move(sah));
    trees.push_back({"median split, depth first", buildMedianSplitBVH(mesh, {5, false, false, 0})});
    trees.push_back({"median split, level by level", buildMedianSplitBVH(mesh, {3, true, false, 0})});
    trees.push_back({"median split, empty leaves, spare records", buildMedianSplitBVH(mesh, {4, true, true, 37})});
    const size_t built = trees.size();
    for (size_t i = 0; i < built; i += 3)
    {
        trees.push_back({trees[i].name + ", shuffled", renumbered(trees[i].bvh, rng, false)});
        trees.push_back({trees[i].name + ", children first", renumbered(trees[i].bvh, rng, true)});
    }
    return trees;
}
} // namespace

TEST(QBVHCollapse, MatchesThePlainCollapseWordForWordForEveryBuilderRecordOrderAndFlag)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(1401);
    // One hierarchy rebuilt over and over, so that rebuilds into arrays of earlier,
    // larger or smaller builds are compared as well.
    kxQBVH rebuilt;
    for (int round = 0; round < 12; ++round)
    {
        SoupOptions soup;
        soup.degenerates = round % 2 == 1;
        soup.duplicates = round % 3 == 2;
        soup.shareVertices = round % 4 != 3;
        const int triangles = round == 0 ? 1 : std::uniform_int_distribution<int>(2, round < 8 ? 300 : 2500)(rng);
        const auto mesh = randomSoup(rng, triangles, soup);
        for (const Tree& tree : treesOver(*mesh, rng))
            for (unsigned int flags = 0; flags < 4; ++flags)
            {
                SCOPED_TRACE(std::to_string(triangles) + " triangles, " + tree.name + ", flags " +
                             std::to_string(flags));
                const auto f = kxQBVH::tQBVHDataFlags(flags);
                kxQBVH fresh, plain;
                fresh.buildFromBVH(f, tree.bvh, *mesh);
                rebuilt.buildFromBVH(f, tree.bvh, *mesh);
                kxQBVHReference::collapse(plain, f, tree.bvh, *mesh);
                expectSameArrays(fresh, plain);
                expectSameArrays(rebuilt, plain);
                EXPECT_EQ(rebuilt.getBBox(), fresh.getBBox());
                if (testing::Test::HasFailure())
                    return;
            }
    }
}

TEST(QBVHCollapse, LeafRootsOddLeavesAndLeavesThatDoNotTileMatchThePlainCollapse)
{
    std::mt19937 rng(14);
    const auto mesh = randomSoup(rng, 40);
    const kxBBox box(Wm4::Vector3<float>(-1, -2, -3), Wm4::Vector3<float>(4, 5, 6));
    // A leaf root of every size up to past a group; leaves of no triangles and counts that
    // wrap to no groups beside real ones.
    std::vector<kxGenericBVH> trees;
    for (uint32_t count = 0; count <= 9; ++count)
    {
        kxGenericBVH bvh = leafTree({box, box}, {count, 3});
        bvh.mNodes.erase(bvh.mNodes.begin());
        bvh.mNodes.resize(1);
        trees.push_back(bvh);
    }
    for (uint32_t odd : {0u, 0xFFFFFFFDu, 0xFFFFFFFFu})
    {
        kxGenericBVH bvh = leafTree({box, box, box, box}, {5, 0, 2, 1});
        bvh.mNodes[4].count = odd;
        trees.push_back(bvh);
    }
    trees.push_back(leafTree({box, box}, {0, 9}));
    // Leaves over the primitive positions in another order than their records', and
    // leaves that do not tile the positions: one ending inside another, two starting
    // together, a position no leaf covers.
    const kxGenericBVH tiled = leafTree({box, box, box, box}, {3, 3, 3, 3});
    const auto moved = [&tiled](uint32_t leaf, uint32_t offset) {
        kxGenericBVH bvh = tiled;
        bvh.mNodes[3 + leaf].offset = offset | kxGNode::eLeafMark;
        return bvh;
    };
    kxGenericBVH reversed = tiled;
    for (uint32_t leaf = 0; leaf < 4; ++leaf)
        reversed.mNodes[3 + leaf].offset = (9 - 3 * leaf) | kxGNode::eLeafMark;
    trees.push_back(reversed);
    trees.push_back(moved(3, 8));
    trees.push_back(moved(2, 0));
    trees.push_back(tiled);
    trees.back().mPrimitiveIndices.push_back(7);
    for (const kxGenericBVH& bvh : trees)
        for (unsigned int flags = 0; flags < 4; ++flags)
        {
            SCOPED_TRACE("flags " + std::to_string(flags));
            const auto f = kxQBVH::tQBVHDataFlags(flags);
            kxQBVH fast, plain;
            fast.buildFromBVH(f, bvh, *mesh);
            kxQBVHReference::collapse(plain, f, bvh, *mesh);
            expectSameArrays(fast, plain);
        }
}
