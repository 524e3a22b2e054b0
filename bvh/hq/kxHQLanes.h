// The top-down builder's centroid binning on SSE lanes 0-2 (x, y, z; lane 3 is padding).
#ifndef KXHQLANES_H
#define KXHQLANES_H

#include <emmintrin.h>

namespace kxHQLanes
{
inline __m128 zero()
{
    return _mm_setzero_ps();
}

inline __m128 loadUnaligned(const float* p)
{
    return _mm_loadu_ps(p);
}

/// lo * 0.5 + hi * 0.5: halving first keeps huge coordinates finite.
inline __m128 centre(__m128 lo, __m128 hi)
{
    const __m128 half = _mm_set1_ps(0.5f);
    return _mm_add_ps(_mm_mul_ps(lo, half), _mm_mul_ps(hi, half));
}

/// (v - lo) * scale truncated to bins 0 .. last, written to out[0..3]. max(k, 0) is 0 for a
/// NaN k, so a NaN lands in bin 0; the upper clamp keeps the conversion in range.
inline void binsOf(__m128 v, __m128 lo, __m128 scale, float last, int out[4])
{
    __m128 k = _mm_mul_ps(_mm_sub_ps(v, lo), scale);
    k = _mm_min_ps(_mm_max_ps(k, _mm_setzero_ps()), _mm_set1_ps(last));
    _mm_store_si128(reinterpret_cast<__m128i*>(out), _mm_cvttps_epi32(k));
}
} // namespace kxHQLanes

#endif
