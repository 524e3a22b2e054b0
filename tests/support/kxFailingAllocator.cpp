#include "kxFailingAllocator.h"

#include <cstddef>
#include <cstdlib>
#include <new>

uint64_t gAllocations = 0, gFailAt = 0;
int64_t gLive = 0;

namespace
{
void release(void* memory) noexcept
{
    gLive -= memory != nullptr;
    std::free(memory);
}
} // namespace

// Arrays and the other forms end up in these, or, with the sanitizer, stay with its own
// new and delete on both sides.
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
// Temporary buffers of the standard library: never made to fail, as a failure is not seen.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return ++gLive, std::malloc(size ? size : 1); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { release(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { release(memory); }
