// What the array tests know about each element type, written against the math types' own
// accessors so that it does not lean on the library's view of the elements.
#ifndef ARRAYTESTELEMENTS_H
#define ARRAYTESTELEMENTS_H

#include "kxTSharedArray.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

namespace arraytest
{
template <typename T>
struct Element;

template <typename S, int N>
struct Scalars
{
    typedef S Scalar;
    static constexpr int Count = N;
};

template <>
struct Element<float> : Scalars<float, 1>
{
    static constexpr const char* Name = "kxFloatArray";
    static float& At(float& v, int) { return v; }
};
template <>
struct Element<double> : Scalars<double, 1>
{
    static constexpr const char* Name = "kxDoubleArray";
    static double& At(double& v, int) { return v; }
};
template <>
struct Element<int> : Scalars<int, 1>
{
    static constexpr const char* Name = "kxIntArray";
    static int& At(int& v, int) { return v; }
};
template <>
struct Element<Wm4::ColorRGBA> : Scalars<float, 4>
{
    static constexpr const char* Name = "kxColorRGBAArray";
    static float& At(Wm4::ColorRGBA& c, int k) { return c[k]; }
};
template <>
struct Element<Wm4::ColorRGB> : Scalars<float, 3>
{
    static constexpr const char* Name = "kxColorRGBArray";
    static float& At(Wm4::ColorRGB& c, int k) { return c[k]; }
};

template <typename Real, typename M, int Rows>
struct MatrixElement : Scalars<Real, Rows * Rows>
{
    static Real& At(M& m, int k) { return m(k / Rows, k % Rows); }
};
template <>
struct Element<Wm4::Matrix2<float>> : MatrixElement<float, Wm4::Matrix2<float>, 2>
{
    static constexpr const char* Name = "kxMatrix2fArray";
};
template <>
struct Element<Wm4::Matrix2<double>> : MatrixElement<double, Wm4::Matrix2<double>, 2>
{
    static constexpr const char* Name = "kxMatrix2dArray";
};
template <>
struct Element<Wm4::Matrix3<float>> : MatrixElement<float, Wm4::Matrix3<float>, 3>
{
    static constexpr const char* Name = "kxMatrix3fArray";
};
template <>
struct Element<Wm4::Matrix3<double>> : MatrixElement<double, Wm4::Matrix3<double>, 3>
{
    static constexpr const char* Name = "kxMatrix3dArray";
};
template <>
struct Element<Wm4::Matrix4<float>> : MatrixElement<float, Wm4::Matrix4<float>, 4>
{
    static constexpr const char* Name = "kxMatrix4fArray";
};
template <>
struct Element<Wm4::Matrix4<double>> : MatrixElement<double, Wm4::Matrix4<double>, 4>
{
    static constexpr const char* Name = "kxMatrix4dArray";
};

template <typename Real>
struct PlaneElement : Scalars<Real, 4>
{
    static Real& At(Wm4::Plane3<Real>& p, int k) { return k < 3 ? p.Normal[k] : p.Constant; }
};
template <>
struct Element<Wm4::Plane3<float>> : PlaneElement<float>
{
    static constexpr const char* Name = "kxPlane3fArray";
};
template <>
struct Element<Wm4::Plane3<double>> : PlaneElement<double>
{
    static constexpr const char* Name = "kxPlane3dArray";
};

template <typename Real, typename V, int N>
struct TupleElement : Scalars<Real, N>
{
    static Real& At(V& v, int k) { return v[k]; }
};
template <>
struct Element<Wm4::Quaternion<float>> : TupleElement<float, Wm4::Quaternion<float>, 4>
{
    static constexpr const char* Name = "kxQuaternionfArray";
};
template <>
struct Element<Wm4::Quaternion<double>> : TupleElement<double, Wm4::Quaternion<double>, 4>
{
    static constexpr const char* Name = "kxQuaterniondArray";
};
template <>
struct Element<Wm4::Vector3<float>> : TupleElement<float, Wm4::Vector3<float>, 3>
{
    static constexpr const char* Name = "kxVector3fArray";
};
template <>
struct Element<Wm4::Vector3<double>> : TupleElement<double, Wm4::Vector3<double>, 3>
{
    static constexpr const char* Name = "kxVector3dArray";
};

template <typename T>
typename Element<T>::Scalar Get(const T& value, int k)
{
    return Element<T>::At(const_cast<T&>(value), k);
}

template <typename T>
T RandomElement(std::mt19937& rng)
{
    typedef typename Element<T>::Scalar Scalar;
    T value;
    for (int k = 0; k < Element<T>::Count; ++k)
    {
        if constexpr (std::is_integral<Scalar>::value)
            Element<T>::At(value, k) = std::uniform_int_distribution<Scalar>(
                std::numeric_limits<Scalar>::min(), std::numeric_limits<Scalar>::max())(rng);
        else
            Element<T>::At(value, k) = std::uniform_real_distribution<Scalar>(-100, 100)(rng);
    }
    return value;
}

/// A new array of quantity random elements, owned by the returned object.
template <typename T>
kx::kxTSharedArray<T>* RandomArray(std::mt19937& rng, int quantity)
{
    T* data = new T[quantity];
    for (int i = 0; i < quantity; ++i)
        data[i] = RandomElement<T>(rng);
    return new kx::kxTSharedArray<T>(quantity, data);
}

template <typename T>
void ExpectSameElements(const kx::kxTSharedArray<T>& expected, const kx::kxTSharedArray<T>& actual)
{
    ASSERT_EQ(expected.GetQuantity(), actual.GetQuantity());
    for (int i = 0; i < expected.GetQuantity(); ++i)
        for (int k = 0; k < Element<T>::Count; ++k)
            ASSERT_EQ(Get(expected[i], k), Get(actual[i], k)) << "element " << i << " scalar " << k;
}

/// Appends value as little-endian bytes of its own width.
template <typename S>
void AppendLE(std::vector<unsigned char>& out, S value)
{
    typedef typename std::conditional<sizeof(S) == 4, uint32_t, uint64_t>::type Bits;
    static_assert(sizeof(S) == sizeof(Bits), "4- or 8-byte scalars only");
    Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    for (size_t b = 0; b < sizeof bits; ++b)
        out.push_back(static_cast<unsigned char>(bits >> (8 * b)));
}

inline void AppendString(std::vector<unsigned char>& out, const std::string& text)
{
    AppendLE(out, static_cast<uint32_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}
} // namespace arraytest

#endif
