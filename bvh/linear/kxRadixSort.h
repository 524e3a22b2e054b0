#ifndef KXRADIXSORT_H
#define KXRADIXSORT_H

#include "kxLinearBuildSupport.h"

#include <cstddef>
#include <cstdint>

namespace kxLinearBVH
{
/// Stable radix sort of keys below 2^keyBits, carrying values along, into partner arrays
/// taken from the arena for the call. On return keys and values hold the sorted sequence.
/// Equal keys keep their order. Takes one of the two ways below, whichever is faster for
/// the size; both give the same result.
template <typename Key>
void radixSort(Key* keys, uint32_t* values, size_t n, unsigned keyBits, kxBuildArena& arena);

/// With 8-bit digits from the most significant down; a digit that is the same for every
/// key of a bucket moves nothing.
template <typename Key>
void radixSortMostSignificantFirst(Key* keys, uint32_t* values, size_t n, unsigned keyBits, kxBuildArena& arena);

/// Keys of 33 to 64 bits: their top 32 bits least significant digit first, then each run
/// of keys whose top bits tie by the bits below, most significant digit first.
void radixSortTopHalfFirst(uint64_t* keys, uint32_t* values, size_t n, unsigned keyBits, kxBuildArena& arena);

/// The arena space any of them needs for n keys.
template <typename Key>
size_t radixSortFootprint(size_t n)
{
    return kxBuildArena::footprint(n * sizeof(Key)) + kxBuildArena::footprint(n * sizeof(uint32_t));
}
} // namespace kxLinearBVH

#endif
