#include "kxGenericBVHBuilder.h"
#include "kxRandomGeometry.h"
#include "kxSAHReference.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>

namespace
{
using kxtest::Layout;

// A node over a random sub-range of the prepared working indices, as buildIter sees it.
struct NodeRange
{
    kxGNode node;
    uint32_t start, count;
    std::vector<uint32_t> primitives;
};

NodeRange randomRange(std::mt19937& rng, const kxGenericBVHBuilder& builder, const std::vector<kxBBox>& boxes)
{
    NodeRange r;
    r.count = std::uniform_int_distribution<uint32_t>(1, uint32_t(boxes.size()))(rng);
    r.start = std::uniform_int_distribution<uint32_t>(0, uint32_t(boxes.size()) - r.count)(rng);
    const auto first = builder.getWorkingIndices().begin() + r.start;
    r.primitives.assign(first, first + r.count);
    for (uint32_t i : r.primitives)
        r.node.bbox.extend(boxes[i]);
    return r;
}

TEST(SAHSplitSearch, ChosenPlaneMatchesBruteForceOverEveryCandidateWithItsTieBreaks)
{
    const kxDefaultSAH sah;
    const kxtest::CountOnlyCost countOnly;
    std::mt19937 rng(2024);
    int splits = 0, leaves = 0;
    for (uint32_t seed = 0; seed < 12; ++seed)
        for (Layout layout : {Layout::Uniform, Layout::Clustered, Layout::Grid, Layout::Flat, Layout::Identical})
            for (unsigned int bins : {1u, 2u, 3u, 8u, 16u, 32u})
            {
                const kxBVHCostFunctor& cost = seed % 3 == 2 ? static_cast<const kxBVHCostFunctor&>(countOnly) : sah;
                const kxtest::BoxContainer container(kxtest::randomBoxes(seed * 31 + bins, 300, layout));
                kxGenericBVHBuilder builder(bins, &cost);
                kxGenericBVH bvh;
                builder.prepare(container, bvh);
                const NodeRange r = randomRange(rng, builder, container.boxes());
                builder.computeBinning(r.node, r.start, r.count);
                const kxtest::PlaneChoice expected =
                    kxtest::bruteForcePlane(container.boxes(), r.primitives, r.node.bbox, bins, cost);
                kxBBox::tAxis axis = kxBBox::tAxis(0x12345678u);
                float pos = -12345.0f;
                const bool split = builder.findSplitPlane(r.node, r.count, axis, pos);
                ASSERT_EQ(split, expected.split) << "seed " << seed << " bins " << bins;
                splits += split;
                leaves += !split;
                // A leaf leaves the outputs untouched.
                EXPECT_EQ(axis, split ? expected.axis : kxBBox::tAxis(0x12345678u));
                EXPECT_EQ(pos, split ? expected.pos : -12345.0f);
            }
    EXPECT_GT(splits, 100);
    EXPECT_GT(leaves, 50);
}

TEST(SAHSplitSearch, SplitCostingExactlyTheLeafCostIsRejected)
{
    // The only finite candidate, three boxes either side of an x plane, costs 12 + 12: as
    // much as the leaf.
    class TieCost : public kxBVHCostFunctor
    {
    public:
        float f(const kxBBox& box, unsigned int n) const override
        {
            return box.min[0] <= box.max[0] ? (n == 6 ? 24.0f : float(n * n) + 3.0f)
                                            : std::numeric_limits<float>::infinity();
        }
    } tie;
    std::vector<kxBBox> boxes;
    for (int k = 0; k < 6; ++k)
        boxes.push_back(kxBBox(Wm4::Vector3<float>(float(k), 0, 0), Wm4::Vector3<float>(float(k) + 0.5f, 1, 1)));
    kxGenericBVHBuilder builder(2, &tie);
    kxGenericBVH bvh;
    builder.prepare(kxtest::BoxContainer(boxes), bvh);
    builder.computeBinning(bvh.mNodes[0], 0, 6);
    kxBBox::tAxis axis;
    float pos;
    EXPECT_FALSE(builder.findSplitPlane(bvh.mNodes[0], 6, axis, pos));
}

TEST(SAHSplitSearch, MedianOrderMatchesStableSortOfCentroids)
{
    std::mt19937 rng(99);
    for (uint32_t seed = 0; seed < 10; ++seed)
        for (Layout layout : {Layout::Uniform, Layout::Clustered, Layout::Grid, Layout::Identical})
        {
            const kxtest::BoxContainer container(kxtest::randomBoxes(seed, 3000, layout));
            const auto& boxes = container.boxes();
            kxGenericBVHBuilder builder;
            kxGenericBVH bvh;
            builder.prepare(container, bvh);
            NodeRange r = randomRange(rng, builder, boxes);
            if (seed < 2)
                r.count = std::min<uint32_t>(r.count, seed + 1); // the one- and two-primitive cases
            r.primitives.resize(r.count);
            for (kxBBox::tAxis axis : {kxBBox::eAxisX, kxBBox::eAxisY, kxBBox::eAxisZ})
            {
                const int a = kxBBox::component(axis);
                std::vector<uint32_t> order(r.count);
                std::iota(order.begin(), order.end(), 0u);
                const float origin = r.node.bbox.min[a];
                std::stable_sort(order.begin(), order.end(), [&](uint32_t x, uint32_t y) {
                    return kxtest::centroid(boxes[r.primitives[x]], a) - origin <
                           kxtest::centroid(boxes[r.primitives[y]], a) - origin;
                });
                kxBBox::tAxis given = axis;
                float pos = 0.0f;
                builder.findMedianSplit(r.node, r.start, r.count, given, pos);
                EXPECT_EQ(given, axis);
                const auto& perm = builder.getMedianPermutation();
                ASSERT_TRUE(std::equal(order.begin(), order.end(), perm.begin())) << "seed " << seed << " axis " << a;
                EXPECT_EQ(pos, kxtest::centroid(boxes[r.primitives[order[r.count / 2]]], a));
            }
        }
}
} // namespace
