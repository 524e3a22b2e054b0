#ifndef KXRADIXSORT_H
#define KXRADIXSORT_H

#include "kxLinearBuildSupport.h"

#include <cstddef>
#include <cstdint>

namespace kxLinearBVH
{
/// Stable LSD radix sort of keys, carrying values along, with 8-bit digits (one pass per
/// key byte). The digit histograms of all passes are counted in one sweep; each pass is one
/// scatter into partner arrays taken from the arena for the call. A pass whose digit is the
/// same for every key is skipped. On return keys and values hold the sorted sequence.
/// Equal keys keep their order.
template <typename Key>
void radixSort(Key* keys, uint32_t* values, size_t n, kxBuildArena& arena);

/// The arena space radixSort needs for n keys.
template <typename Key>
size_t radixSortFootprint(size_t n)
{
    return kxBuildArena::footprint(n * sizeof(Key)) + kxBuildArena::footprint(n * sizeof(uint32_t));
}
} // namespace kxLinearBVH

#endif
