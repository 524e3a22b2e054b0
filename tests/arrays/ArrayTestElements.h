#ifndef ARRAYTESTELEMENTS_H
#define ARRAYTESTELEMENTS_H

#include "kxTSharedArray.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "element storage is compared with stream bytes");

namespace arraytest
{
// Scalar type and registered name of each element type. Every element is stored as its
// scalars in stream order, so the tests look at that storage directly.
template <typename T>
struct Element;
template <typename S>
struct Of
{
    typedef S Scalar;
};
template <> struct Element<float> : Of<float> { static constexpr const char* Name = "kxFloatArray"; };
template <> struct Element<double> : Of<double> { static constexpr const char* Name = "kxDoubleArray"; };
template <> struct Element<int> : Of<int> { static constexpr const char* Name = "kxIntArray"; };
template <> struct Element<Wm4::ColorRGBA> : Of<float> { static constexpr const char* Name = "kxColorRGBAArray"; };
template <> struct Element<Wm4::ColorRGB> : Of<float> { static constexpr const char* Name = "kxColorRGBArray"; };
template <> struct Element<Wm4::Matrix2<float>> : Of<float> { static constexpr const char* Name = "kxMatrix2fArray"; };
template <> struct Element<Wm4::Matrix2<double>> : Of<double> { static constexpr const char* Name = "kxMatrix2dArray"; };
template <> struct Element<Wm4::Matrix3<float>> : Of<float> { static constexpr const char* Name = "kxMatrix3fArray"; };
template <> struct Element<Wm4::Matrix3<double>> : Of<double> { static constexpr const char* Name = "kxMatrix3dArray"; };
template <> struct Element<Wm4::Matrix4<float>> : Of<float> { static constexpr const char* Name = "kxMatrix4fArray"; };
template <> struct Element<Wm4::Matrix4<double>> : Of<double> { static constexpr const char* Name = "kxMatrix4dArray"; };
template <> struct Element<Wm4::Plane3<float>> : Of<float> { static constexpr const char* Name = "kxPlane3fArray"; };
template <> struct Element<Wm4::Plane3<double>> : Of<double> { static constexpr const char* Name = "kxPlane3dArray"; };
template <> struct Element<Wm4::Quaternion<float>> : Of<float> { static constexpr const char* Name = "kxQuaternionfArray"; };
template <> struct Element<Wm4::Quaternion<double>> : Of<double> { static constexpr const char* Name = "kxQuaterniondArray"; };
template <> struct Element<Wm4::Vector3<float>> : Of<float> { static constexpr const char* Name = "kxVector3fArray"; };
template <> struct Element<Wm4::Vector3<double>> : Of<double> { static constexpr const char* Name = "kxVector3dArray"; };

template <typename T>
typename Element<T>::Scalar* ScalarsOf(T& element)
{
    return reinterpret_cast<typename Element<T>::Scalar*>(&element);
}

template <typename T>
constexpr int ScalarCount = static_cast<int>(sizeof(T) / sizeof(typename Element<T>::Scalar));

/// A new array object owning quantity random elements.
template <typename T>
kx::kxTSharedArray<T>* RandomArray(std::mt19937& rng, int quantity)
{
    typedef typename Element<T>::Scalar Scalar;
    T* data = new T[quantity];
    for (int i = 0; i < quantity; ++i)
        for (int k = 0; k < ScalarCount<T>; ++k)
        {
            if constexpr (std::is_integral<Scalar>::value)
                ScalarsOf(data[i])[k] = std::uniform_int_distribution<Scalar>(
                    std::numeric_limits<Scalar>::min(), std::numeric_limits<Scalar>::max())(rng);
            else
                ScalarsOf(data[i])[k] = std::uniform_real_distribution<Scalar>(-100, 100)(rng);
        }
    return new kx::kxTSharedArray<T>(quantity, data);
}

template <typename T>
void ExpectSameElements(const kx::kxTSharedArray<T>& expected, const kx::kxTSharedArray<T>& actual)
{
    ASSERT_EQ(expected.GetQuantity(), actual.GetQuantity());
    if (expected.GetQuantity() > 0)
    {
        EXPECT_EQ(0, std::memcmp(expected.GetData(), actual.GetData(), expected.GetQuantity() * sizeof(T)));
    }
}

inline void AppendLE(std::vector<unsigned char>& out, uint32_t value)
{
    for (int b = 0; b < 4; ++b)
        out.push_back(static_cast<unsigned char>(value >> (8 * b)));
}

inline void AppendString(std::vector<unsigned char>& out, const std::string& text)
{
    AppendLE(out, static_cast<uint32_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

/// A type name (when given), an unnamed object part and a quantity, then the bytes given.
inline std::vector<unsigned char> StreamBytes(const std::string& typeName, uint32_t id, int32_t quantity,
                                              const void* data = nullptr, size_t size = 0)
{
    std::vector<unsigned char> bytes;
    if (!typeName.empty())
        AppendString(bytes, typeName);
    AppendString(bytes, "");
    AppendLE(bytes, id);
    AppendLE(bytes, static_cast<uint32_t>(quantity));
    if (size > 0)
        bytes.insert(bytes.end(), static_cast<const unsigned char*>(data),
                     static_cast<const unsigned char*>(data) + size);
    return bytes;
}
} // namespace arraytest

#endif
