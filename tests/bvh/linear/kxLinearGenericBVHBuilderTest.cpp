#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLinearTestSupport.h"
#include "kxStringUtils.h"

#include <gtest/gtest.h>

#include <random>

using namespace kxLinearTest;

namespace
{
// 1000 boxes, 125 in each octant of [-1, 1]^3: one bit per axis gives eight codes.
std::vector<kxBBox> octantBoxes()
{
    std::vector<kxBBox> boxes;
    for (int i = 0; i < 1000; ++i)
    {
        kxBBox box;
        for (int a = 0; a < 3; ++a)
        {
            const bool upper = (i >> a) & 1;
            box.min[a] = upper ? 0.0f : -1.0f;
            box.max[a] = upper ? 1.0f : 0.0f;
        }
        boxes.push_back(box);
    }
    return boxes;
}
} // namespace

TEST(LinearBuilder, MatchesAPlainReferenceOnRandomScenes)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    kxLinearGenericBVHBuilder builder;
    // One hierarchy for every build: leftovers of a bigger earlier tree must not show.
    kxGenericBVH bvh;
    uint32_t seed = 1;
    for (uint32_t quantity : {0u, 1u, 2u, 3u, 17u, 300u, 2000u})
    {
        for (const Scene& scene : makeScenes(quantity, seed++))
        {
            const kxBoxListContainer container(scene.boxes);
            for (unsigned bits : {0u, 1u, 10u, 11u, 20u, 30u})
            {
                const Reference reference = buildReference(scene.boxes, bits);
                for (uint32_t limit : {1u, 2u, 4u, 7u, 1000u})
                {
                    SCOPED_TRACE(scene.name + ", " + std::to_string(quantity) + " primitives, bits " +
                                 std::to_string(bits) + ", leaf limit " + std::to_string(limit));
                    builder.setMaxPrimitivesPerLeaf(limit);
                    ASSERT_TRUE(builder.build(container, bvh, nullptr, bits));
                    ASSERT_EQ(checkInvariants(bvh, scene.boxes, reference.codes, limit, reference.nodeCount), "");
                    ASSERT_EQ(compareHierarchies(bvh, fusedReference(reference, limit)), "");
                }
            }
        }
    }
}

TEST(LinearBuilder, BuildsTheReferenceTreeFromATriangleMesh)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 random(7);
    std::uniform_real_distribution<float> coordinate(-50.0f, 50.0f);
    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(600);
    for (int i = 0; i < 600; ++i)
        vertices->Position3(i) = Wm4::Vector3<float>(coordinate(random), coordinate(random), coordinate(random));
    kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(3000);
    for (int i = 0; i < 3000; ++i)
        indices->GetData()[i] = random() % 600;
    const kx::kxTriMesh mesh(vertices, indices);
    const kxBVHTriangleContainer container(mesh);

    std::vector<kxBBox> boxes;
    for (uint32_t t = 0; t < container.getQuantity(); ++t)
        boxes.push_back(container.getBBox(t));
    const Reference reference = buildReference(boxes, 20);

    kxLinearGenericBVHBuilder builder;
    kxGenericBVH bvh;
    ASSERT_TRUE(builder.build(container, bvh, nullptr, 20));
    EXPECT_EQ(checkInvariants(bvh, boxes, reference.codes, 4, reference.nodeCount), "");
    EXPECT_EQ(compareHierarchies(bvh, fusedReference(reference, 4)), "");

    // A subclass that answers with other boxes is asked, not the boxes it inherits.
    class MirroredTriangles : public kxBVHTriangleContainer
    {
    public:
        explicit MirroredTriangles(const kx::kxTriMesh& mesh) : kxBVHTriangleContainer(mesh)
        {
            for (uint32_t t = 0; t < getQuantity(); ++t)
            {
                kxBBox box = kxBVHTriangleContainer::getBBox(t);
                std::swap(box.min[0], box.max[0]);
                box.min[0] = -box.min[0];
                box.max[0] = -box.max[0];
                mMirrored.push_back(box);
            }
        }
        const kxBBox& getBBox(unsigned int i) const override { return mMirrored[i]; }

    private:
        std::vector<kxBBox> mMirrored;
    };
    const MirroredTriangles mirrored(mesh);
    std::vector<kxBBox> mirroredBoxes;
    for (uint32_t t = 0; t < mirrored.getQuantity(); ++t)
        mirroredBoxes.push_back(mirrored.getBBox(t));
    const Reference mirroredReference = buildReference(mirroredBoxes, 20);
    ASSERT_TRUE(builder.build(mirrored, bvh, nullptr, 20));
    EXPECT_EQ(checkInvariants(bvh, mirroredBoxes, mirroredReference.codes, 4, mirroredReference.nodeCount), "");
    EXPECT_EQ(compareHierarchies(bvh, fusedReference(mirroredReference, 4)), "");
}

TEST(LinearBuilder, ReadsTheQuantityOnceAndEveryBoxInThreeSweeps)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    const kxBoxListContainer container(makeScenes(500, 3)[0].boxes);
    kxLinearGenericBVHBuilder builder;
    kxGenericBVH bvh;
    ASSERT_TRUE(builder.build(container, bvh, nullptr, 20));
    EXPECT_EQ(container.quantityCalls(), 1u);
    EXPECT_EQ(container.boxCalls(), 3u * 500u);
}

TEST(LinearBuilder, DegenerateInputsGiveASingleRootLeaf)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    kxLinearGenericBVHBuilder builder;
    builder.setMaxPrimitivesPerLeaf(1);
    const std::vector<kxBBox> equal(
        50, kxBBox(Wm4::Vector3<float>(1.0f, 2.0f, 3.0f), Wm4::Vector3<float>(1.0f, 2.0f, 3.0f)));
    const std::vector<kxBBox> spread = makeScenes(50, 11)[0].boxes;
    struct Case
    {
        const char* name;
        const std::vector<kxBBox>& boxes;
        unsigned bits;
    };
    for (const Case& c : {Case{"equal points", equal, 20}, Case{"no code bits", spread, 0}})
    {
        SCOPED_TRACE(c.name);
        kxGenericBVH bvh;
        ASSERT_TRUE(builder.build(kxBoxListContainer(c.boxes), bvh, nullptr, c.bits));
        ASSERT_EQ(bvh.mNodes.size(), 1u);
        EXPECT_EQ(bvh.mNodes[0].offset, 0xC0000000u);
        EXPECT_EQ(bvh.mNodes[0].count, 50u);
        EXPECT_EQ(bvh.mNodeCount, 1u);
        kxBBox all;
        for (const kxBBox& box : c.boxes)
            all.extend(box);
        EXPECT_EQ(bvh.mNodes[0].bbox, all);
        for (uint32_t i = 0; i < 50; ++i)
            EXPECT_EQ(bvh.mPrimitiveIndices[i], i);
    }

    kxGenericBVH empty;
    ASSERT_TRUE(builder.build(kxBoxListContainer({}), empty, nullptr, 20));
    ASSERT_EQ(empty.mNodes.size(), 1u);
    EXPECT_EQ(empty.mNodes[0].offset, 0xC0000000u);
    EXPECT_EQ(empty.mNodes[0].count, 0u);
    EXPECT_EQ(empty.mNodes[0].bbox, kxBBox());
    EXPECT_EQ(empty.mPrimitiveCount, 0u);
    EXPECT_EQ(empty.mNodeCount, 1u);
}

TEST(LinearBuilder, LeafLimitStartsAtFourAndNeverDropsBelowOne)
{
    kxLinearGenericBVHBuilder builder;
    EXPECT_EQ(builder.getMaxPrimitivesPerLeaf(), 4u);
    builder.setMaxPrimitivesPerLeaf(0);
    EXPECT_EQ(builder.getMaxPrimitivesPerLeaf(), 1u);
    builder.setMaxPrimitivesPerLeaf(9);
    EXPECT_EQ(builder.getMaxPrimitivesPerLeaf(), 9u);
}

TEST(LinearBuilder, LogsItsMemoryUseInFourLines)
{
    kx::kxCapturingLog log;
    log.install();
    kxLinearGenericBVHBuilder builder;
    kxGenericBVH bvh;

    ASSERT_TRUE(builder.build(kxBoxListContainer(octantBoxes()), bvh, nullptr, 1));
    builder.setMaxPrimitivesPerLeaf(1000);
    ASSERT_TRUE(builder.build(kxBoxListContainer(octantBoxes()), bvh, nullptr, 1));
    ASSERT_TRUE(builder.build(kxBoxListContainer({}), bvh, nullptr, 20));
    const std::vector<std::string> expected = {
        "kxLinearGenericBVHBuilder : allocate 3.9kB for 1000 primitives indexes",
        "kxLinearGenericBVHBuilder : allocate 120B of working buffer",
        "kxLinearGenericBVHBuilder : allocate 512B for 16 result nodes",
        "fuse 16 into 15",
        "kxLinearGenericBVHBuilder : allocate 3.9kB for 1000 primitives indexes",
        "kxLinearGenericBVHBuilder : allocate 120B of working buffer",
        "kxLinearGenericBVHBuilder : allocate 512B for 16 result nodes",
        "fuse 16 into 1",
        "kxLinearGenericBVHBuilder : allocate 0B for 0 primitives indexes",
        "kxLinearGenericBVHBuilder : allocate 488B of working buffer",
        "kxLinearGenericBVHBuilder : allocate 64B for 2 result nodes",
        "fuse 2 into 1",
    };
    EXPECT_EQ(log.messages(), expected);
    for (const kx::kxLog::LogEntry& entry : log.entries())
    {
        EXPECT_EQ(entry.level, 1);
        EXPECT_EQ(entry.category, "bvh");
    }
}

TEST(LinearBuilder, WorkingBufferLineCountsTheRunsOfEveryLevel)
{
    kx::kxCapturingLog log;
    log.install();
    const std::vector<kxBBox> boxes = makeScenes(3000, 5)[0].boxes;
    for (unsigned bits : {4u, 20u})
    {
        log.clear();
        kxLinearGenericBVHBuilder builder;
        kxGenericBVH bvh;
        ASSERT_TRUE(builder.build(kxBoxListContainer(boxes), bvh, nullptr, bits));
        const Reference reference = buildReference(boxes, bits);
        const auto humanized = [](uint64_t bytes)
        { return kx::kxStringUtils::humanizeNumberGeneric<unsigned long>(bytes, 3, 1, true, true, false); };
        const std::vector<std::string> lines = log.messages();
        ASSERT_EQ(lines.size(), 4u);
        EXPECT_EQ(lines[1], "kxLinearGenericBVHBuilder : allocate " + humanized(8 * reference.runListEntries) +
                                "B of working buffer");
        EXPECT_EQ(lines[2], "kxLinearGenericBVHBuilder : allocate " + humanized(64 * reference.distinctCodes) +
                                "B for " + std::to_string(2 * reference.distinctCodes) + " result nodes");
        EXPECT_EQ(lines[3],
                  "fuse " + std::to_string(2 * reference.distinctCodes) + " into " + std::to_string(bvh.mNodes.size()));
    }
}
