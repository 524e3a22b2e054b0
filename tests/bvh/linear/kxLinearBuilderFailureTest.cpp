#include "kxCapturingLog.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLinearTestSupport.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace kxLinearTest;

TEST(LinearBuilderCancel, StopsAtEveryPollLoggingUpToItsPhaseAndBuildsCleanlyAfterwards)
{
    kx::kxCapturingLog log;
    log.install();
    for (uint32_t quantity : {0u, 1u, 60u, 700u})
        for (unsigned bits : {0u, 7u, 20u})
        {
            const std::vector<kxBBox> boxes = makeScenes(quantity, quantity + bits)[1].boxes;
            const kxtest::BoxContainer container(boxes);
            const Reference reference = buildReference(boxes, bits);
            const uint64_t polls = expectedPolls(quantity, bits, reference);
            kxLinearGenericBVHBuilder builder;
            kxGenericBVH bvh;
            kxCountingCancel never;
            ASSERT_TRUE(builder.build(container, bvh, &never, bits));
            ASSERT_EQ(never.polls(), polls) << quantity << " primitives, bits " << bits;
            for (uint64_t k = 1; k <= polls; ++k)
            {
                SCOPED_TRACE(std::to_string(quantity) + " primitives, bits " + std::to_string(bits) +
                             ", cancel at poll " + std::to_string(k) + " of " + std::to_string(polls));
                log.clear();
                kxCountingCancel cancel(k);
                ASSERT_FALSE(builder.build(container, bvh, &cancel, bits));
                ASSERT_EQ(cancel.polls(), k) << "polled after giving up";
                // Polls 1 to 3 come before the working buffer exists and 4 right after its
                // line; the fusing line comes after every poll but the last.
                const std::vector<std::string> lines = log.messages();
                ASSERT_EQ(lines.size(), k <= 4 ? 2u : (k < polls ? 3u : 4u));
                EXPECT_EQ(lines[1] == "kxLinearGenericBVHBuilder : allocate 0B of working buffer", k <= 3);
                if (k == polls)
                {
                    EXPECT_EQ(lines[3].rfind("fuse ", 0), 0u) << lines[3];
                }
            }
            ASSERT_TRUE(builder.build(container, bvh, nullptr, bits));
            EXPECT_EQ(compareHierarchies(bvh, fusedReference(reference, 4)), "");
        }
}

namespace
{
// Throws from getBBox at its throwAt-th call (never for 0); counts every call.
class ThrowingContainer : public kxtest::BoxContainer
{
public:
    using BoxContainer::BoxContainer;
    const kxBBox& getBBox(unsigned int i) const override
    {
        if (++boxCalls == throwAt)
            throw std::runtime_error("box unavailable");
        return BoxContainer::getBBox(i);
    }
    uint32_t getQuantity() const override
    {
        ++quantityCalls;
        return BoxContainer::getQuantity();
    }
    mutable uint64_t boxCalls = 0, quantityCalls = 0;
    uint64_t throwAt = 0;
};
} // namespace

TEST(LinearBuilderFailure, ContainerExceptionsPassThroughAndLeaveTheBuilderUsable)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    const std::vector<kxBBox> boxes = makeScenes(30, 8)[2].boxes;
    ThrowingContainer container(boxes);
    kxLinearGenericBVHBuilder builder;
    builder.setMaxPrimitivesPerLeaf(2);
    kxGenericBVH bvh;
    // The quantity once, then every box in three sweeps: any of those reads may throw.
    for (uint64_t call = 1; call <= 3 * boxes.size(); ++call)
    {
        container.boxCalls = 0;
        container.throwAt = call;
        EXPECT_THROW(builder.build(container, bvh, nullptr, 20), std::runtime_error) << "box call " << call;
    }
    container.boxCalls = container.quantityCalls = 0;
    container.throwAt = 0;
    ASSERT_TRUE(builder.build(container, bvh, nullptr, 20));
    EXPECT_EQ(container.boxCalls, 3 * boxes.size());
    EXPECT_EQ(container.quantityCalls, 1u);
    EXPECT_EQ(compareHierarchies(bvh, fusedReference(buildReference(boxes, 20), 2)), "");
}
