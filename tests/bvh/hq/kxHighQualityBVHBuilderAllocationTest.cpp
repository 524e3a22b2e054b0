// Linked with the failing allocator, so that the n-th allocation of a build can be made to
// fail and blocks still held can be counted.
#include "kxCapturingLog.h"
#include "kxFailingAllocator.h"
#include "kxHighQualityBVHBuilder.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>


TEST(HighQualityBuilderFailure, AllocationFailureAtAnyPointPropagatesLeaksNothingAndLeavesTheBuilderUsable)
{
    // Log lines allocate while they are emitted; with the level off nothing is formatted.
    kx::kxCapturingLog log;
    log.setLevelEnabled(1, false);
    log.install();
    // Over 1024 triangles, so that spatial splits take part.
    const auto mesh = kxtest::randomTriangleMesh(9, 1100, kxtest::Layout::Uniform);
    kxGenericBVH reference;
    gAllocations = 0;
    ASSERT_TRUE(kxHighQualityBVHBuilder().build(*mesh, reference));
    const uint64_t allocations = gAllocations;
    ASSERT_GT(allocations, 8u);
    for (uint64_t k = 1; k <= allocations; ++k)
    {
        const int64_t live = gLive;
        {
            kxHighQualityBVHBuilder builder;
            kxGenericBVH bvh;
            gAllocations = 0;
            gFailAt = k;
            EXPECT_THROW(builder.build(*mesh, bvh), std::bad_alloc) << "allocation " << k;
            gFailAt = 0;
            ASSERT_TRUE(builder.build(*mesh, bvh));
            EXPECT_EQ(bvh.mPrimitiveIndices, reference.mPrimitiveIndices) << "after allocation " << k;
        }
        EXPECT_EQ(gLive, live) << "allocation " << k;
    }
}
