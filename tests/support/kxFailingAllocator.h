// For programs that link kxFailingAllocator.cpp, which replaces the global operator new
// and delete: the n-th allocation can be made to fail, and blocks still held are counted.
#ifndef KXFAILINGALLOCATOR_H
#define KXFAILINGALLOCATOR_H

#include <cstdint>

/// Allocations counted since the test last set it to 0.
extern uint64_t gAllocations;
/// The allocation that throws std::bad_alloc (counting from 1); none for 0.
extern uint64_t gFailAt;
/// Blocks allocated and not yet released.
extern int64_t gLive;

#endif
