#include "kxBVHContainers.h"
#include "kxBVHInvariants.h"
#include "kxCapturingLog.h"
#include "kxGenericBVHBuilder.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>

namespace
{
using kxtest::Layout;

float centroid(const kxBBox& b, int a)
{
    return (b.min[a] + b.max[a]) * 0.5f;
}

// Prices only the primitive count, so that equal costs across axes and bins are common.
struct CountOnlyCost : kxBVHCostFunctor
{
    float f(const kxBBox& box, unsigned int n) const override
    {
        return box.min[0] <= box.max[0] ? float(n * n) + 3.0f : std::numeric_limits<float>::infinity();
    }
};

// Prices every plane between two bins of every axis by collecting both sides from scratch;
// the first of equally cheap planes wins, and only a plane cheaper than the leaf. A
// centroid's bin is its truncated scaled offset clamped to the last bin, 0 when the node
// has no extent on the axis (NaN). Outputs as findSplitPlane's.
bool bruteForcePlane(const std::vector<kxBBox>& boxes, const std::vector<uint32_t>& range, const kxBBox& node,
                     uint32_t bins, const kxBVHCostFunctor& cost, kxBBox::tAxis& axis, float& pos)
{
    float bestCost = std::numeric_limits<float>::infinity();
    uint32_t bestBin = 0, bestAxis = 0;
    for (uint32_t a = 0; a < 3; ++a)
        for (uint32_t j = 0; j + 1 < bins; ++j)
        {
            kxBBox left, right;
            uint32_t nLeft = 0;
            for (uint32_t i : range)
            {
                const float t = (centroid(boxes[i], a) - node.min[a]) * (float(bins) / (node.max[a] - node.min[a]));
                const bool isLeft = (std::isnan(t) ? 0 : std::min(uint32_t(int64_t(t)), bins - 1)) <= j;
                (isLeft ? left : right).extend(boxes[i]);
                nLeft += isLeft;
            }
            const float c = cost.f(left, nLeft) + cost.f(right, uint32_t(range.size()) - nLeft);
            if (c < bestCost)
            {
                bestCost = c;
                bestAxis = a;
                bestBin = j;
            }
        }
    if (!(bestCost < cost.f(node, uint32_t(range.size()))))
        return false;
    axis = kxBBox::tAxis(bestAxis << 30);
    pos = float(bestBin + 1) * (node.max[bestAxis] - node.min[bestAxis]) / float(bins) + node.min[bestAxis];
    return true;
}

// Nodes over random sub-ranges of the prepared working indices, as buildIter sees them:
// the binned plane search matches brute force over every candidate, and the median split
// orders centroid offsets from the node's low side (rounding can make distinct centroids
// equal) as a stable sort does.
TEST(SAHSplitSearch, PlaneSearchMatchesBruteForceAndMedianOrderMatchesAStableSort)
{
    const kxDefaultSAH sah;
    const CountOnlyCost countOnly;
    std::mt19937 rng(2024);
    int splits = 0, leaves = 0;
    for (uint32_t seed = 0; seed < 12; ++seed)
        for (Layout layout : {Layout::Uniform, Layout::Clustered, Layout::Grid, Layout::Flat, Layout::Identical})
            for (unsigned int bins : {1u, 2u, 3u, 8u, 16u, 32u})
            {
                SCOPED_TRACE(::testing::Message() << "seed " << seed << " layout " << int(layout) << " bins " << bins);
                const kxBVHCostFunctor& cost = seed % 3 == 2 ? static_cast<const kxBVHCostFunctor&>(countOnly) : sah;
                const kxtest::BoxContainer container(kxtest::randomBoxes(seed * 31 + bins, 300 * bins, layout));
                const std::vector<kxBBox>& boxes = container.boxes();
                kxGenericBVHBuilder builder(bins, &cost);
                kxGenericBVH bvh;
                builder.prepare(container, bvh);
                // A few one- and two-primitive nodes.
                const auto count = std::uniform_int_distribution<uint32_t>(1, seed < 2 ? 2 : 300 * bins)(rng);
                const auto start = std::uniform_int_distribution<uint32_t>(0, uint32_t(boxes.size()) - count)(rng);
                const std::vector<uint32_t> range(builder.getWorkingIndices().begin() + start,
                                                  builder.getWorkingIndices().begin() + start + count);
                kxGNode node;
                for (uint32_t i : range)
                    node.bbox.extend(boxes[i]);
                builder.computeBinning(node, start, count);
                // A leaf leaves the outputs untouched.
                kxBBox::tAxis axis = kxBBox::tAxis(0x12345678u), expectedAxis = axis;
                float pos = -12345.0f, expectedPos = pos;
                const bool split = builder.findSplitPlane(node, count, axis, pos);
                ASSERT_EQ(split, bruteForcePlane(boxes, range, node.bbox, bins, cost, expectedAxis, expectedPos));
                EXPECT_TRUE(axis == expectedAxis && pos == expectedPos) << pos << " instead of " << expectedPos;
                splits += split;
                leaves += !split;
                const int a = bins % 3;
                std::vector<uint32_t> order(count);
                std::iota(order.begin(), order.end(), 0u);
                const float origin = node.bbox.min[a];
                std::stable_sort(order.begin(), order.end(), [&](uint32_t x, uint32_t y) {
                    return centroid(boxes[range[x]], a) - origin < centroid(boxes[range[y]], a) - origin;
                });
                axis = kxBBox::tAxis(uint32_t(a) << 30);
                builder.findMedianSplit(node, start, count, axis, pos);
                ASSERT_TRUE(std::equal(order.begin(), order.end(), builder.getMedianPermutation().begin()));
                EXPECT_EQ(pos, centroid(boxes[range[order[count / 2]]], a));
            }
    EXPECT_GT(splits, 100);
    EXPECT_GT(leaves, 50);
}

// Beyond the invariants of every tree, each decision of the recursion: leaves over 16
// primitives only at depth 32 or where no plane pays, binned splits where brute force
// puts them, larger nodes split at the centroid median of their longest axis.
void checkSAHTree(const kxGenericBVH& bvh, const std::vector<kxBBox>& boxes, unsigned int bins,
                  const kxBVHCostFunctor& cost)
{
    const kxtest::TreeShape shape = kxtest::checkTree(bvh, boxes);
    ASSERT_FALSE(::testing::Test::HasFailure());
    ASSERT_EQ(bvh.mNodeCount, 2 * shape.innerNodes + 1);
    // The node array grows in steps of 1024 records.
    EXPECT_EQ(bvh.mNodes.size(), shape.innerNodes == 0 ? 1u : (bvh.mNodeCount + 1023) / 1024 * 1024);
    EXPECT_LE(shape.maxDepth, 32);
    const auto under = [&](uint32_t node) {
        const auto first = bvh.mPrimitiveIndices.begin() + shape.runs[node].first;
        return std::vector<uint32_t>(first, first + shape.runs[node].count);
    };
    for (const kxtest::TreeShape::Leaf& leaf : shape.leaves)
        if (leaf.count > 16 && leaf.depth < 32)
        {
            ASSERT_LE(leaf.count, 1024u) << "a node this large must be split";
            kxBBox::tAxis axis;
            float pos;
            EXPECT_FALSE(bruteForcePlane(boxes, under(leaf.node), bvh.mNodes[leaf.node].bbox, bins, cost, axis, pos))
                << "leaf " << leaf.node << " of " << leaf.count << " had a cheaper split";
        }
    for (uint32_t node = 0; node < bvh.mNodeCount; ++node)
    {
        const kxGNode& n = bvh.mNodes[node];
        if (n.offset >= 0xC0000000u)
            continue;
        const std::vector<uint32_t> all = under(node), left = under(n.offset & 0x3FFFFFFFu);
        ASSERT_GT(all.size(), 16u) << "node " << node;
        const auto axis = kxBBox::tAxis(n.offset & 0xC0000000u);
        const int a = kxBBox::component(axis);
        float leftMax = -INFINITY, rightMin = INFINITY;
        for (size_t i = 0; i < all.size(); ++i)
        {
            const float c = centroid(boxes[all[i]], a);
            (i < left.size() ? leftMax : rightMin) = i < left.size() ? std::max(leftMax, c) : std::min(rightMin, c);
        }
        kxBBox::tAxis expectedAxis;
        float pos = leftMax;
        if (all.size() <= 1024)
            ASSERT_TRUE(bruteForcePlane(boxes, all, n.bbox, bins, cost, expectedAxis, pos)) << "node " << node;
        else
        {
            // The left side ends at the median: at most count/2 centroids lie below it.
            size_t below = 0;
            for (uint32_t p : all)
                below += centroid(boxes[p], a) < leftMax;
            EXPECT_LE(below, all.size() / 2) << "node " << node;
            EXPECT_GT(left.size(), all.size() / 2) << "node " << node;
            n.bbox.getMaxExtent(expectedAxis);
        }
        EXPECT_EQ(axis, expectedAxis) << "node " << node;
        // A centroid on the plane goes left.
        EXPECT_TRUE(leftMax <= pos && pos < rightMin) << "node " << node;
    }
}

TEST(GenericBVHBuilder, RandomBuildsTakeTheReferenceDecisionsAndKeepEveryTreeInvariant)
{
    const kxDefaultSAH sah;
    const CountOnlyCost countOnly;
    // One hierarchy for every build: leftovers of a bigger earlier tree must not show.
    kxGenericBVH bvh;
    for (unsigned int bins : {16u, 5u, 0u})
        for (Layout layout : {Layout::Uniform, Layout::Clustered, Layout::Grid, Layout::Flat, Layout::Identical})
            for (uint32_t n : {0u, 1u, 16u, 17u, 200u, 1024u, 1025u, 20000u})
            {
                SCOPED_TRACE(::testing::Message() << "bins " << bins << " layout " << int(layout) << " n " << n);
                // The caller's cost replaces the default one; no bins means one.
                const kxBVHCostFunctor& cost = bins == 5 ? static_cast<const kxBVHCostFunctor&>(countOnly) : sah;
                const kxtest::BoxContainer container(kxtest::randomBoxes(n + bins, n, layout));
                kxGenericBVHBuilder(bins, bins == 5 ? &cost : nullptr).build(container, bvh);
                ASSERT_NO_FATAL_FAILURE(checkSAHTree(bvh, container.boxes(), std::max(bins, 1u), cost));
                // Equal centroids: every median plane sends everything left, down to depth 32.
                EXPECT_TRUE(layout != Layout::Identical || n <= 1024 || bvh.mNodeCount == 65u);
            }
}

// Prices like kxDefaultSAH through the virtual call: a subclass must not be taken for it.
struct DoubledSAH : kxDefaultSAH
{
    float f(const kxBBox& box, unsigned int n) const override { return 2.0f * kxDefaultSAH::f(box, n); }
};

// Boxes the builder accepts though no mesh makes them: NaN and infinite coordinates,
// empty boxes, signed zeros, and clumps so small that a node's bin scale overflows.
std::vector<kxBBox> oddBoxes(uint32_t seed, uint32_t n)
{
    std::mt19937 rng(seed);
    std::vector<kxBBox> boxes = kxtest::randomBoxes(seed, n, Layout::Uniform);
    const float odd[] = {NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 1e-45f, -1e-45f, 3e-44f, 1e30f};
    for (kxBBox& b : boxes)
    {
        const uint32_t kind = rng() % 8;
        if (kind == 0)
            b = kxBBox();
        else if (kind < 3)
        {
            float& v = (rng() % 2 ? b.min : b.max)[rng() % 3];
            v = odd[rng() % (sizeof odd / sizeof odd[0])];
        }
        else if (kind < 5)
            for (int a = 0; a < 3; ++a)
            {
                b.min[a] = odd[3 + rng() % 6];
                b.max[a] = std::max(b.min[a], odd[3 + rng() % 6]);
            }
    }
    return boxes;
}

// Boxes whose centroid offsets from a finite node minimum are negative, -0, -inf or NaN
// (keys a median split orders by their bits), and boxes turned inside out, every maximum
// below every minimum, whose node boxes have negative extents.
std::vector<kxBBox> oddKeyBoxes(uint32_t seed, uint32_t n, bool insideOut)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<kxBBox> boxes(n);
    for (uint32_t i = 0; i < n; ++i)
        for (int a = 0; a < 3; ++a)
        {
            float& lo = boxes[i].min[a];
            float& hi = boxes[i].max[a];
            lo = insideOut ? 100.0f + 100.0f * unit(rng) : 100.0f * unit(rng);
            hi = insideOut ? 50.0f * unit(rng) : lo + unit(rng);
            if (insideOut || i == 0)
                continue;
            switch (rng() % 24)
            {
            case 0: hi = -INFINITY; break;
            case 1: hi = NAN; break;
            case 2: hi = -1e30f; break;
            case 3: lo = -0.0f; hi = -0.0f; break;
            case 4: lo = hi = 0.0f; break;
            default: break;
            }
        }
    if (n > 0 && !insideOut)
        for (int a = 0; a < 3; ++a)
            boxes[0].min[a] = 0.0f;
    return boxes;
}

// build() against the builder's own steps (prepare, buildIter from the root, the working
// indices handed over): every record, index and count the same bit for bit, the same
// memory figure, and the same bin state left behind by the last binned node.
TEST(GenericBVHBuilder, BuildWritesWhatItsOwnStepsWriteBitForBit)
{
    const CountOnlyCost countOnly;
    const kxDefaultSAH explicitDefault;
    const DoubledSAH doubled;
    const kxBVHCostFunctor* const costs[] = {nullptr, &countOnly, &explicitDefault, &doubled};
    std::mt19937 rng(99);
    int medians = 0;
    for (uint32_t n : {0u, 1u, 17u, 300u, 1024u, 1025u, 1500u, 4097u, 30000u})
        for (int layout = 0; layout < 9; ++layout)
        {
            const unsigned int bins = std::vector<unsigned int>{16u, 1u, 2u, 5u, 16u, 33u, 16u, 16u, 4u}[layout];
            const kxBVHCostFunctor* cost = costs[rng() % 4];
            SCOPED_TRACE(::testing::Message() << "n " << n << " layout " << layout << " bins " << bins);
            // The library's triangle container as well as boxes handed in by the caller.
            const kx::kxPointer<kx::kxTriMesh> mesh = kxtest::randomTriangleMesh(n, n, Layout::Clustered);
            const kxBVHTriangleContainer triangles(*mesh);
            const kxtest::BoxContainer boxes(layout == 5   ? oddBoxes(n, n)
                                             : layout > 6 ? oddKeyBoxes(n, n, layout == 8)
                                                          : kxtest::randomBoxes(n * 7 + layout, n, Layout(layout % 5)));
            const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container =
                layout == 6 ? static_cast<const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface&>(triangles)
                            : boxes;
            kxGenericBVHBuilder plain(bins, cost);
            kxGenericBVHBuilder fast(bins, cost);
            // Leftovers of an earlier build in both: a smaller tree must not show them.
            kxGenericBVH expected, actual;
            const kxtest::BoxContainer earlier(kxtest::randomBoxes(n + 1, 2000, Layout::Clustered));
            plain.build(earlier, expected);
            fast.build(earlier, actual);

            plain.prepare(container, expected);
            plain.buildIter(0, expected, 0, n, 0);
            expected.mPrimitiveIndices = std::vector<uint32_t>(plain.getWorkingIndices());
            expected.mPrimitiveCount = n;
            fast.build(container, actual);

            ASSERT_EQ(actual.mNodeCount, expected.mNodeCount);
            ASSERT_EQ(actual.mNodes.size(), expected.mNodes.size());
            EXPECT_EQ(0, std::memcmp(actual.mNodes.data(), expected.mNodes.data(),
                                     expected.mNodes.size() * sizeof(kxGNode)));
            EXPECT_EQ(actual.mPrimitiveIndices, expected.mPrimitiveIndices);
            EXPECT_EQ(actual.mPrimitiveCount, n);
            EXPECT_EQ(actual.getMemoryUsed(), expected.getMemoryUsed());
            EXPECT_EQ(fast.getBinCounts(), plain.getBinCounts());
            ASSERT_EQ(fast.getLeftBinBoxes().size(), plain.getLeftBinBoxes().size());
            EXPECT_EQ(0, std::memcmp(fast.getLeftBinBoxes().data(), plain.getLeftBinBoxes().data(),
                                     plain.getLeftBinBoxes().size() * sizeof(kxBBox)));
            EXPECT_EQ(0, std::memcmp(fast.getRightBinBoxes().data(), plain.getRightBinBoxes().data(),
                                     plain.getRightBinBoxes().size() * sizeof(kxBBox)));
            EXPECT_TRUE(fast.getWorkingIndices().empty() && fast.getMedianPermutation().empty());
            medians += n > 1024 && expected.mNodeCount > 1;
        }
    EXPECT_GT(medians, 20);
}

TEST(GenericBVHBuilder, SAHCostOfAHandBuiltTree)
{
    kxGenericBVH bvh;
    bvh.mNodes = {{kxBBox(Wm4::Vector3<float>(0, 0, 0), Wm4::Vector3<float>(2, 1, 1)), 1u | kxBBox::eAxisX, 2},
                  {kxBBox(Wm4::Vector3<float>(0, 0, 0), Wm4::Vector3<float>(1, 1, 1)), 0xC0000000u, 2},
                  {kxBBox(Wm4::Vector3<float>(1, 0, 0), Wm4::Vector3<float>(2, 1, 1)), 0xC0000002u, 1}};
    bvh.mPrimitiveIndices = {0, 1, 2};
    bvh.mNodeCount = 3;
    // Half areas 5, 3 and 3: (5*4 + 3*(4+2) + 3*(4+1)) / 5.
    EXPECT_DOUBLE_EQ(kxComputeSAHCost(bvh), 53.0 / 5.0);
    // An empty leaf adds nothing.
    bvh.mNodes[2] = {kxBBox(), 0xC0000002u, 0};
    EXPECT_DOUBLE_EQ(kxComputeSAHCost(bvh), (20.0 + 18.0) / 5.0);
}

// Dense and overlapping meshes, where splitting by cost pays. (On a few far-apart clumps
// the linear tree's spatial splits find the gaps that median splits cut through.)
TEST(GenericBVHBuilder, SAHTreesCostLessThanLinearTreesOfDenseMeshes)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(17);
    for (const kx::kxPointer<kx::kxTriMesh>& mesh :
         {kxtest::randomSoup(rng, 20000), kxtest::randomSoup(rng, 20000),
          kxtest::randomTriangleMesh(1, 20000, Layout::Grid), kxtest::randomTriangleMesh(1, 20000, Layout::Flat)})
    {
        const kxBVHTriangleContainer container(*mesh);
        kxGenericBVH sahTree, linearTree;
        kxGenericBVHBuilder().build(container, sahTree);
        kxLinearGenericBVHBuilder().build(container, linearTree, nullptr, 20);
        EXPECT_LT(kxComputeSAHCost(sahTree), kxComputeSAHCost(linearTree));
    }
}
} // namespace
