#include "kxBVHContainers.h"
#include "kxBVHInvariants.h"
#include "kxCapturingLog.h"
#include "kxStandardOutputCapture.h"
#include "kxGenericBVHBuilder.h"
#include "kxRandomGeometry.h"
#include "kxSAHReference.h"
#include "kxTestMeshes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

namespace
{
using kxtest::Layout;

// Everything a binned-SAH tree must satisfy beyond the common node-store invariants.
void checkSAHTree(const kxGenericBVH& bvh, const std::vector<kxBBox>& boxes, unsigned int bins,
                  const kxBVHCostFunctor& cost)
{
    const kxtest::TreeShape shape = kxtest::TreeChecker(bvh, boxes, true).run();
    EXPECT_EQ(bvh.mNodeCount, 2 * shape.innerNodes + 1);
    EXPECT_EQ(shape.leaves, shape.innerNodes + 1);
    EXPECT_LE(shape.maxDepth, 32);
    if (shape.innerNodes == 0)
        EXPECT_EQ(bvh.mNodes.size(), 1u);
    else
    {
        EXPECT_EQ(bvh.mNodes.size() % 1024, 0u);
        EXPECT_GE(bvh.mNodes.size(), bvh.mNodeCount);
        EXPECT_LT(bvh.mNodes.size(), bvh.mNodeCount + 1024);
    }
    for (const auto& leaf : shape.leafList)
    {
        if (leaf.count <= 16 || leaf.depth == 32)
            continue;
        ASSERT_LE(leaf.count, 1024u) << "a node this large must be split";
        const std::vector<uint32_t> range(bvh.mPrimitiveIndices.begin() + leaf.first,
                                          bvh.mPrimitiveIndices.begin() + leaf.first + leaf.count);
        EXPECT_FALSE(kxtest::bruteForcePlane(boxes, range, bvh.mNodes[leaf.node].bbox, bins, cost).split)
            << "leaf " << leaf.node << " of " << leaf.count << " had a cheaper split";
    }
    // A split plane separates the children's centroids strictly on its axis.
    for (uint32_t node = 0; node < bvh.mNodeCount; ++node)
    {
        const kxGNode& n = bvh.mNodes[node];
        if (n.offset >= kxGNode::eLeafMark || shape.runs[node].count == 0)
            continue;
        const int a = kxBBox::component(kxBBox::tAxis(n.offset & kxGNode::eKindMask));
        const auto left = shape.runs[n.offset & kxGNode::eIndexMask];
        const auto right = shape.runs[n.count & kxGNode::eRightChildMask];
        float leftMax = -INFINITY, rightMin = INFINITY;
        for (uint32_t p = left.first; p < left.first + left.count; ++p)
            leftMax = std::max(leftMax, kxtest::centroid(boxes[bvh.mPrimitiveIndices[p]], a));
        for (uint32_t p = right.first; p < right.first + right.count; ++p)
            rightMin = std::min(rightMin, kxtest::centroid(boxes[bvh.mPrimitiveIndices[p]], a));
        EXPECT_LT(leftMax, rightMin) << "node " << node;
    }
}

TEST(GenericBVHBuilder, RandomBuildsKeepEveryTreeInvariant)
{
    const Layout layouts[] = {Layout::Uniform, Layout::Clustered, Layout::Grid, Layout::Flat, Layout::Identical};
    const uint32_t sizes[] = {0, 1, 16, 17, 200, 1500, 6000};
    const kxDefaultSAH sah;
    for (unsigned int bins : {16u, 5u, 1u})
        for (Layout layout : layouts)
            for (uint32_t n : sizes)
            {
                SCOPED_TRACE(::testing::Message() << "bins " << bins << " layout " << int(layout) << " n " << n);
                const kxtest::BoxContainer container(kxtest::randomBoxes(n + bins, n, layout));
                kxGenericBVHBuilder builder(bins);
                kxGenericBVH bvh;
                builder.build(container, bvh);
                checkSAHTree(bvh, container.boxes(), bins, sah);
            }
}

TEST(GenericBVHBuilder, LargeMeshGrowsTheNodeArrayInSteps)
{
    const kxtest::BoxContainer container(kxtest::randomBoxes(5, 60000, Layout::Clustered));
    kxGenericBVHBuilder builder;
    kxGenericBVH bvh;
    builder.build(container, bvh);
    EXPECT_GT(bvh.mNodeCount, 2048u);
    checkSAHTree(bvh, container.boxes(), 16, kxDefaultSAH());
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
    const kxtest::BoxContainer container(boxes);
    kxGenericBVHBuilder builder;
    kxGenericBVH bvh;
    builder.build(container, bvh);

    const kxtest::TreeShape shape = kxtest::TreeChecker(bvh, boxes, true).run();
    EXPECT_EQ(shape.innerNodes, 32u);
    EXPECT_EQ(shape.leaves, 33u);
    EXPECT_EQ(shape.emptyLeaves, 32u);
    EXPECT_EQ(bvh.mNodeCount, 65u);
    uint32_t node = 0;
    for (int depth = 0; depth < 32; ++depth)
    {
        const kxGNode& right = bvh.mNodes[bvh.mNodes[node].count];
        EXPECT_EQ(right.count, 0u);
        EXPECT_EQ(right.bbox, kxBBox());
        node = bvh.mNodes[node].offset & kxGNode::eIndexMask;
    }
    EXPECT_EQ(bvh.mNodes[node].count, 2000u);

    int nodes, leaves, minLeaf, maxLeaf;
    float avg;
    kxStandardOutputCapture out;
    bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avg);
    EXPECT_EQ(out.text(), "max at lvl:32\n");
    EXPECT_EQ(nodes, 65);
    EXPECT_EQ(leaves, 33);
    EXPECT_EQ(minLeaf, 0);
    EXPECT_EQ(maxLeaf, 2000);
    EXPECT_EQ(avg, 2000.0f / 33.0f);
}

TEST(GenericBVHBuilder, SmallOrInseparableInputsStayARootLeaf)
{
    for (uint32_t n : {0u, 1u, 9u, 16u})
    {
        const kxtest::BoxContainer container(kxtest::randomBoxes(n, n, Layout::Uniform));
        kxGenericBVH bvh;
        kxGenericBVHBuilder().build(container, bvh);
        EXPECT_EQ(bvh.mNodeCount, 1u);
        ASSERT_EQ(bvh.mNodes.size(), 1u);
        EXPECT_EQ(bvh.mNodes[0].offset, 0xC0000000u);
        EXPECT_EQ(bvh.mNodes[0].count, n);
    }
    const kxtest::BoxContainer same(kxtest::randomBoxes(1, 17, Layout::Identical));
    kxGenericBVH bvh;
    kxGenericBVHBuilder().build(same, bvh);
    EXPECT_EQ(bvh.mNodeCount, 1u);
    EXPECT_EQ(bvh.mNodes[0].offset, 0xC0000000u);
    EXPECT_EQ(bvh.mNodes[0].count, 17u);
}

TEST(GenericBVHBuilder, SplittingOnlyTheRootGrowsTheArrayTo1024Records)
{
    std::vector<kxBBox> boxes;
    for (int k = 0; k < 20; ++k)
    {
        const float x = (k % 2 ? 100.0f : 0.0f) + 0.01f * float(k);
        boxes.push_back(kxBBox(Wm4::Vector3<float>(x, 0, 0), Wm4::Vector3<float>(x + 1, 1, 1)));
    }
    const kxtest::BoxContainer container(boxes);
    kxGenericBVH bvh;
    kxGenericBVHBuilder().build(container, bvh);
    EXPECT_EQ(bvh.mNodeCount, 3u);
    EXPECT_EQ(bvh.mNodes.size(), 1024u);
    EXPECT_EQ(bvh.mNodes[0].offset, 1u | kxBBox::eAxisX);
    EXPECT_EQ(bvh.mNodes[0].count, 2u);
    EXPECT_EQ(bvh.mNodes[1].count, 10u);
    EXPECT_EQ(bvh.mNodes[2].count, 10u);
    kxtest::TreeChecker(bvh, boxes, true).run();
}

TEST(GenericBVHBuilder, PrepareAndManualDriveEqualBuild)
{
    const kxtest::BoxContainer container(kxtest::randomBoxes(3, 5000, Layout::Uniform));
    kxGenericBVHBuilder builder;
    kxGenericBVH manual;
    manual.mNodes.resize(7);
    manual.mNodeCount = 9;
    builder.prepare(container, manual);
    ASSERT_EQ(manual.mNodes.size(), 1u);
    EXPECT_EQ(manual.mNodeCount, 1u);
    kxBBox all;
    for (const kxBBox& b : container.boxes())
        all.extend(b);
    EXPECT_EQ(manual.mNodes[0].bbox, all);
    for (uint32_t i = 0; i < 5000; ++i)
        ASSERT_EQ(builder.getWorkingIndices()[i], i);
    builder.buildIter(0, manual, 0, 5000, 0);
    const std::vector<uint32_t> manualOrder = builder.getWorkingIndices();

    kxGenericBVH built;
    builder.build(container, built);
    EXPECT_EQ(built.mPrimitiveCount, 5000u);
    EXPECT_EQ(built.mPrimitiveIndices, manualOrder);
    ASSERT_EQ(built.mNodeCount, manual.mNodeCount);
    ASSERT_EQ(built.mNodes.size(), manual.mNodes.size());
    for (uint32_t k = 0; k < built.mNodeCount; ++k)
    {
        EXPECT_EQ(built.mNodes[k].bbox, manual.mNodes[k].bbox);
        EXPECT_EQ(built.mNodes[k].offset, manual.mNodes[k].offset);
        EXPECT_EQ(built.mNodes[k].count, manual.mNodes[k].count);
    }
}

// Prices only the primitive count, so no binned split ever beats a leaf.
class PerPrimitiveCost : public kxBVHCostFunctor
{
public:
    float f(const kxBBox& box, unsigned int n) const override
    {
        ++calls;
        return box.min[0] <= box.max[0] ? float(n) : INFINITY;
    }
    mutable int calls = 0;
};

TEST(GenericBVHBuilder, CallerCostFunctorDecidesWhereBinnedSplitsStop)
{
    PerPrimitiveCost cost;
    const kxtest::BoxContainer small(kxtest::randomBoxes(8, 1024, Layout::Uniform));
    kxGenericBVH bvh;
    kxGenericBVHBuilder(16, &cost).build(small, bvh);
    EXPECT_EQ(bvh.mNodeCount, 1u);
    EXPECT_EQ(bvh.mNodes[0].count, 1024u);
    EXPECT_EQ(cost.calls, 3 * 15 * 2 + 1);

    // One more and the node is split at the median without asking the cost.
    const kxtest::BoxContainer above(kxtest::randomBoxes(8, 1025, Layout::Uniform));
    kxGenericBVHBuilder(16, &cost).build(above, bvh);
    EXPECT_EQ(bvh.mNodeCount, 3u);
    EXPECT_EQ(bvh.mNodes[1].count, 513u);

    const kxtest::BoxContainer large(kxtest::randomBoxes(9, 3000, Layout::Uniform));
    kxGenericBVHBuilder(16, &cost).build(large, bvh);
    const kxtest::TreeShape shape = kxtest::TreeChecker(bvh, large.boxes(), true).run();
    // The upper middle primitive goes left with its equals: 3000 -> 1501 + 1499.
    ASSERT_EQ(shape.leafList.size(), 4u);
    EXPECT_EQ(shape.leafList[0].count, 751u);
    EXPECT_EQ(shape.leafList[1].count, 750u);
    EXPECT_EQ(shape.leafList[2].count, 750u);
    EXPECT_EQ(shape.leafList[3].count, 749u);
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

// Dense and overlapping meshes, where splitting by cost pays. (Few far-apart clumps, or
// sparse small triangles, favour the linear tree instead: its spatial splits find the
// gaps that object-median splits above 1024 primitives cut through, and its leaves go
// below the 16 primitives that end the binned search.)
TEST(GenericBVHBuilder, SAHTreesCostLessThanLinearTreesOfTheSameMesh)
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
