#ifndef KXARRAYELEMENT_H
#define KXARRAYELEMENT_H

#include "Wm4Foundation.h"
#include "kxBaseStream.h"

#include <cmath>
#include <cstddef>
#include <type_traits>

namespace kx
{
/// What differs between the shared-array instantiations: the scalar type, the number of
/// scalars per element, the comparison rule and the registered type name.
template <typename T>
struct kxArrayElement;

enum class kxElementRule
{
    eAbsolute,        // every scalar within 1e-6
    eSquaredDistance, // sum of squared scalar differences below 1e-6
    eExact
};

template <typename ScalarType, int ComponentCount, kxElementRule ComparisonRule>
struct kxElementLayout
{
    typedef ScalarType Scalar;
    static constexpr int Components = ComponentCount;
    static constexpr kxElementRule Rule = ComparisonRule;
};

template <>
struct kxArrayElement<float> : kxElementLayout<float, 1, kxElementRule::eAbsolute>
{
    static constexpr const char* Name = "kxFloatArray";
};

template <>
struct kxArrayElement<double> : kxElementLayout<double, 1, kxElementRule::eAbsolute>
{
    static constexpr const char* Name = "kxDoubleArray";
};

template <>
struct kxArrayElement<int> : kxElementLayout<int, 1, kxElementRule::eExact>
{
    static constexpr const char* Name = "kxIntArray";
};

template <>
struct kxArrayElement<Wm4::ColorRGBA> : kxElementLayout<float, 4, kxElementRule::eAbsolute>
{
    static constexpr const char* Name = "kxColorRGBAArray";
};

template <>
struct kxArrayElement<Wm4::ColorRGB> : kxElementLayout<float, 3, kxElementRule::eAbsolute>
{
    static constexpr const char* Name = "kxColorRGBArray";
};

template <typename Real>
constexpr const char* kxPrecisionName(const char* singleName, const char* doubleName)
{
    static_assert(std::is_same<Real, float>::value || std::is_same<Real, double>::value, "float or double");
    return std::is_same<Real, float>::value ? singleName : doubleName;
}

template <typename Real>
struct kxArrayElement<Wm4::Matrix2<Real>> : kxElementLayout<Real, 4, kxElementRule::eAbsolute>
{
    static constexpr const char* Name = kxPrecisionName<Real>("kxMatrix2fArray", "kxMatrix2dArray");
};

template <typename Real>
struct kxArrayElement<Wm4::Matrix3<Real>> : kxElementLayout<Real, 9, kxElementRule::eAbsolute>
{
    static constexpr const char* Name = kxPrecisionName<Real>("kxMatrix3fArray", "kxMatrix3dArray");
};

template <typename Real>
struct kxArrayElement<Wm4::Matrix4<Real>> : kxElementLayout<Real, 16, kxElementRule::eAbsolute>
{
    static constexpr const char* Name = kxPrecisionName<Real>("kxMatrix4fArray", "kxMatrix4dArray");
};

template <typename Real>
struct kxArrayElement<Wm4::Plane3<Real>> : kxElementLayout<Real, 4, kxElementRule::eAbsolute>
{
    static constexpr const char* Name = kxPrecisionName<Real>("kxPlane3fArray", "kxPlane3dArray");
};

template <typename Real>
struct kxArrayElement<Wm4::Quaternion<Real>> : kxElementLayout<Real, 4, kxElementRule::eSquaredDistance>
{
    static constexpr const char* Name = kxPrecisionName<Real>("kxQuaternionfArray", "kxQuaterniondArray");
};

template <typename Real>
struct kxArrayElement<Wm4::Vector3<Real>> : kxElementLayout<Real, 3, kxElementRule::eSquaredDistance>
{
    static constexpr const char* Name = kxPrecisionName<Real>("kxVector3fArray", "kxVector3dArray");
};

/// Elements are read and written as runs of scalars in storage order, which is what the
/// stream holds; every element type is exactly its scalars, without padding.
template <typename T>
typename kxArrayElement<T>::Scalar* kxScalars(T* elements)
{
    typedef typename kxArrayElement<T>::Scalar Scalar;
    static_assert(sizeof(T) == kxArrayElement<T>::Components * sizeof(Scalar), "element is not a run of scalars");
    static_assert(alignof(T) == alignof(Scalar), "element is not a run of scalars");
    return reinterpret_cast<Scalar*>(elements);
}

template <typename T>
const typename kxArrayElement<T>::Scalar* kxScalars(const T* elements)
{
    return kxScalars(const_cast<T*>(elements));
}

template <typename T>
void kxWriteElements(kxBaseStream& stream, const T* elements, size_t count)
{
    typedef typename kxArrayElement<T>::Scalar Scalar;
    stream.writele(sizeof(Scalar), count * kxArrayElement<T>::Components, kxScalars(elements));
}

// A plane goes out as its normal and then its constant: two writes, same bytes.
template <typename Real>
void kxWriteElements(kxBaseStream& stream, const Wm4::Plane3<Real>* planes, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        stream.writele(sizeof(Real), 3, static_cast<const Real*>(planes[i].Normal));
        stream.writele(sizeof(Real), 1, &planes[i].Constant);
    }
}

/// True when the stream still holds count elements; otherwise the stream is left failed.
template <typename T>
bool kxElementsRemain(kxBaseStream& stream, size_t count)
{
    typedef typename kxArrayElement<T>::Scalar Scalar;
    return stream.checkRemaining(sizeof(Scalar), count * kxArrayElement<T>::Components);
}

template <typename T>
bool kxReadElements(kxBaseStream& stream, T* elements, size_t count)
{
    typedef typename kxArrayElement<T>::Scalar Scalar;
    return stream.readle(sizeof(Scalar), count * kxArrayElement<T>::Components, kxScalars(elements));
}

/// Float data is subtracted in float and only the result is compared in double, so a
/// float difference of exactly 1e-6f (just below 1e-6) still counts as equal.
template <typename T>
bool kxElementsClose(const T& a, const T& b)
{
    typedef kxArrayElement<T> Element;
    typedef typename Element::Scalar Scalar;
    const Scalar* x = kxScalars(&a);
    const Scalar* y = kxScalars(&b);
    if constexpr (Element::Rule == kxElementRule::eExact)
    {
        for (int k = 0; k < Element::Components; ++k)
            if (x[k] != y[k])
                return false;
        return true;
    }
    else if constexpr (Element::Rule == kxElementRule::eAbsolute)
    {
        for (int k = 0; k < Element::Components; ++k)
        {
            const Scalar difference = std::abs(x[k] - y[k]);
            if (!(static_cast<double>(difference) < 1e-6))
                return false;
        }
        return true;
    }
    else
    {
        Scalar squaredDistance = Scalar(0);
        for (int k = 0; k < Element::Components; ++k)
        {
            const Scalar difference = x[k] - y[k];
            squaredDistance += difference * difference;
        }
        return static_cast<double>(squaredDistance) < 1e-6;
    }
}
} // namespace kx

#endif
