#ifndef KXBOXLANES_H
#define KXBOXLANES_H

#include "kxBBox.h"

#include <emmintrin.h>

#include <cstdint>
#include <limits>

/// Boxes on three SSE lanes (x, y, z), for sweeps over many boxes. SSE's min(a, m) is
/// a < m ? a : m and max(a, m) is a > m ? a : m: with the new value first these are the
/// comparisons of kxBBox::extend, so a NaN coordinate leaves the box alone as extend does.
namespace kxBoxLanes
{
/// p[0], p[1], p[2] in the low lanes, without reading past them.
inline __m128 load3(const float* p)
{
    const __m128 xy = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    return _mm_movelh_ps(xy, _mm_load_ss(p + 2));
}

/// Writes lo and hi as the box's minimum and maximum, in two stores that stay inside it.
inline void store(kxBBox& box, __m128 lo, __m128 hi)
{
    const __m128 joint = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(0, 0, 2, 2));
    _mm_storeu_ps(box.min, _mm_shuffle_ps(lo, joint, _MM_SHUFFLE(2, 0, 1, 0)));
    _mm_storel_pi(reinterpret_cast<__m64*>(box.max + 1), _mm_shuffle_ps(hi, hi, _MM_SHUFFLE(3, 3, 2, 1)));
}

/// (x, y, z, 0).
inline __m128 set3(const float* p)
{
    return _mm_setr_ps(p[0], p[1], p[2], 0.0f);
}

/// v on every lane.
inline __m128 splat(float v)
{
    return _mm_set1_ps(v);
}

/// (v - origin) * scale on every lane.
inline __m128 offsetScaled(__m128 v, __m128 origin, __m128 scale)
{
    return _mm_mul_ps(_mm_sub_ps(v, origin), scale);
}

/// Lane 1 or 2 moved to lane 0.
inline __m128 yToLane0(__m128 v)
{
    return _mm_shuffle_ps(v, v, 1);
}
inline __m128 zToLane0(__m128 v)
{
    return _mm_movehl_ps(v, v);
}

/// Lane 0 truncated toward zero to 64 bits, low 32 bits kept; NaN and out-of-range values
/// give x86's integer indefinite, whose low half is 0.
inline uint32_t truncateLane0ToLow32(__m128 v)
{
    return static_cast<uint32_t>(_mm_cvttss_si64(v));
}

/// The empty box's minimum and maximum lanes.
inline __m128 emptyMinimum()
{
    return _mm_set1_ps(std::numeric_limits<float>::infinity());
}
inline __m128 emptyMaximum()
{
    return _mm_set1_ps(-std::numeric_limits<float>::infinity());
}

/// kxBBox::extend's comparisons lane by lane, with the newcomer first.
inline __m128 lower(__m128 newcomer, __m128 m)
{
    return _mm_min_ps(newcomer, m);
}
inline __m128 upper(__m128 newcomer, __m128 m)
{
    return _mm_max_ps(newcomer, m);
}

/// A box grown in registers, from the empty box.
class Accumulator
{
public:
    Accumulator()
        : mMin(_mm_set1_ps(std::numeric_limits<float>::infinity())),
          mMax(_mm_set1_ps(-std::numeric_limits<float>::infinity()))
    {
    }

    void extend(__m128 point)
    {
        mMin = _mm_min_ps(point, mMin);
        mMax = _mm_max_ps(point, mMax);
    }
    void extend(const kxBBox& box)
    {
        mMin = _mm_min_ps(load3(box.min), mMin);
        mMax = _mm_max_ps(load3(box.max), mMax);
    }
    void store(kxBBox& box) const { kxBoxLanes::store(box, mMin, mMax); }

private:
    __m128 mMin;
    __m128 mMax;
};

/// A box's minimum in lanes 0 to 2 and its maximum in lanes 1 to 3, by two 16-byte loads
/// that stay inside its 24 bytes (min x, y, z, max x and min z, max x, y, z).
inline __m128 loadMinimum(const kxBBox& box)
{
    return _mm_loadu_ps(box.min);
}
inline __m128 loadShiftedMaximum(const kxBBox& box)
{
    const float* words = box.min;
    return _mm_loadu_ps(words + 2);
}

/// (min + max) * 0.5 in lanes 0 to 2, the operations of kxBBox::getCenter lane by lane.
inline __m128 centre(const kxBBox& box)
{
    const __m128 hi = loadShiftedMaximum(box);
    return _mm_mul_ps(_mm_add_ps(loadMinimum(box), _mm_shuffle_ps(hi, hi, _MM_SHUFFLE(3, 3, 2, 1))), _mm_set1_ps(0.5f));
}

/// store() for a maximum in lanes 1 to 3.
inline void storeShifted(kxBBox& box, __m128 lo, __m128 shiftedHi)
{
    store(box, lo, _mm_shuffle_ps(shiftedHi, shiftedHi, _MM_SHUFFLE(3, 3, 2, 1)));
}

/// Accumulator over whole boxes with half its loads: the maximum sits in lanes 1 to 3
/// until stored; the comparisons are Accumulator's.
class WholeBoxAccumulator
{
public:
    WholeBoxAccumulator()
        : mMin(_mm_set1_ps(std::numeric_limits<float>::infinity())),
          mMax(_mm_set1_ps(-std::numeric_limits<float>::infinity()))
    {
    }

    void extend(const kxBBox& box)
    {
        mMin = _mm_min_ps(loadMinimum(box), mMin);
        mMax = _mm_max_ps(loadShiftedMaximum(box), mMax);
    }
    void store(kxBBox& box) const { storeShifted(box, mMin, mMax); }
    /// The minimum in lanes 0 to 2 and the maximum in lanes 1 to 3, for storeShifted.
    __m128 minimumLanes() const { return mMin; }
    __m128 shiftedMaximumLanes() const { return mMax; }

private:
    __m128 mMin;
    __m128 mMax;
};
} // namespace kxBoxLanes

#endif
