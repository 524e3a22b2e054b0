#include "MemoryMeter.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KXBVH_OWN_ALLOCATOR 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KXBVH_OWN_ALLOCATOR 1
#endif

#ifndef KXBVH_OWN_ALLOCATOR
namespace
{
// Constant-initialised, so that allocations made before any constructor runs are counted.
std::atomic<int64_t> gInUse{0};
std::atomic<int64_t> gPeak{0};

void count(int64_t bytes)
{
    const int64_t now = gInUse.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    int64_t peak = gPeak.load(std::memory_order_relaxed);
    while (now > peak && !gPeak.compare_exchange_weak(peak, now, std::memory_order_relaxed))
    {
    }
}

void* counted(void* block)
{
    if (block)
        count(static_cast<int64_t>(malloc_usable_size(block)));
    return block;
}
} // namespace
#endif

namespace kxbvh
{
const HeapMeter* programHeap()
{
#ifdef KXBVH_OWN_ALLOCATOR
    return nullptr;
#else
    static const HeapMeter meter{[] { return gInUse.load(std::memory_order_relaxed); },
                                 [] { gPeak.store(gInUse.load(std::memory_order_relaxed), std::memory_order_relaxed); },
                                 [] { return gPeak.load(std::memory_order_relaxed); }};
    return &meter;
#endif
}
} // namespace kxbvh

#ifndef KXBVH_OWN_ALLOCATOR
// glibc's allocator does the work under its exported internal names; the sizes come from
// malloc_usable_size, so that a block counts the same when it is freed.
extern "C"
{
    void* __libc_malloc(size_t size);
    void* __libc_calloc(size_t count, size_t size);
    void* __libc_realloc(void* block, size_t size);
    void* __libc_memalign(size_t alignment, size_t size);
    void* __libc_valloc(size_t size);
    void* __libc_pvalloc(size_t size);
    void __libc_free(void* block);

    void* malloc(size_t size) { return counted(__libc_malloc(size)); }

    void* calloc(size_t count, size_t size) { return counted(__libc_calloc(count, size)); }

    void free(void* block)
    {
        if (block)
            count(-static_cast<int64_t>(malloc_usable_size(block)));
        __libc_free(block);
    }

    void* realloc(void* block, size_t size)
    {
        const int64_t before = block ? static_cast<int64_t>(malloc_usable_size(block)) : 0;
        void* moved = __libc_realloc(block, size);
        // A failed realloc keeps the old block; one to size 0 frees it.
        if (moved)
            count(static_cast<int64_t>(malloc_usable_size(moved)) - before);
        else if (size == 0)
            count(-before);
        return moved;
    }

    void* memalign(size_t alignment, size_t size) { return counted(__libc_memalign(alignment, size)); }

    void* aligned_alloc(size_t alignment, size_t size) { return counted(__libc_memalign(alignment, size)); }

    int posix_memalign(void** block, size_t alignment, size_t size)
    {
        if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0)
            return EINVAL;
        void* aligned = counted(__libc_memalign(alignment, size));
        if (!aligned)
            return ENOMEM;
        *block = aligned;
        return 0;
    }

    void* valloc(size_t size) { return counted(__libc_valloc(size)); }

    void* pvalloc(size_t size) { return counted(__libc_pvalloc(size)); }
}
#endif
