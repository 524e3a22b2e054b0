// Four-lane single-precision helpers over SSE2, for the four-wide hierarchy's kernels
// only. min and max keep the SSE rule the kernels rely on: min(a, b) = a < b ? a : b and
// max(a, b) = a > b ? a : b, so a NaN in either operand yields the second operand.
#ifndef KXSIMD4_H
#define KXSIMD4_H

#include <emmintrin.h>

#include <cstdint>

namespace kxSimd
{
struct vfloat4
{
    __m128 v;

    vfloat4() = default;
    explicit vfloat4(__m128 value) : v(value) {}
    explicit vfloat4(float value) : v(_mm_set1_ps(value)) {}

    static vfloat4 load(const float* aligned) { return vfloat4(_mm_load_ps(aligned)); }
    /// Four floats from any address.
    static vfloat4 loadUnaligned(const float* p) { return vfloat4(_mm_loadu_ps(p)); }
    /// (a, b, c, d) in lanes 0 to 3.
    static vfloat4 lanes(float a, float b, float c, float d) { return vfloat4(_mm_setr_ps(a, b, c, d)); }
    /// (p[0], p[1], p[2], 0), reading only those three.
    static vfloat4 load3(const float* p) { return vfloat4(_mm_set_ps(0.0f, p[2], p[1], p[0])); }
    void store(float* aligned) const { _mm_store_ps(aligned, v); }
    /// A store that bypasses the caches, for large arrays written once front to back;
    /// streamFence orders such stores before what follows.
    void stream(float* aligned) const { _mm_stream_ps(aligned, v); }
};

inline void streamFence()
{
    _mm_sfence();
}

/// Lanes 0 to 2 of four vectors turned into three: x = (a0, b0, c0, d0), y = (a1, ...), z = (a2, ...).
inline void transpose3(vfloat4 a, vfloat4 b, vfloat4 c, vfloat4 d, vfloat4& x, vfloat4& y, vfloat4& z)
{
    const __m128 ab01 = _mm_unpacklo_ps(a.v, b.v), cd01 = _mm_unpacklo_ps(c.v, d.v);
    const __m128 ab23 = _mm_unpackhi_ps(a.v, b.v), cd23 = _mm_unpackhi_ps(c.v, d.v);
    x = vfloat4(_mm_movelh_ps(ab01, cd01));
    y = vfloat4(_mm_movehl_ps(cd01, ab01));
    z = vfloat4(_mm_movelh_ps(ab23, cd23));
}

/// Lane masks: all bits set where a comparison held.
struct vmask4
{
    __m128 v;

    explicit vmask4(__m128 value) : v(value) {}
    /// Bit k set when lane k is set.
    int bits() const { return _mm_movemask_ps(v); }
    bool any() const { return bits() != 0; }
};

inline vfloat4 operator+(vfloat4 a, vfloat4 b) { return vfloat4(_mm_add_ps(a.v, b.v)); }
inline vfloat4 operator-(vfloat4 a, vfloat4 b) { return vfloat4(_mm_sub_ps(a.v, b.v)); }
inline vfloat4 operator*(vfloat4 a, vfloat4 b) { return vfloat4(_mm_mul_ps(a.v, b.v)); }
inline vfloat4 operator/(vfloat4 a, vfloat4 b) { return vfloat4(_mm_div_ps(a.v, b.v)); }
inline vfloat4 operator-(vfloat4 a) { return vfloat4(_mm_xor_ps(a.v, _mm_set1_ps(-0.0f))); }
inline vfloat4 abs(vfloat4 a) { return vfloat4(_mm_andnot_ps(_mm_set1_ps(-0.0f), a.v)); }
inline vfloat4 sqrt(vfloat4 a) { return vfloat4(_mm_sqrt_ps(a.v)); }

/// Lane k of a in all four lanes.
template <int k>
inline vfloat4 lane(vfloat4 a)
{
    return vfloat4(_mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(k, k, k, k)));
}

inline vfloat4 min(vfloat4 a, vfloat4 b) { return vfloat4(_mm_min_ps(a.v, b.v)); }
inline vfloat4 max(vfloat4 a, vfloat4 b) { return vfloat4(_mm_max_ps(a.v, b.v)); }

inline vmask4 operator<(vfloat4 a, vfloat4 b) { return vmask4(_mm_cmplt_ps(a.v, b.v)); }
inline vmask4 operator<=(vfloat4 a, vfloat4 b) { return vmask4(_mm_cmple_ps(a.v, b.v)); }
inline vmask4 operator>(vfloat4 a, vfloat4 b) { return vmask4(_mm_cmpgt_ps(a.v, b.v)); }
inline vmask4 operator>=(vfloat4 a, vfloat4 b) { return vmask4(_mm_cmpge_ps(a.v, b.v)); }
/// True in lanes that are not NaN.
inline vmask4 ordered(vfloat4 a) { return vmask4(_mm_cmpord_ps(a.v, a.v)); }

inline vmask4 operator&(vmask4 a, vmask4 b) { return vmask4(_mm_and_ps(a.v, b.v)); }
inline vmask4 operator|(vmask4 a, vmask4 b) { return vmask4(_mm_or_ps(a.v, b.v)); }
inline vmask4 operator!(vmask4 a) { return vmask4(_mm_xor_ps(a.v, _mm_castsi128_ps(_mm_set1_epi32(-1)))); }

/// Lanes 0 .. n - 1 set, for n up to 4.
inline vmask4 laneBelow(uint32_t n)
{
    const __m128i lane = _mm_set_epi32(3, 2, 1, 0);
    return vmask4(_mm_castsi128_ps(_mm_cmplt_epi32(lane, _mm_set1_epi32(static_cast<int>(n)))));
}

/// Lanes of a where m is set, of b elsewhere.
inline vfloat4 select(vmask4 m, vfloat4 a, vfloat4 b)
{
    return vfloat4(_mm_or_ps(_mm_and_ps(m.v, a.v), _mm_andnot_ps(m.v, b.v)));
}

/// Bitwise OR of the two bit patterns.
inline vfloat4 orBits(vfloat4 a, vfloat4 b) { return vfloat4(_mm_or_ps(a.v, b.v)); }

/// Unsigned 32-bit lanes.
struct vuint4
{
    __m128i v;

    vuint4() = default;
    explicit vuint4(__m128i value) : v(value) {}
    explicit vuint4(uint32_t value) : v(_mm_set1_epi32(static_cast<int>(value))) {}

    static vuint4 load(const uint32_t* aligned)
    {
        return vuint4(_mm_load_si128(reinterpret_cast<const __m128i*>(aligned)));
    }
    void store(uint32_t* aligned) const { _mm_store_si128(reinterpret_cast<__m128i*>(aligned), v); }
    void stream(uint32_t* aligned) const { _mm_stream_si128(reinterpret_cast<__m128i*>(aligned), v); }
};

inline vuint4 select(vmask4 m, vuint4 a, vuint4 b)
{
    const __m128i mi = _mm_castps_si128(m.v);
    return vuint4(_mm_or_si128(_mm_and_si128(mi, a.v), _mm_andnot_si128(mi, b.v)));
}

/// Lanes where a and b hold the same bits.
inline vmask4 operator==(vuint4 a, vuint4 b) { return vmask4(_mm_castsi128_ps(_mm_cmpeq_epi32(a.v, b.v))); }

/// Asks for the cache line holding p ahead of its use.
inline void prefetch(const void* p)
{
    _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0);
}

/// Asks for the first `lines` cache lines from p on.
inline void prefetchLines(const void* p, int lines)
{
    for (int i = 0; i < lines; ++i)
        prefetch(static_cast<const char*>(p) + 64 * i);
}

/// The bit patterns of a as unsigned lanes.
inline vuint4 asUint(vfloat4 a) { return vuint4(_mm_castps_si128(a.v)); }

/// Four double lanes in two SSE2 registers, for the few kernels that need more than
/// single precision. Converting a vfloat4 is exact, and so are differences of converted
/// floats and their pairwise products.
struct vdouble4
{
    __m128d lo, hi;

    vdouble4() = default;
    vdouble4(__m128d low, __m128d high) : lo(low), hi(high) {}
    explicit vdouble4(double value) : lo(_mm_set1_pd(value)), hi(_mm_set1_pd(value)) {}
    explicit vdouble4(vfloat4 a) : lo(_mm_cvtps_pd(a.v)), hi(_mm_cvtps_pd(_mm_movehl_ps(a.v, a.v))) {}

    void store(double* aligned) const
    {
        _mm_store_pd(aligned, lo);
        _mm_store_pd(aligned + 2, hi);
    }
};

struct vdmask4
{
    __m128d lo, hi;

    vdmask4(__m128d low, __m128d high) : lo(low), hi(high) {}
    /// Bit k set when lane k is set.
    int bits() const { return _mm_movemask_pd(lo) | (_mm_movemask_pd(hi) << 2); }
};

#define KX_SIMD_DOUBLE_OP(op, intrinsic)                                                                              \
    inline vdouble4 operator op(vdouble4 a, vdouble4 b) { return vdouble4(intrinsic(a.lo, b.lo), intrinsic(a.hi, b.hi)); }
KX_SIMD_DOUBLE_OP(+, _mm_add_pd)
KX_SIMD_DOUBLE_OP(-, _mm_sub_pd)
KX_SIMD_DOUBLE_OP(*, _mm_mul_pd)
KX_SIMD_DOUBLE_OP(/, _mm_div_pd)
#undef KX_SIMD_DOUBLE_OP

inline vdouble4 min(vdouble4 a, vdouble4 b) { return vdouble4(_mm_min_pd(a.lo, b.lo), _mm_min_pd(a.hi, b.hi)); }
inline vdouble4 max(vdouble4 a, vdouble4 b) { return vdouble4(_mm_max_pd(a.lo, b.lo), _mm_max_pd(a.hi, b.hi)); }

inline vdmask4 operator<(vdouble4 a, vdouble4 b) { return vdmask4(_mm_cmplt_pd(a.lo, b.lo), _mm_cmplt_pd(a.hi, b.hi)); }
inline vdmask4 operator<=(vdouble4 a, vdouble4 b)
{
    return vdmask4(_mm_cmple_pd(a.lo, b.lo), _mm_cmple_pd(a.hi, b.hi));
}
inline vdmask4 operator>(vdouble4 a, vdouble4 b) { return vdmask4(_mm_cmpgt_pd(a.lo, b.lo), _mm_cmpgt_pd(a.hi, b.hi)); }
inline vdmask4 operator>=(vdouble4 a, vdouble4 b)
{
    return vdmask4(_mm_cmpge_pd(a.lo, b.lo), _mm_cmpge_pd(a.hi, b.hi));
}
inline vdmask4 operator&(vdmask4 a, vdmask4 b) { return vdmask4(_mm_and_pd(a.lo, b.lo), _mm_and_pd(a.hi, b.hi)); }

inline vdouble4 select(vdmask4 m, vdouble4 a, vdouble4 b)
{
    return vdouble4(_mm_or_pd(_mm_and_pd(m.lo, a.lo), _mm_andnot_pd(m.lo, b.lo)),
                    _mm_or_pd(_mm_and_pd(m.hi, a.hi), _mm_andnot_pd(m.hi, b.hi)));
}
} // namespace kxSimd

#endif
