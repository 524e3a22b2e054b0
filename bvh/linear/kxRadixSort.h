#ifndef KXRADIXSORT_H
#define KXRADIXSORT_H

#include "kxLinearBuildSupport.h"

#include <cstddef>
#include <cstdint>

namespace kxLinearBVH
{
/// Stable radix sort of keys below 2^keyBits, carrying values along, with 8-bit digits
/// from the most significant down, into partner arrays taken from the arena for the call;
/// a digit that is the same for every key of a bucket moves nothing. On return keys and
/// values hold the sorted sequence. Equal keys keep their order.
template <typename Key>
void radixSort(Key* keys, uint32_t* values, size_t n, unsigned keyBits, kxBuildArena& arena);

/// The arena space radixSort needs for n keys.
template <typename Key>
size_t radixSortFootprint(size_t n)
{
    return kxBuildArena::footprint(n * sizeof(Key)) + kxBuildArena::footprint(n * sizeof(uint32_t));
}
} // namespace kxLinearBVH

#endif
