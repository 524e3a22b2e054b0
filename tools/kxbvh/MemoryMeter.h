// Heap bytes in use and their high-water mark, counted by replacing the C allocator of the
// program (malloc and its relatives, which operator new and the library's aligned arrays
// end in). Linked into programs only, never into the library or the Python module.
#ifndef KXBVH_MEMORYMETER_H
#define KXBVH_MEMORYMETER_H

#include "Hierarchy.h"

namespace kxbvh
{
/// The program's heap meter; null in sanitizer builds, which bring their own allocator.
const HeapMeter* programHeap();
} // namespace kxbvh

#endif
