// Linked with the failing allocator, so that the n-th allocation of a build can be made to
// fail and blocks still held can be counted.
#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxFailingAllocator.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxRandomGeometry.h"
#include "kxStringUtils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <numeric>
#include <random>
#include <tuple>

namespace
{
using Scene = std::pair<std::string, std::vector<kxBBox>>; // a name and its boxes

// Boxes of every kind that shapes codes: wide and narrow ranges, infinite, subnormal and
// coarse extents, empty boxes, signed zeros and NaNs, dense clusters, equal points.
std::vector<Scene> makeScenes(uint32_t quantity, uint32_t seed)
{
    std::mt19937 random(seed);
    const auto boxAround = [](const Wm4::Vector3<float>& c, float h) {
        return kxBBox(c - Wm4::Vector3<float>(h, h, h), c + Wm4::Vector3<float>(h, h, h));
    };
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    const auto randomPoint = [&] { return Wm4::Vector3<float>(unit(random), unit(random), unit(random)); };
    std::vector<std::pair<Wm4::Vector3<float>, float>> base;
    for (uint32_t i = 0; i < quantity; ++i)
        base.emplace_back(randomPoint(), i % 4 ? 0.05f * (unit(random) + 1.0f) : 0.0f);
    std::vector<Scene> scenes;
    // Every fourth box a point, which lands past the last cell when it is the scene's
    // extreme. 6e38 wide overflows to infinity; far from the origin, boxes round to a few points.
    for (const auto& [name, scale, offset] : {std::tuple("uniform", 10.0f, 0.0f), {"huge, overflowing", 3e38f, 0.0f},
                                              {"huge", 1e30f, 0.0f}, {"tiny", 1e-38f, 0.0f},
                                              {"far from the origin", 0.5f, 1e6f}, {"some empty boxes", 1.0f, 0.0f},
                                              {"signed zeros and NaNs", 0.2f, 0.8f}})
    {
        scenes.push_back({name, {}});
        for (const auto& [centre, half] : base)
            scenes.back().second.push_back(boxAround(centre * scale + Wm4::Vector3<float>::ONE * offset, half * scale));
    }
    for (size_t i = 0; i < quantity; i += 5)
        scenes[5].second[i] = kxBBox();
    // Signed zeros and NaNs tell apart the order of the comparisons that grow boxes; with
    // the other boxes between 0.58 and 1.02, inverted ones have centres below the scene.
    const float special[] = {0.0f, -0.0f, 0.5f, std::numeric_limits<float>::quiet_NaN()};
    for (size_t i = 0; i < 3 * quantity; i += i % 3 == 2 ? 7 : 1)
    {
        scenes[6].second[i / 3].min[i % 3] = special[random() % 4];
        scenes[6].second[i / 3].max[i % 3] = -special[random() % 4];
    }
    // Clusters of sizes 1 down to 1e-4: at every grid resolution one of them is dense, so
    // that the low code bits decide too.
    std::normal_distribution<float> spread(0.0f, 1.0f);
    const Wm4::Vector3<float> centres[] = {randomPoint() * 100.0f, randomPoint() * 100.0f, randomPoint() * 100.0f};
    scenes.push_back({"clustered", {}});
    for (uint32_t i = 0; i < quantity; ++i)
    {
        const float size = std::pow(10.0f, -float(i % 5));
        const Wm4::Vector3<float> offset(spread(random), spread(random), spread(random));
        scenes.back().second.push_back(boxAround(centres[i % 3] + offset * size, 0.1f * size));
    }
    scenes.push_back({"all-equal points", std::vector<kxBBox>(quantity, boxAround(randomPoint(), 0.0f))});
    // A few points repeated at random: equal codes deep in the tree, not only at its root.
    const Wm4::Vector3<float> pool[] = {randomPoint(), randomPoint(), randomPoint(), randomPoint(), randomPoint()};
    scenes.push_back({"duplicated points", {}});
    for (uint32_t i = 0; i < quantity; ++i)
        scenes.back().second.push_back(boxAround(pool[random() % 5], 0.0f));
    return scenes;
}

struct Reference
{
    kxGenericBVH bvh;
    uint64_t runListEntries = 0, distinctCodes = 0; // runs of all levels; runs of the last
};

/// A linear build computed plainly: codes by a bit loop, a stable comparison sort, then
/// level by level from the top code bit every run over the leaf limit split where that bit
/// turns on, records numbered in that order, each box the union of its run.
Reference buildReference(const std::vector<kxBBox>& boxes, unsigned bits, uint32_t limit)
{
    Reference r;
    std::vector<uint64_t> codes;
    const unsigned axisBits = std::min(bits, 21u);
    kxBBox all;
    for (const kxBBox& box : boxes)
        all.extend(box);
    const float side = std::max({all.max[0] - all.min[0], all.max[1] - all.min[1], all.max[2] - all.min[2]});
    const float scale = static_cast<float>(1u << axisBits) / side;
    for (const kxBBox& box : boxes)
    {
        uint64_t code = 0;
        for (unsigned a = 0; a < 3; ++a)
        {
            const float origin = (all.min[a] + all.max[a]) * 0.5f - 0.5f * side;
            const float q = ((box.min[a] + box.max[a]) * 0.5f - origin) * scale;
            // The low half of x86's conversion; NaN and values out of range give the integer
            // indefinite, whose low half is 0, as is that of every float of at least 2^56.
            const auto cell = static_cast<uint32_t>(std::fabs(q) < 9.2e18f ? static_cast<int64_t>(q) : 0);
            const uint32_t clamped = std::min(cell, (1u << axisBits) - 1u);
            for (unsigned k = 0; k < axisBits; ++k)
                code |= uint64_t((clamped >> k) & 1u) << (3 * k + a);
        }
        codes.push_back(code);
    }
    const auto quantity = static_cast<uint32_t>(boxes.size());
    std::vector<uint32_t>& order = r.bvh.mPrimitiveIndices;
    order.resize(quantity);
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return codes[a] < codes[b]; });
    // Level L holds one run per distinct code prefix of L bits.
    for (unsigned shift = 0; shift <= 3 * axisBits; ++shift)
    {
        uint64_t runs = 1;
        for (uint32_t p = 1; p < quantity; ++p)
            runs += (codes[order[p]] >> shift) != (codes[order[p - 1]] >> shift);
        r.runListEntries += runs;
        r.distinctCodes = shift == 0 ? runs : r.distinctCodes;
    }
    struct Run
    {
        uint32_t node, first, count;
    };
    std::vector<kxGNode>& nodes = r.bvh.mNodes;
    const auto addLeaf = [&](uint32_t first, uint32_t count) {
        nodes.push_back({kxBBox(), first | 0xC0000000u, count});
        for (uint32_t p = first; p < first + count; ++p)
            nodes.back().bbox.extend(boxes[order[p]]);
        return Run{static_cast<uint32_t>(nodes.size() - 1), first, count};
    };
    std::vector<Run> level{addLeaf(0, quantity)};
    for (int bit = 3 * int(axisBits) - 1; bit >= 0; --bit)
    {
        std::vector<Run> next;
        for (const Run& run : level)
        {
            uint32_t split = run.first;
            while (split < run.first + run.count && !((codes[order[split]] >> bit) & 1u))
                ++split;
            if (run.count <= limit || split == run.first || split == run.first + run.count)
            {
                next.push_back(run);
                continue;
            }
            next.push_back(addLeaf(run.first, split - run.first));
            next.push_back(addLeaf(split, run.first + run.count - split));
            nodes[run.node].offset = (next.back().node - 1) | (uint32_t(bit % 3) << 30); // the axis owning the bit
            nodes[run.node].count = next.back().node;
        }
        level = next;
    }
    // The count of records emitted before fusing.
    r.bvh.mNodeCount = static_cast<uint32_t>(2 * r.distinctCodes - 1);
    r.bvh.mPrimitiveCount = quantity;
    return r;
}

// Identical record by record (boxes bitwise), in index arrays and counters, with the node
// array trimmed.
bool sameHierarchy(const kxGenericBVH& actual, const kxGenericBVH& expected)
{
    return actual.mPrimitiveIndices == expected.mPrimitiveIndices &&
           actual.mPrimitiveCount == expected.mPrimitiveCount && actual.mNodeCount == expected.mNodeCount &&
           actual.mNodes.size() == expected.mNodes.size() && actual.mNodes.capacity() == actual.mNodes.size() &&
           std::memcmp(actual.mNodes.data(), expected.mNodes.data(), actual.mNodes.size() * sizeof(kxGNode)) == 0;
}

// Counts its polls and answers true from the cancelFrom-th poll on (never for 0).
struct CountingCancel : kx::kxCancelInterfaceReadOnly
{
    bool shouldCancel() const override { return ++polls >= cancelFrom && cancelFrom != 0; }
    uint64_t cancelFrom = 0;
    mutable uint64_t polls = 0;
};
} // namespace

// Small scenes are also cancelled at every poll the build makes: after the codes, the
// sort, the run counting and the run lists; per level; per emitted record and per primitive
// in the refit and once after it; per emitted record while fusing, after the count and
// after renumbering; once at the end.
TEST(LinearBuilder, MatchesAPlainReferenceLogsItsMemoryUseAndStopsAtEveryPoll)
{
    kx::kxCapturingLog log;
    log.install();
    const auto humanized = [](uint64_t bytes) {
        return kx::kxStringUtils::humanizeNumberGeneric<unsigned long>(bytes, 3, 1, true, true, false);
    };
    kxLinearGenericBVHBuilder builder;
    // One hierarchy for every build: leftovers of a bigger earlier tree must not show.
    kxGenericBVH bvh;
    uint32_t seed = 1;
    for (uint32_t quantity : {0u, 1u, 2u, 3u, 17u, 60u, 300u, 2000u})
        for (const auto& [name, boxes] : makeScenes(quantity, seed++))
        {
            const kxtest::BoxContainer container(boxes);
            for (unsigned bits : {0u, 1u, 7u, 10u, 11u, 20u, 30u})
                for (uint32_t limit : {0u, 2u, 4u, 7u, 8u, 9u, 1000u})
                {
                    SCOPED_TRACE(name + ", " + std::to_string(quantity) + " primitives, bits " +
                                 std::to_string(bits) + ", leaf limit " + std::to_string(limit));
                    const Reference reference = buildReference(boxes, bits, std::max(limit, 1u));
                    const uint64_t distinct = reference.distinctCodes, emitted = 2 * distinct - 1;
                    log.clear();
                    builder.setMaxPrimitivesPerLeaf(limit);
                    ASSERT_EQ(builder.getMaxPrimitivesPerLeaf(), std::max(limit, 1u));
                    CountingCancel never;
                    ASSERT_TRUE(builder.build(container, bvh, limit == 7 ? nullptr : &never, bits));
                    ASSERT_TRUE(sameHierarchy(bvh, reference.bvh));
                    const std::string prefix = "kxLinearGenericBVHBuilder : allocate ";
                    const std::vector<std::string> expected = {
                        prefix + humanized(4 * quantity) + "B for " + std::to_string(quantity) + " primitives indexes",
                        prefix + humanized(8 * reference.runListEntries) + "B of working buffer",
                        prefix + humanized(64 * distinct) + "B for " + std::to_string(2 * distinct) + " result nodes",
                        "fuse " + std::to_string(2 * distinct) + " into " + std::to_string(bvh.mNodes.size())};
                    ASSERT_EQ(log.messages(), expected);
                    const uint64_t polls = 4 + 3 * std::min(bits, 21u) + (emitted + quantity) + 1 + (emitted + 2) + 1;
                    ASSERT_EQ(never.polls, limit == 7 ? 0 : polls);
                    for (uint64_t k = 1; k <= polls && quantity <= 60 && limit == 4 && name != "uniform"; ++k)
                    {
                        log.clear();
                        CountingCancel cancel;
                        cancel.cancelFrom = k;
                        ASSERT_FALSE(builder.build(container, bvh, &cancel, bits)) << "poll " << k;
                        ASSERT_EQ(cancel.polls, k) << "polled after giving up";
                        // Polls 1 to 3 come before the working buffer exists and 4 right after
                        // its line; the fusing line comes after every poll but the last.
                        const std::vector<std::string> lines = log.messages();
                        ASSERT_EQ(lines.size(), k <= 4 ? 2u : (k < polls ? 3u : 4u)) << "poll " << k;
                        EXPECT_EQ(lines[1] == prefix + "0B of working buffer", k <= 3) << "poll " << k;
                    }
                }
        }
}

// Scenes big enough that the sort keeps splitting buckets many digits deep, in random
// order and in the neighbourly order of a tessellated surface, through the interface and
// through the triangle container the builder reads directly.
TEST(LinearBuilder, MatchesAPlainReferenceOnLargeScenes)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    constexpr uint32_t kQuantity = 100000;
    std::vector<Scene> scenes = makeScenes(kQuantity, 99);
    // A wavy sheet of 316 x 316 quads, triangles numbered row by row.
    std::vector<Wm4::Vector3<float>> corners;
    constexpr int kSide = 316;
    for (int row = 0; row < kSide; ++row)
        for (int column = 0; column < kSide; ++column)
            for (const auto& [dx, dz] : {std::pair(0, 0), {1, 0}, {0, 1}, {1, 1}, {0, 1}, {1, 0}})
            {
                const float x = float(column + dx), z = float(row + dz);
                corners.emplace_back(x, 8.0f * std::sin(0.05f * x) * std::cos(0.03f * z), z);
            }
    std::vector<unsigned int> indices(corners.size());
    std::iota(indices.begin(), indices.end(), 0u);
    const kx::kxPointer<kx::kxTriMesh> sheet = kxtest::makeMesh(corners, indices);
    const kxBVHTriangleContainer sheetContainer(*sheet);
    std::vector<kxBBox> sheetBoxes;
    for (uint32_t t = 0; t < sheetContainer.getQuantity(); ++t)
        sheetBoxes.push_back(sheetContainer.getBBox(t));
    scenes.push_back({"tessellated sheet", sheetBoxes});

    for (const auto& [name, boxes] : scenes)
    {
        const kxtest::BoxContainer boxContainer(boxes);
        const bool isSheet = name == "tessellated sheet";
        const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container =
            isSheet ? static_cast<const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface&>(sheetContainer)
                    : boxContainer;
        for (unsigned bits : {10u, 20u, 30u})
            for (uint32_t limit : {1u, 4u, 12u})
            {
                SCOPED_TRACE(name + ", bits " + std::to_string(bits) + ", leaf limit " + std::to_string(limit));
                kxLinearGenericBVHBuilder builder;
                builder.setMaxPrimitivesPerLeaf(limit);
                kxGenericBVH bvh;
                ASSERT_TRUE(builder.build(container, bvh, nullptr, bits));
                ASSERT_TRUE(sameHierarchy(bvh, buildReference(boxes, bits, limit).bvh));
            }
    }
}

// The builder reads the boxes of the exact triangle container without a virtual call; a
// subclass that answers with other boxes must still be asked.
TEST(LinearBuilder, BuildsFromTriangleContainersAndTheirSubclasses)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    const kx::kxPointer<kx::kxTriMesh> mesh = kxtest::randomTriangleMesh(7, 1000, kxtest::Layout::Clustered);
    class Reversed : public kxBVHTriangleContainer
    {
    public:
        using kxBVHTriangleContainer::kxBVHTriangleContainer;
        const kxBBox& getBBox(unsigned int i) const override
        {
            return kxBVHTriangleContainer::getBBox(getQuantity() - 1 - i);
        }
    };
    const kxBVHTriangleContainer plain(*mesh);
    const Reversed reversed(*mesh);
    for (const kxBVHTriangleContainer* container : {&plain, static_cast<const kxBVHTriangleContainer*>(&reversed)})
    {
        std::vector<kxBBox> boxes;
        for (uint32_t t = 0; t < container->getQuantity(); ++t)
            boxes.push_back(container->getBBox(t));
        kxGenericBVH bvh;
        ASSERT_TRUE(kxLinearGenericBVHBuilder().build(*container, bvh, nullptr, 20));
        EXPECT_TRUE(sameHierarchy(bvh, buildReference(boxes, 20, 4).bvh));
    }
}

TEST(LinearBuilder, LogsItsMemoryUseInFourLinesAtLevelOneInCategoryBvh)
{
    // 125 boxes in each octant: one bit per axis gives eight codes.
    std::vector<kxBBox> boxes;
    for (int i = 0; i < 1000; ++i)
    {
        const Wm4::Vector3<float> corner(float(i & 1), float(i >> 1 & 1), float(i >> 2 & 1));
        boxes.push_back(kxBBox(corner - Wm4::Vector3<float>(1, 1, 1), corner));
    }
    kx::kxCapturingLog log;
    log.install();
    kxGenericBVH bvh;
    ASSERT_TRUE(kxLinearGenericBVHBuilder().build(kxtest::BoxContainer(boxes), bvh, nullptr, 1));
    const std::string prefix = "kxLinearGenericBVHBuilder : allocate ";
    const std::vector<std::string> expected = {prefix + "3.9kB for 1000 primitives indexes",
                                               prefix + "120B of working buffer",
                                               prefix + "512B for 16 result nodes", "fuse 16 into 15"};
    EXPECT_EQ(log.messages(), expected);
    for (const kx::kxLog::LogEntry& entry : log.entries())
        EXPECT_TRUE(entry.level == 1 && entry.category == "bvh") << entry.level << " " << entry.category;
}

TEST(LinearBuilderFailure, AllocationFailureAtAnyPointPropagatesLeaksNothingAndLeavesTheBuilderUsable)
{
    // Log lines allocate while they are emitted, where a failure would end the process;
    // with the level off nothing is formatted.
    kx::kxCapturingLog log;
    log.setLevelEnabled(1, false);
    log.install();
    const kxtest::BoxContainer container(makeScenes(200, 4)[0].second);
    for (unsigned bits : {8u, 20u})
    {
        const Reference reference = buildReference(container.boxes(), bits, 4);
        kxGenericBVH counted;
        gAllocations = 0;
        ASSERT_TRUE(kxLinearGenericBVHBuilder().build(container, counted, nullptr, bits));
        const uint64_t allocations = gAllocations;
        ASSERT_GT(allocations, 4u);
        for (uint64_t k = 1; k <= allocations; ++k)
        {
            const int64_t live = gLive;
            {
                kxLinearGenericBVHBuilder builder;
                kxGenericBVH bvh;
                gAllocations = 0;
                gFailAt = k;
                EXPECT_THROW(builder.build(container, bvh, nullptr, bits), std::bad_alloc) << "allocation " << k;
                gFailAt = 0;
                ASSERT_TRUE(builder.build(container, bvh, nullptr, bits));
                EXPECT_TRUE(sameHierarchy(bvh, reference.bvh)) << "bits " << bits << ", after allocation " << k;
            }
            EXPECT_EQ(gLive, live) << "bits " << bits << ", allocation " << k;
        }
    }
}
