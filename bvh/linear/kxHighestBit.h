#ifndef KXHIGHESTBIT_H
#define KXHIGHESTBIT_H

#include <cstdint>

namespace kxLinearBVH
{
// Both compile to a single bsr on baseline x86-64 (63 - clz is bsr's own answer), so no
// lzcnt is needed and no table is read.

/// Index of the highest set bit; x must not be 0.
inline unsigned highestBit(uint32_t x)
{
    return 31u ^ static_cast<unsigned>(__builtin_clz(x));
}

/// Index of the highest set bit; x must not be 0.
inline unsigned highestBit(uint64_t x)
{
    return 63u ^ static_cast<unsigned>(__builtin_clzll(x));
}
} // namespace kxLinearBVH

#endif
