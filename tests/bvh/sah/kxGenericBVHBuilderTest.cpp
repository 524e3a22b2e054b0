#include "kxBVHContainers.h"
#include "kxBVHInvariants.h"
#include "kxCapturingLog.h"
#include "kxGenericBVHBuilder.h"
#include "kxRandomGeometry.h"
#include "kxSAHReference.h"
#include "kxStandardOutputCapture.h"
#include "kxTestMeshes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

namespace
{
using kxtest::Layout;

// Beyond the invariants of every tree, each decision of the recursion: leaves over 16
// primitives only at depth 32 or where no plane pays, binned splits where brute force
// puts them, larger nodes split at the centroid median of their longest axis.
void checkSAHTree(const kxGenericBVH& bvh, const std::vector<kxBBox>& boxes, unsigned int bins,
                  const kxBVHCostFunctor& cost)
{
    const kxtest::TreeShape shape = kxtest::checkTree(bvh, boxes);
    ASSERT_FALSE(::testing::Test::HasFailure());
    ASSERT_EQ(bvh.mNodeCount, 2 * shape.innerNodes + 1);
    EXPECT_EQ(bvh.mNodes.size(), shape.innerNodes == 0 ? 1u : (bvh.mNodeCount + 1023) / 1024 * 1024);
    EXPECT_LE(shape.maxDepth, 32);
    const auto primitivesOf = [&](uint32_t node) {
        const kxtest::TreeShape::Run run = shape.runs[node];
        return std::vector<uint32_t>(bvh.mPrimitiveIndices.begin() + run.first,
                                     bvh.mPrimitiveIndices.begin() + run.first + run.count);
    };
    for (const kxtest::TreeShape::Leaf& leaf : shape.leaves)
        if (leaf.count > 16 && leaf.depth < 32)
        {
            ASSERT_LE(leaf.count, 1024u) << "a node this large must be split";
            EXPECT_FALSE(kxtest::bruteForcePlane(boxes, primitivesOf(leaf.node), bvh.mNodes[leaf.node].bbox, bins, cost).split)
                << "leaf " << leaf.node << " of " << leaf.count << " had a cheaper split";
        }
    for (uint32_t node = 0; node < bvh.mNodeCount; ++node)
    {
        const kxGNode& n = bvh.mNodes[node];
        if (n.offset >= 0xC0000000u)
            continue;
        const std::vector<uint32_t> all = primitivesOf(node), left = primitivesOf(n.offset & 0x3FFFFFFFu);
        ASSERT_GT(all.size(), 16u) << "node " << node;
        const auto axis = kxBBox::tAxis(n.offset & 0xC0000000u);
        const int a = kxBBox::component(axis);
        float leftMax = -INFINITY, rightMin = INFINITY;
        for (size_t i = 0; i < all.size(); ++i)
        {
            const float c = kxtest::centroid(boxes[all[i]], a);
            (i < left.size() ? leftMax : rightMin) = i < left.size() ? std::max(leftMax, c) : std::min(rightMin, c);
        }
        kxtest::PlaneChoice plane;
        if (all.size() <= 1024)
            plane = kxtest::bruteForcePlane(boxes, all, n.bbox, bins, cost);
        else
        {
            // The left side ends at the median: at most count/2 centroids lie below it.
            size_t below = 0;
            for (uint32_t p : all)
                below += kxtest::centroid(boxes[p], a) < leftMax;
            EXPECT_LE(below, all.size() / 2) << "node " << node;
            EXPECT_GT(left.size(), all.size() / 2) << "node " << node;
            n.bbox.getMaxExtent(plane.axis);
            plane.split = true;
            plane.pos = leftMax;
        }
        ASSERT_TRUE(plane.split) << "node " << node;
        EXPECT_EQ(axis, plane.axis) << "node " << node;
        // A centroid on the plane goes left.
        EXPECT_TRUE(leftMax <= plane.pos && plane.pos < rightMin) << "node " << node;
    }
}

TEST(GenericBVHBuilder, RandomBuildsTakeTheReferenceDecisionsAndKeepEveryTreeInvariant)
{
    const kxDefaultSAH sah;
    const kxtest::CountOnlyCost countOnly;
    // One hierarchy for every build: leftovers of a bigger earlier tree must not show.
    kxGenericBVH bvh;
    for (unsigned int bins : {16u, 5u, 1u})
        for (Layout layout : {Layout::Uniform, Layout::Clustered, Layout::Grid, Layout::Flat, Layout::Identical})
            for (uint32_t n : {0u, 1u, 16u, 17u, 200u, 1024u, 1025u, 20000u})
            {
                SCOPED_TRACE(::testing::Message() << "bins " << bins << " layout " << int(layout) << " n " << n);
                // The caller's cost replaces the default one.
                const kxBVHCostFunctor& cost = bins == 5 ? static_cast<const kxBVHCostFunctor&>(countOnly) : sah;
                const kxtest::BoxContainer container(kxtest::randomBoxes(n + bins, n, layout));
                kxGenericBVHBuilder builder(bins, bins == 5 ? &cost : nullptr);
                builder.build(container, bvh);
                ASSERT_NO_FATAL_FAILURE(checkSAHTree(bvh, container.boxes(), bins, cost));
            }
}

TEST(GenericBVHBuilder, IdenticalCentroidsMakeAMedianChainThatEndsAtDepth32)
{
    // Boxes of different sizes around one point: the node box is not a point, yet every
    // median plane sends everything left.
    std::vector<kxBBox> boxes;
    for (int k = 0; k < 2000; ++k)
    {
        const float h = 0.5f + float(k % 7);
        boxes.push_back(kxBBox(Wm4::Vector3<float>(1 - h, 2 - h, 3 - h), Wm4::Vector3<float>(1 + h, 2 + h, 3 + h)));
    }
    kxGenericBVH bvh;
    kxGenericBVHBuilder().build(kxtest::BoxContainer(boxes), bvh);
    const kxtest::TreeShape shape = kxtest::checkTree(bvh, boxes);
    EXPECT_EQ(bvh.mNodeCount, 65u);
    // Everything stays on the left spine: the first leaf, left first, is the full one.
    ASSERT_EQ(shape.leaves.size(), 33u);
    EXPECT_EQ(shape.leaves[0].depth, 32);
    for (const kxtest::TreeShape::Leaf& leaf : shape.leaves)
        EXPECT_EQ(leaf.count, &leaf == &shape.leaves[0] ? 2000u : 0u) << "leaf " << leaf.node;
    int nodes, leaves, minLeaf, maxLeaf;
    float avg;
    kxStandardOutputCapture out;
    bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
    EXPECT_EQ(out.text(), "max at lvl:32\n");
}

TEST(GenericBVHBuilder, SAHCostOfAHandBuiltTree)
{
    kxGenericBVH bvh;
    bvh.mNodes.resize(3);
    bvh.mNodes[0] = {kxBBox(Wm4::Vector3<float>(0, 0, 0), Wm4::Vector3<float>(2, 1, 1)), 1u | kxBBox::eAxisX, 2};
    bvh.mNodes[1] = {kxBBox(Wm4::Vector3<float>(0, 0, 0), Wm4::Vector3<float>(1, 1, 1)), 0xC0000000u, 2};
    bvh.mNodes[2] = {kxBBox(Wm4::Vector3<float>(1, 0, 0), Wm4::Vector3<float>(2, 1, 1)), 0xC0000002u, 1};
    bvh.mPrimitiveIndices = {0, 1, 2};
    bvh.mNodeCount = 3;
    // Half areas 5, 3 and 3: (5*4 + 3*(4+2) + 3*(4+1)) / 5.
    EXPECT_DOUBLE_EQ(kxComputeSAHCost(bvh), 53.0 / 5.0);
    // An empty leaf adds nothing; a root leaf costs its visit plus its primitives.
    bvh.mNodes[2] = {kxBBox(), 0xC0000002u, 0};
    EXPECT_DOUBLE_EQ(kxComputeSAHCost(bvh), (20.0 + 18.0) / 5.0);
    bvh.mNodes.resize(1);
    bvh.mNodes[0].offset = 0xC0000000u;
    bvh.mNodes[0].count = 3;
    EXPECT_DOUBLE_EQ(kxComputeSAHCost(bvh), 7.0);
}
} // namespace

// Dense and overlapping meshes, where splitting by cost pays. (On a few far-apart clumps
// the linear tree's spatial splits find the gaps that median splits cut through.)
TEST(GenericBVHBuilder, SAHTreesCostLessThanLinearTreesOfDenseMeshes)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(17);
    for (uint32_t seed : {1u, 2u})
    {
        const std::pair<const char*, kx::kxPointer<kx::kxTriMesh>> meshes[] = {
            {"soup", kxtest::randomSoup(rng, 20000)},
            {"lattice", kxtest::randomTriangleMesh(seed, 20000, Layout::Grid)},
            {"flat", kxtest::randomTriangleMesh(seed, 20000, Layout::Flat)}};
        for (const auto& [name, mesh] : meshes)
        {
            const kxBVHTriangleContainer container(*mesh);
            kxGenericBVH sahTree, linearTree;
            kxGenericBVHBuilder().build(container, sahTree);
            kxLinearGenericBVHBuilder().build(container, linearTree, nullptr, 20);
            const double sah = kxComputeSAHCost(sahTree), linear = kxComputeSAHCost(linearTree);
            std::printf("%s mesh %u: SAH cost %.1f built by SAH, %.1f built linearly\n", name, seed, sah, linear);
            EXPECT_LT(sah, linear) << name << " mesh " << seed;
        }
    }
}
