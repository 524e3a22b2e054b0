#ifndef KXRADIXSORT_H
#define KXRADIXSORT_H

#include "kxLinearBuildSupport.h"

#include <cstddef>
#include <cstdint>

namespace kxLinearBVH
{
/// Stable LSD radix sort of keys, carrying values along, with 8-bit digits (one pass per
/// key byte). The digit histograms of all passes are counted in one sweep; each pass is one
/// scatter into partner arrays that live only during the call. A pass whose digit is the
/// same for every key is skipped. On return keys and values hold the sorted sequence (keys
/// may have been exchanged with a partner array). Equal keys keep their order.
template <typename Key>
void radixSort(kxWorkArray<Key>& keys, uint32_t* values, size_t n);
} // namespace kxLinearBVH

#endif
