#ifndef KXSAHLANES_H
#define KXSAHLANES_H

#include "kxSAHInternal.h"

#include <emmintrin.h>

#include <cstdint>

/// The few four-lane steps of the SAH builder's record loops, over SSE2. Lanes 0-2 are
/// x, y, z; lane 3 is padding. Every step is the scalar builder's operation on each lane
/// (min(a, m) = a < m ? a : m, max(a, m) = a > m ? a : m), so results match bit for bit.
namespace kxSAHLanes
{
/// A primitive box with its index, as the builder moves it: 32 bytes, aligned, so one
/// record is two aligned loads and a swap moves two cache-line halves.
struct alignas(32) Record
{
    float min[3];
    uint32_t index;
    float max[3];
    float zero;
};

/// A box on lanes: lo holds the minimum, hi the maximum.
struct Box
{
    __m128 lo;
    __m128 hi;
};

inline Box emptyBox()
{
    return {_mm_set1_ps(__builtin_huge_valf()), _mm_set1_ps(-__builtin_huge_valf())};
}

/// The whole record: the index rides in lane 3 of lo. Fit for min and max only.
inline Box loadRaw(const Record& r)
{
    return {_mm_load_ps(r.min), _mm_load_ps(r.max)};
}

inline void storeRaw(Record& r, const Box& b)
{
    _mm_store_ps(r.min, b.lo);
    _mm_store_ps(r.max, b.hi);
}

/// The record of box b with index i, as loadRaw reads it: lo = (min, i), hi = (max, 0).
/// Reads nothing past b.
inline Box recordLanes(const kxBBox& b, uint32_t i)
{
    const __m128 minAndMax0 = _mm_loadu_ps(b.min);
    const __m128 indexLane = _mm_castsi128_ps(_mm_cvtsi32_si128(static_cast<int>(i)));
    const __m128 min2AndIndex = _mm_shuffle_ps(minAndMax0, indexLane, _MM_SHUFFLE(0, 0, 2, 2));
    const __m128 max01 = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(b.max)));
    return {_mm_shuffle_ps(minAndMax0, min2AndIndex, _MM_SHUFFLE(2, 0, 1, 0)),
            _mm_movelh_ps(max01, _mm_load_ss(b.max + 2))};
}

/// The record's box; the index lane is cleared so that no arithmetic sees its bits.
inline Box load(const Record& r)
{
    const __m128 keepXYZ = _mm_castsi128_ps(_mm_set_epi32(0, -1, -1, -1));
    const Box raw = loadRaw(r);
    return {_mm_and_ps(raw.lo, keepXYZ), raw.hi};
}

inline __m128 set3(const float* p)
{
    return _mm_set_ps(0.0f, p[2], p[1], p[0]);
}

/// kxBBox::extend(b) of box, with b the newcomer.
inline void grow(Box& box, const Box& b)
{
    box.lo = _mm_min_ps(b.lo, box.lo);
    box.hi = _mm_max_ps(b.hi, box.hi);
}

/// (min + max) * 0.5 on every lane.
inline __m128 centroid(const Box& b)
{
    return _mm_mul_ps(_mm_add_ps(b.lo, b.hi), _mm_set1_ps(0.5f));
}

/// (v - origin) * scale on every lane.
inline __m128 offsetScaled(__m128 v, __m128 origin, __m128 scale)
{
    return _mm_mul_ps(_mm_sub_ps(v, origin), scale);
}

/// Truncation toward zero to 64 bits, low 32 bits kept. NaN and out-of-range values give
/// the integer indefinite 0x8000000000000000, whose low half is 0: on an axis of zero
/// extent (0 * infinity) everything lands in bin 0.
inline uint32_t truncateToLow32(float v)
{
#if defined(__x86_64__)
    // The conversion instruction itself: no range test on the hot path.
    return static_cast<uint32_t>(_mm_cvttss_si64(_mm_set_ss(v)));
#else
    constexpr float kTwo63 = 9223372036854775808.0f;
    if (v >= -kTwo63 && v < kTwo63)
        return static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(v)));
    return 0u;
#endif
}

/// truncateToLow32 of lanes 0-2. The 32-bit conversion agrees with it below
/// 2^31 in magnitude; its one out-of-range answer sends the lane the scalar way.
inline void truncate3(__m128 v, uint32_t out[4])
{
    const __m128i t = _mm_cvttps_epi32(v);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), t);
    const int outOfRange = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(t, _mm_set1_epi32(INT32_MIN)))) & 7;
    if (__builtin_expect(outOfRange != 0, 0))
    {
        alignas(16) float lanes[4];
        _mm_store_ps(lanes, v);
        for (int a = 0; a < 3; ++a)
            out[a] = truncateToLow32(lanes[a]);
    }
}

/// One running box per axis, for the bin sweeps, held in registers.
class Box3
{
public:
    Box3(const Box& x, const Box& y, const Box& z) : mX(x), mY(y), mZ(z) {}

    /// The sweep's step: each bin box grown by the running one (kxBBox::extend of the bin
    /// with the running box as the newcomer) becomes the running box.
    void sweep(const Box& x, const Box& y, const Box& z)
    {
        mX = sweptInto(x, mX);
        mY = sweptInto(y, mY);
        mZ = sweptInto(z, mZ);
    }

    /// kxDefaultSAH::f of the three boxes, one a lane: (ex * (ey + ez) + ey * ez) * (n + 4).
    __m128 defaultCosts(__m128i n) const
    {
        // Rows of extents, one a box, turned into columns, one an axis.
        __m128 ex = _mm_sub_ps(mX.hi, mX.lo);
        __m128 ey = _mm_sub_ps(mY.hi, mY.lo);
        __m128 ez = _mm_sub_ps(mZ.hi, mZ.lo);
        __m128 unused = _mm_setzero_ps();
        _MM_TRANSPOSE4_PS(ex, ey, ez, unused);
        const __m128 area = _mm_add_ps(_mm_mul_ps(ex, _mm_add_ps(ey, ez)), _mm_mul_ps(ey, ez));
        return _mm_mul_ps(area, _mm_cvtepi32_ps(_mm_add_epi32(n, _mm_set1_epi32(4))));
    }

private:
    static Box sweptInto(Box bin, const Box& running)
    {
        grow(bin, running);
        return bin;
    }

    Box mX;
    Box mY;
    Box mZ;
};

/// Buckets 0 .. 2047 of median keys, never decreasing as the keys' bit patterns grow:
/// min(key * scale, 2047) truncated for non-negative finite keys, 2047 for +inf, NaN and
/// negative keys (whose patterns are the largest). A scale that is not positive is taken
/// as 0, which keeps the order (all in bucket 0); an infinite one puts all in bucket 2047.
class KeyBuckets
{
public:
    explicit KeyBuckets(float scale) : mScale(_mm_set1_ps(scale > 0.0f ? scale : 0.0f)) {}

    __m128i of(__m128 keys) const
    {
        const __m128i bits = _mm_castps_si128(keys);
        const __m128i beyondFinite = _mm_or_si128(_mm_cmpgt_epi32(bits, _mm_set1_epi32(0x7F7FFFFF)),
                                                  _mm_cmplt_epi32(bits, _mm_setzero_si128()));
        const __m128 last = _mm_set1_ps(2047.0f);
        const __m128i bucket = _mm_cvttps_epi32(_mm_min_ps(_mm_mul_ps(keys, mScale), last));
        return _mm_or_si128(_mm_andnot_si128(beyondFinite, bucket), _mm_and_si128(beyondFinite, _mm_set1_epi32(2047)));
    }

    /// Bit i set where key i falls in the bucket on target's lanes.
    int matches(__m128 keys, __m128i target) const
    {
        return _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(of(keys), target)));
    }

private:
    __m128 mScale;
};

/// v on every lane.
inline __m128 splat(float v)
{
    return _mm_set1_ps(v);
}

inline __m128 loadUnaligned(const float* p)
{
    return _mm_loadu_ps(p);
}

inline void storeUnaligned(float* p, __m128 v)
{
    _mm_storeu_ps(p, v);
}

inline void store(float out[4], __m128 v)
{
    _mm_store_ps(out, v);
}

inline __m128 add(__m128 a, __m128 b)
{
    return _mm_add_ps(a, b);
}

/// min(a, m) lane by lane, a being the newcomer.
inline __m128 minimum(__m128 a, __m128 m)
{
    return _mm_min_ps(a, m);
}

/// The smallest of the four lanes, by minimum() of lane pairs and then of the pairs.
inline float smallestLane(__m128 v)
{
    v = _mm_min_ps(_mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 0, 3, 2)), v);
    v = _mm_min_ps(_mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 3, 0, 1)), v);
    return _mm_cvtss_f32(v);
}

/// Four primitive counts, one an axis (lane 3 unused).
inline __m128i loadCounts(const uint32_t* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

inline __m128i addCounts(__m128i a, __m128i b)
{
    return _mm_add_epi32(a, b);
}

/// (min + max) * 0.5 - origin on axis a of four records r[0..3], one a lane: the median
/// keys of kxSAHRecordBuild, as floats.
inline __m128 medianKeys(const Record* r, int a, float origin)
{
    const __m128 lo = _mm_set_ps(r[3].min[a], r[2].min[a], r[1].min[a], r[0].min[a]);
    const __m128 hi = _mm_set_ps(r[3].max[a], r[2].max[a], r[1].max[a], r[0].max[a]);
    return _mm_sub_ps(_mm_mul_ps(_mm_add_ps(lo, hi), _mm_set1_ps(0.5f)), _mm_set1_ps(origin));
}

/// Keys are kept as their bit patterns.
inline void storeKeys(uint32_t* keys, __m128 k)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(keys), _mm_castps_si128(k));
}

inline __m128 loadKeys(const uint32_t* keys)
{
    return _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(keys)));
}

/// The key with bit pattern bits on every lane.
inline __m128 splatKey(uint32_t bits)
{
    return _mm_castsi128_ps(_mm_set1_epi32(static_cast<int>(bits)));
}

/// Bucket b on every lane, for KeyBuckets::matches.
inline __m128i splatBucket(uint32_t b)
{
    return _mm_set1_epi32(static_cast<int>(b));
}

inline void storeBuckets(uint32_t out[4], __m128i buckets)
{
    _mm_store_si128(reinterpret_cast<__m128i*>(out), buckets);
}

/// Writes the box's three lanes as a kxBBox.
inline void store(kxBBox& box, const Box& b)
{
    alignas(16) float lo[4];
    alignas(16) float hi[4];
    _mm_store_ps(lo, b.lo);
    _mm_store_ps(hi, b.hi);
    for (int a = 0; a < 3; ++a)
    {
        box.min[a] = lo[a];
        box.max[a] = hi[a];
    }
}

} // namespace kxSAHLanes

#endif
