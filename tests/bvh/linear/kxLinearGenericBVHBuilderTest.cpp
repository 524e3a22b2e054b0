#include "kxBVHContainers.h"
#include "kxBVHInvariants.h"
#include "kxCapturingLog.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLinearTestSupport.h"
#include "kxRandomGeometry.h"
#include "kxStringUtils.h"

#include <gtest/gtest.h>

using namespace kxLinearTest;

namespace
{
// What a linear build guarantees beyond the invariants of every tree.
void checkLinearTree(const kxGenericBVH& bvh, const std::vector<kxBBox>& boxes, const Reference& reference,
                     uint32_t limit)
{
    const kxtest::TreeShape shape = kxtest::checkTree(bvh, boxes);
    ASSERT_FALSE(::testing::Test::HasFailure());
    ASSERT_EQ(bvh.mNodeCount, reference.emitted.mNodeCount) << "node count is not the emitted record count";
    ASSERT_EQ(bvh.mNodes.capacity(), bvh.mNodes.size()) << "node array not trimmed";
    ASSERT_EQ(shape.innerNodes + shape.leaves.size(), bvh.mNodes.size()) << "records outside the tree";
    for (uint32_t k = 0; k < bvh.mNodes.size(); ++k)
        ASSERT_TRUE(bvh.mNodes[k].offset >= 0xC0000000u || shape.runs[k].count > limit) << k << " not fused";
    const std::vector<uint64_t>& codes = reference.codes;
    std::vector<uint32_t> leafOf(boxes.size());
    for (const kxtest::TreeShape::Leaf& leaf : shape.leaves)
        for (uint32_t p = leaf.first; p < leaf.first + leaf.count; ++p)
        {
            leafOf[p] = leaf.node;
            const uint64_t code = codes[bvh.mPrimitiveIndices[p]];
            ASSERT_TRUE(leaf.count <= limit || code == codes[bvh.mPrimitiveIndices[leaf.first]])
                << "leaf " << leaf.node << " over the limit is not one emitted leaf";
        }
    for (uint32_t p = 0; p + 1 < boxes.size(); ++p)
    {
        const uint32_t a = bvh.mPrimitiveIndices[p], b = bvh.mPrimitiveIndices[p + 1];
        ASSERT_LE(codes[a], codes[b]) << "position " << p;
        ASSERT_TRUE(codes[a] != codes[b] || (leafOf[p] == leafOf[p + 1] && a < b))
            << "equal codes split or out of order at position " << p;
    }
}

std::string humanized(uint64_t bytes)
{
    return kx::kxStringUtils::humanizeNumberGeneric<unsigned long>(bytes, 3, 1, true, true, false);
}
} // namespace

TEST(LinearBuilder, MatchesAPlainReferenceAndKeepsEveryInvariantOnRandomScenes)
{
    kx::kxCapturingLog log;
    log.install();
    kxLinearGenericBVHBuilder builder;
    // One hierarchy for every build: leftovers of a bigger earlier tree must not show.
    kxGenericBVH bvh;
    uint32_t seed = 1;
    for (uint32_t quantity : {0u, 1u, 2u, 3u, 17u, 300u, 2000u})
        for (const Scene& scene : makeScenes(quantity, seed++))
        {
            const kxtest::BoxContainer container(scene.boxes);
            for (unsigned bits : {0u, 1u, 10u, 11u, 20u, 30u})
            {
                const Reference reference = buildReference(scene.boxes, bits);
                const uint64_t distinct = reference.distinctCodes;
                for (uint32_t limit : {1u, 2u, 4u, 7u, 1000u})
                {
                    SCOPED_TRACE(scene.name + ", " + std::to_string(quantity) + " primitives, bits " +
                                 std::to_string(bits) + ", leaf limit " + std::to_string(limit));
                    log.clear();
                    builder.setMaxPrimitivesPerLeaf(limit);
                    ASSERT_TRUE(builder.build(container, bvh, nullptr, bits));
                    ASSERT_NO_FATAL_FAILURE(checkLinearTree(bvh, scene.boxes, reference, limit));
                    ASSERT_EQ(compareHierarchies(bvh, fusedReference(reference, limit)), "");
                    const std::string prefix = "kxLinearGenericBVHBuilder : allocate ";
                    const std::vector<std::string> expected = {
                        prefix + humanized(4 * quantity) + "B for " + std::to_string(quantity) + " primitives indexes",
                        prefix + humanized(8 * reference.runListEntries) + "B of working buffer",
                        prefix + humanized(64 * distinct) + "B for " + std::to_string(2 * distinct) + " result nodes",
                        "fuse " + std::to_string(2 * distinct) + " into " + std::to_string(bvh.mNodes.size())};
                    ASSERT_EQ(log.messages(), expected);
                }
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

    class MirroredTriangles : public kxBVHTriangleContainer
    {
    public:
        explicit MirroredTriangles(const kx::kxTriMesh& mesh) : kxBVHTriangleContainer(mesh)
        {
            for (uint32_t t = 0; t < getQuantity(); ++t)
            {
                const kxBBox& box = kxBVHTriangleContainer::getBBox(t);
                mMirrored.push_back(kxBBox(Wm4::Vector3<float>(-box.max[0], box.min[1], box.min[2]),
                                           Wm4::Vector3<float>(-box.min[0], box.max[1], box.max[2])));
            }
        }
        const kxBBox& getBBox(unsigned int i) const override { return mMirrored[i]; }

    private:
        std::vector<kxBBox> mMirrored;
    };
    const kxBVHTriangleContainer plain(*mesh);
    const MirroredTriangles mirrored(*mesh);
    kxLinearGenericBVHBuilder builder;
    for (const kxBVHTriangleContainer* container : {&plain, static_cast<const kxBVHTriangleContainer*>(&mirrored)})
    {
        std::vector<kxBBox> boxes;
        for (uint32_t t = 0; t < container->getQuantity(); ++t)
            boxes.push_back(container->getBBox(t));
        const Reference reference = buildReference(boxes, 20);
        kxGenericBVH bvh;
        ASSERT_TRUE(builder.build(*container, bvh, nullptr, 20));
        ASSERT_NO_FATAL_FAILURE(checkLinearTree(bvh, boxes, reference, 4));
        EXPECT_EQ(compareHierarchies(bvh, fusedReference(reference, 4)), "");
    }
}

TEST(LinearBuilder, LeafLimitStartsAtFourAndNeverDropsBelowOne)
{
    kxLinearGenericBVHBuilder builder;
    EXPECT_EQ(builder.getMaxPrimitivesPerLeaf(), 4u);
    builder.setMaxPrimitivesPerLeaf(0);
    EXPECT_EQ(builder.getMaxPrimitivesPerLeaf(), 1u);
}

TEST(LinearBuilder, LogsItsMemoryUseInFourLines)
{
    // 1000 boxes, 125 in each octant: one bit per axis gives eight codes.
    std::vector<kxBBox> boxes;
    for (int i = 0; i < 1000; ++i)
    {
        const float x = float(i & 1), y = float(i >> 1 & 1), z = float(i >> 2 & 1);
        boxes.push_back(kxBBox(Wm4::Vector3<float>(x - 1, y - 1, z - 1), Wm4::Vector3<float>(x, y, z)));
    }
    kx::kxCapturingLog log;
    log.install();
    kxLinearGenericBVHBuilder builder;
    kxGenericBVH bvh;
    ASSERT_TRUE(builder.build(kxtest::BoxContainer(boxes), bvh, nullptr, 1));
    ASSERT_TRUE(builder.build(kxtest::BoxContainer({}), bvh, nullptr, 20));
    const std::vector<std::string> expected = {
        "kxLinearGenericBVHBuilder : allocate 3.9kB for 1000 primitives indexes",
        "kxLinearGenericBVHBuilder : allocate 120B of working buffer",
        "kxLinearGenericBVHBuilder : allocate 512B for 16 result nodes",
        "fuse 16 into 15",
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
