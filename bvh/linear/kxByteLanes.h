#ifndef KXBYTELANES_H
#define KXBYTELANES_H

#include <emmintrin.h>

#include <cstdint>

/// Sixteen byte lanes on SSE2, for sweeps over small per-position numbers (below 128).
namespace kxByteLanes
{
using Lanes = __m128i;

/// The sixteen bytes from p on, unaligned.
inline Lanes load(const uint8_t* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

/// v in every lane.
inline Lanes splat(uint32_t v)
{
    return _mm_set1_epi8(static_cast<char>(v));
}

/// All ones where a lane of a is below that of b, else zero.
inline Lanes below(Lanes a, Lanes b)
{
    return _mm_cmplt_epi8(a, b);
}

/// All ones where a lane is zero, else zero.
inline Lanes isZero(Lanes a)
{
    return _mm_cmpeq_epi8(a, _mm_setzero_si128());
}

/// yes where mask is all ones, no where it is zero.
inline Lanes select(Lanes mask, Lanes yes, Lanes no)
{
    return _mm_or_si128(_mm_and_si128(mask, yes), _mm_andnot_si128(mask, no));
}

/// a or b, bit by bit.
inline Lanes either(Lanes a, Lanes b)
{
    return _mm_or_si128(a, b);
}
/// Lane by lane, wrapping.
inline Lanes add(Lanes a, Lanes b)
{
    return _mm_add_epi8(a, b);
}
/// a and not b.
inline Lanes andNot(Lanes a, Lanes b)
{
    return _mm_andnot_si128(b, a);
}

/// Bit i set where lane i is all ones (masks only).
inline uint32_t bits(Lanes mask)
{
    return static_cast<uint32_t>(_mm_movemask_epi8(mask));
}
} // namespace kxByteLanes

#endif
