// Replaces the global allocator of this program so that the n-th allocation of a build can
// be made to fail and blocks still held can be counted.
#include "kxCapturingLog.h"
#include "kxHighQualityBVHBuilder.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace
{
uint64_t gAllocations = 0, gFailAt = 0;  // the allocation to fail, none for 0
int64_t gLive = 0;

void release(void* memory) noexcept
{
    gLive -= memory != nullptr;
    std::free(memory);
}
} // namespace

#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size, std::align_val_t alignment)
{
    const auto a = static_cast<std::size_t>(alignment);
    void* memory = ++gAllocations == gFailAt ? nullptr : std::aligned_alloc(a, (size + a) / a * a);
    if (memory == nullptr)
        throw std::bad_alloc();
    ++gLive;
    return memory;
}
void* operator new(std::size_t size) { return operator new(size, std::align_val_t(alignof(std::max_align_t))); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return ++gLive, std::malloc(size ? size : 1); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { release(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { release(memory); }

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
