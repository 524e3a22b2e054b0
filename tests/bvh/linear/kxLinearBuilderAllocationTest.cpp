// Replaces the global allocator of this program so that the n-th allocation of a build can
// be made to fail and blocks still held can be counted.
#include "kxCapturingLog.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLinearTestSupport.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace
{
bool gCounting = false;
uint64_t gAllocations = 0, gFailAt = 0;
int64_t gLive = 0;

void* tryAllocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) noexcept
{
    if (gCounting && ++gAllocations == gFailAt)
        return nullptr;
    void* memory = std::aligned_alloc(alignment, (size + alignment) / alignment * alignment);
    gLive += memory != nullptr;
    return memory;
}

void* allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t))
{
    if (void* memory = tryAllocate(size, alignment))
        return memory;
    throw std::bad_alloc();
}

void release(void* memory) noexcept
{
    gLive -= memory != nullptr;
    std::free(memory);
}
} // namespace

// Every form a build or this test uses, so that all memory comes from and returns to the
// same place.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
using std::align_val_t;
using std::nothrow_t;
using std::size_t;
void* operator new(size_t n) { return allocate(n); }
void* operator new[](size_t n) { return allocate(n); }
void* operator new(size_t n, align_val_t a) { return allocate(n, size_t(a)); }
void* operator new[](size_t n, align_val_t a) { return allocate(n, size_t(a)); }
void* operator new(size_t n, const nothrow_t&) noexcept { return tryAllocate(n); }
void* operator new[](size_t n, const nothrow_t&) noexcept { return tryAllocate(n); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, size_t) noexcept { release(p); }
void operator delete[](void* p, size_t) noexcept { release(p); }
void operator delete(void* p, align_val_t) noexcept { release(p); }
void operator delete[](void* p, align_val_t) noexcept { release(p); }
void operator delete(void* p, size_t, align_val_t) noexcept { release(p); }
void operator delete[](void* p, size_t, align_val_t) noexcept { release(p); }

using namespace kxLinearTest;

TEST(LinearBuilderFailure, AllocationFailureAtAnyPointPropagatesLeaksNothingAndLeavesTheBuilderUsable)
{
    // Log lines allocate while they are emitted, where a failure would end the process;
    // with the level off nothing is formatted.
    kx::kxCapturingLog log;
    log.setLevelEnabled(1, false);
    log.install();
    const std::vector<kxBBox> boxes = makeScenes(200, 4)[0].boxes;
    const kxtest::BoxContainer container(boxes);
    // Makes the failAt-th allocation of the build fail (none for 0) and counts them.
    const auto build = [&](kxLinearGenericBVHBuilder& builder, unsigned bits, uint64_t failAt) {
        kxGenericBVH bvh;
        gAllocations = 0;
        gFailAt = failAt;
        gCounting = true;
        struct Stop
        {
            ~Stop() { gCounting = false; }
        } stop;
        builder.build(container, bvh, nullptr, bits);
    };
    for (unsigned bits : {8u, 20u})
    {
        kxLinearGenericBVHBuilder counting;
        build(counting, bits, 0);
        const uint64_t allocations = gAllocations;
        ASSERT_GT(allocations, 3u);
        for (uint64_t k = 1; k <= allocations; ++k)
        {
            const int64_t live = gLive;
            {
                // A builder that failed keeps its index array, so each try gets a fresh one.
                kxLinearGenericBVHBuilder builder;
                EXPECT_THROW(build(builder, bits, k), std::bad_alloc) << "bits " << bits << ", allocation " << k;
            }
            EXPECT_EQ(gLive, live) << "bits " << bits << ", allocation " << k;
        }
    }
    kxLinearGenericBVHBuilder builder;
    EXPECT_THROW(build(builder, 20, 3), std::bad_alloc);
    kxGenericBVH bvh;
    ASSERT_TRUE(builder.build(container, bvh, nullptr, 20));
    EXPECT_EQ(compareHierarchies(bvh, fusedReference(buildReference(boxes, 20), 4)), "");
}
