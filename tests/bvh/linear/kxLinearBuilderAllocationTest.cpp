// Replaces the global allocator of this test program so that the n-th allocation of a
// build can be made to fail.
#include "kxCapturingLog.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLinearTestSupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <new>

namespace
{
bool gCounting = false;
uint64_t gAllocations = 0;
uint64_t gFailAt = 0;

void* allocate(std::size_t size, std::size_t alignment)
{
    if (gCounting && ++gAllocations == gFailAt)
        throw std::bad_alloc();
    const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
    if (void* memory = std::aligned_alloc(alignment, rounded ? rounded : alignment))
        return memory;
    throw std::bad_alloc();
}

void* allocateOrNull(std::size_t size, std::size_t alignment) noexcept
{
    try
    {
        return allocate(size, alignment);
    }
    catch (const std::bad_alloc&)
    {
        return nullptr;
    }
}
} // namespace

// Every form, so that all memory comes from and returns to the same place.
void* operator new(std::size_t size)
{
    return allocate(size, alignof(std::max_align_t));
}
void* operator new[](std::size_t size)
{
    return allocate(size, alignof(std::max_align_t));
}
void* operator new(std::size_t size, std::align_val_t alignment)
{
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment)
{
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocateOrNull(size, alignof(std::max_align_t));
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocateOrNull(size, alignof(std::max_align_t));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocateOrNull(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocateOrNull(size, static_cast<std::size_t>(alignment));
}

// The replacements are malloc and free underneath, which the compiler cannot see.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

using namespace kxLinearTest;

TEST(LinearBuilderFailure, AllocationFailureAtAnyPointPropagatesAndLeavesTheBuilderUsable)
{
    // Log lines allocate while they are emitted, where a failure would end the process;
    // with the level off nothing is formatted.
    kx::kxCapturingLog log;
    log.setLevelEnabled(1, false);
    log.install();

    const std::vector<kxBBox> boxes = makeScenes(200, 4)[0].boxes;
    const kxBoxListContainer container(boxes);
    const Reference reference = buildReference(boxes, 20);
    const auto buildFailingAt = [&](kxLinearGenericBVHBuilder& builder, unsigned bits, uint64_t allocation)
    {
        kxGenericBVH bvh;
        gAllocations = 0;
        gFailAt = allocation;
        gCounting = true;
        bool threw = false;
        try
        {
            builder.build(container, bvh, nullptr, bits);
        }
        catch (const std::bad_alloc&)
        {
            threw = true;
        }
        gCounting = false;
        return threw;
    };
    uint64_t middle = 0;
    for (unsigned bits : {8u, 20u})
    {
        // A fresh builder each time: one that failed keeps its index array and allocates
        // once less next time.
        kxLinearGenericBVHBuilder counting;
        ASSERT_FALSE(buildFailingAt(counting, bits, 0));
        const uint64_t allocations = gAllocations;
        ASSERT_GT(allocations, 3u);
        middle = allocations / 2;
        for (uint64_t k = 1; k <= allocations; ++k)
        {
            kxLinearGenericBVHBuilder builder;
            EXPECT_TRUE(buildFailingAt(builder, bits, k)) << "bits " << bits << ", allocation " << k;
        }
    }

    kxLinearGenericBVHBuilder builder;
    ASSERT_TRUE(buildFailingAt(builder, 20, middle));
    kxGenericBVH bvh;
    ASSERT_TRUE(builder.build(container, bvh, nullptr, 20));
    EXPECT_EQ(compareHierarchies(bvh, fusedReference(reference, 4)), "");
}
