// The math layer. This is the only file that includes Wild Magic; every other file
// writes Wm4::. Wild Magic 5 keeps the storage layout of Wild Magic 4 (row-major
// matrices, Plane3 = normal then constant, Quaternion = w, x, y, z), so swapping in
// the real Wild Magic 4 Foundation means changing this header only.
#ifndef WM4FOUNDATION_H
#define WM4FOUNDATION_H

#include <Wm5Box3.h>
#include <Wm5Math.h>
#include <Wm5Matrix2.h>
#include <Wm5Matrix3.h>
#include <Wm5Matrix4.h>
#include <Wm5Plane3.h>
#include <Wm5Quaternion.h>
#include <Wm5Vector2.h>
#include <Wm5Vector3.h>
#include <Wm5Vector4.h>

#include <cstddef>
#include <cstring>

namespace Wm4
{
using Wm5::Box3;
using Wm5::Math;
using Wm5::Matrix2;
using Wm5::Matrix3;
using Wm5::Matrix4;
using Wm5::Plane3;
using Wm5::Quaternion;
using Wm5::Vector2;
using Wm5::Vector3;
using Wm5::Vector4;

/// Red, green, blue as three floats.
class ColorRGB
{
public:
    ColorRGB() : mTuple{0.0f, 0.0f, 0.0f} {}
    ColorRGB(float r, float g, float b) : mTuple{r, g, b} {}

    float R() const { return mTuple[0]; }
    float G() const { return mTuple[1]; }
    float B() const { return mTuple[2]; }
    float& R() { return mTuple[0]; }
    float& G() { return mTuple[1]; }
    float& B() { return mTuple[2]; }

    float operator[](int i) const { return mTuple[i]; }
    float& operator[](int i) { return mTuple[i]; }

    bool operator==(const ColorRGB& o) const
    {
        return mTuple[0] == o.mTuple[0] && mTuple[1] == o.mTuple[1] && mTuple[2] == o.mTuple[2];
    }
    bool operator!=(const ColorRGB& o) const { return !(*this == o); }

private:
    float mTuple[3];
};

/// Red, green, blue, alpha as four floats.
class ColorRGBA
{
public:
    ColorRGBA() : mTuple{0.0f, 0.0f, 0.0f, 0.0f} {}
    ColorRGBA(float r, float g, float b, float a) : mTuple{r, g, b, a} {}

    float R() const { return mTuple[0]; }
    float G() const { return mTuple[1]; }
    float B() const { return mTuple[2]; }
    float A() const { return mTuple[3]; }
    float& R() { return mTuple[0]; }
    float& G() { return mTuple[1]; }
    float& B() { return mTuple[2]; }
    float& A() { return mTuple[3]; }

    float operator[](int i) const { return mTuple[i]; }
    float& operator[](int i) { return mTuple[i]; }

    bool operator==(const ColorRGBA& o) const
    {
        return mTuple[0] == o.mTuple[0] && mTuple[1] == o.mTuple[1] &&
               mTuple[2] == o.mTuple[2] && mTuple[3] == o.mTuple[3];
    }
    bool operator!=(const ColorRGBA& o) const { return !(*this == o); }

private:
    float mTuple[4];
};

class System
{
public:
    /// Copies min(dstSize, srcSize) bytes from src to dst and returns dst. Returns null
    /// and copies nothing when either pointer is null or either size is 0.
    static void* Memcpy(void* dst, size_t dstSize, const void* src, size_t srcSize)
    {
        if (!dst || dstSize == 0 || !src || srcSize == 0)
            return nullptr;
        std::memcpy(dst, src, srcSize < dstSize ? srcSize : dstSize);
        return dst;
    }
};
} // namespace Wm4

#endif
