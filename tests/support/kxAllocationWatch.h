#ifndef KXALLOCATIONWATCH_H
#define KXALLOCATIONWATCH_H

#include <cstddef>

namespace kxtest
{
/// What the program asked of the global operator new while a watch was alive, on any
/// thread. Only programs that link kxAllocationWatch.cpp, which replaces the global
/// allocation functions, can use it; one watch at a time.
class AllocationWatch
{
public:
    AllocationWatch();
    ~AllocationWatch();
    AllocationWatch(const AllocationWatch&) = delete;
    AllocationWatch& operator=(const AllocationWatch&) = delete;

    /// Calls of array-new, the only way element arrays are allocated.
    size_t arrayAllocations() const;
    /// The largest single request, array or not, in bytes.
    size_t largestRequest() const;
};
} // namespace kxtest

#endif
