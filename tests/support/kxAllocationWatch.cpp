#include "kxAllocationWatch.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{
std::atomic<bool> gWatching{false};
std::atomic<size_t> gArrayAllocations{0};
std::atomic<size_t> gLargestRequest{0};

void note(size_t size, bool array)
{
    if (!gWatching.load(std::memory_order_relaxed))
        return;
    if (array)
        gArrayAllocations.fetch_add(1, std::memory_order_relaxed);
    size_t largest = gLargestRequest.load(std::memory_order_relaxed);
    while (size > largest && !gLargestRequest.compare_exchange_weak(largest, size, std::memory_order_relaxed))
    {
    }
}

void* allocate(size_t size, bool array)
{
    note(size, array);
    return std::malloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(size_t size, bool array)
{
    if (void* p = allocate(size, array))
        return p;
    throw std::bad_alloc();
}
} // namespace

namespace kxtest
{
AllocationWatch::AllocationWatch()
{
    gArrayAllocations = 0;
    gLargestRequest = 0;
    gWatching = true;
}

AllocationWatch::~AllocationWatch()
{
    gWatching = false;
}

size_t AllocationWatch::arrayAllocations() const
{
    return gArrayAllocations.load();
}

size_t AllocationWatch::largestRequest() const
{
    return gLargestRequest.load();
}
} // namespace kxtest

// Every form that malloc can serve is replaced, deletes included, so that each block is
// released by the allocator that made it (the sanitizers check that pairing).
void* operator new(size_t size)
{
    return allocateOrThrow(size, false);
}

void* operator new[](size_t size)
{
    return allocateOrThrow(size, true);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size, false);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size, true);
}

void operator delete(void* p) noexcept
{
    std::free(p);
}

void operator delete[](void* p) noexcept
{
    std::free(p);
}

void operator delete(void* p, size_t) noexcept
{
    std::free(p);
}

void operator delete[](void* p, size_t) noexcept
{
    std::free(p);
}

void operator delete(void* p, const std::nothrow_t&) noexcept
{
    std::free(p);
}

void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    std::free(p);
}
