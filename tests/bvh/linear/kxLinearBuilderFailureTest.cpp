#include "kxCapturingLog.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLinearTestSupport.h"

#include <gtest/gtest.h>

using namespace kxLinearTest;

namespace
{
// One poll after each of the codes, the sort, the run counting and the run lists; one per
// level; one per emitted record and per primitive in the refit, then one after it; one per
// emitted record while fusing, one after the count and one after renumbering; one at the
// end. Fusing changes none of it.
uint64_t expectedPolls(uint64_t quantity, unsigned bits, const Reference& reference)
{
    const uint64_t levels = 3 * std::min(bits, 21u);
    const uint64_t emitted = 2 * reference.distinctCodes - 1;
    return 4 + levels + (emitted + quantity) + 1 + (emitted + 2) + 1;
}
} // namespace

TEST(LinearBuilderCancel, PollsAfterEveryPhaseAndLevelAndOnEveryRecordAndPrimitive)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    for (uint32_t quantity : {0u, 1u, 40u, 700u})
    {
        for (unsigned bits : {0u, 7u, 20u})
        {
            SCOPED_TRACE(std::to_string(quantity) + " primitives, bits " + std::to_string(bits));
            const std::vector<kxBBox> boxes = makeScenes(quantity, quantity + bits)[1].boxes;
            kxCountingCancel counter;
            kxLinearGenericBVHBuilder builder;
            kxGenericBVH bvh;
            ASSERT_TRUE(builder.build(kxBoxListContainer(boxes), bvh, &counter, bits));
            EXPECT_EQ(counter.polls(), expectedPolls(quantity, bits, buildReference(boxes, bits)));
        }
    }
}

TEST(LinearBuilderCancel, StopsAtEveryPollAndBuildsCleanlyAfterwards)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    for (unsigned bits : {5u, 20u})
    {
        const std::vector<kxBBox> boxes = makeScenes(60, 21)[0].boxes;
        const kxBoxListContainer container(boxes);
        const Reference reference = buildReference(boxes, bits);
        const uint64_t polls = expectedPolls(boxes.size(), bits, reference);
        kxLinearGenericBVHBuilder builder;
        kxGenericBVH bvh;
        for (uint64_t k = 1; k <= polls; ++k)
        {
            SCOPED_TRACE("bits " + std::to_string(bits) + ", cancel at poll " + std::to_string(k));
            kxCountingCancel cancel(k);
            ASSERT_FALSE(builder.build(container, bvh, &cancel, bits));
            // Nothing is polled once the build has given up.
            ASSERT_EQ(cancel.polls(), k);
        }
        kxCountingCancel never;
        ASSERT_TRUE(builder.build(container, bvh, &never, bits));
        EXPECT_EQ(compareHierarchies(bvh, fusedReference(reference, 4)), "");
    }
}

TEST(LinearBuilderCancel, LogsUpToThePhaseThatWasCancelled)
{
    kx::kxCapturingLog log;
    log.install();
    const std::vector<kxBBox> boxes = makeScenes(1000, 2)[0].boxes;
    const std::string indexesLine = "kxLinearGenericBVHBuilder : allocate 3.9kB for 1000 primitives indexes";
    const std::string nothingAllocated = "kxLinearGenericBVHBuilder : allocate 0B of working buffer";
    // Polls 1 to 3 follow the codes, the sort and the run counting; 4 follows the run lists
    // and their line; 5 is the first emission level.
    for (uint64_t k = 1; k <= 5; ++k)
    {
        SCOPED_TRACE("cancel at poll " + std::to_string(k));
        log.clear();
        kxCountingCancel cancel(k);
        kxLinearGenericBVHBuilder builder;
        kxGenericBVH bvh;
        ASSERT_FALSE(builder.build(kxBoxListContainer(boxes), bvh, &cancel, 20));
        const std::vector<std::string> lines = log.messages();
        ASSERT_EQ(lines.size(), k < 4 ? 2u : (k == 4 ? 2u : 3u));
        EXPECT_EQ(lines[0], indexesLine);
        if (k < 4)
            EXPECT_EQ(lines[1], nothingAllocated);
        else
            EXPECT_NE(lines[1], nothingAllocated);
    }
}

TEST(LinearBuilderCancel, WritesTheFuseLineOnlyWhenEveryPollButTheLastHasPassed)
{
    kx::kxCapturingLog log;
    log.install();
    const std::vector<kxBBox> boxes = makeScenes(200, 5)[0].boxes;
    const uint64_t polls = expectedPolls(boxes.size(), 20, buildReference(boxes, 20));
    for (uint64_t k : {polls - 1, polls})
    {
        SCOPED_TRACE("cancel at poll " + std::to_string(k) + " of " + std::to_string(polls));
        log.clear();
        kxCountingCancel cancel(k);
        kxLinearGenericBVHBuilder builder;
        kxGenericBVH bvh;
        ASSERT_FALSE(builder.build(kxBoxListContainer(boxes), bvh, &cancel, 20));
        const std::vector<std::string> lines = log.messages();
        ASSERT_EQ(lines.size(), k == polls ? 4u : 3u);
        if (k == polls)
        {
            EXPECT_EQ(lines[3].rfind("fuse ", 0), 0u) << lines[3];
        }
    }
}

TEST(LinearBuilderFailure, ContainerExceptionsPassThroughAndLeaveTheBuilderUsable)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    const std::vector<kxBBox> boxes = makeScenes(30, 8)[2].boxes;
    const Reference reference = buildReference(boxes, 20);
    kxBoxListContainer container(boxes);
    kxLinearGenericBVHBuilder builder;
    builder.setMaxPrimitivesPerLeaf(2);
    kxGenericBVH bvh;
    for (uint64_t call = 1; call <= 3 * boxes.size(); ++call)
    {
        SCOPED_TRACE("box call " + std::to_string(call));
        container.throwAtCall(call);
        EXPECT_THROW(builder.build(container, bvh, nullptr, 20), std::runtime_error);
    }
    container.throwAtCall(0);
    ASSERT_TRUE(builder.build(container, bvh, nullptr, 20));
    EXPECT_EQ(compareHierarchies(bvh, fusedReference(reference, 2)), "");
}
