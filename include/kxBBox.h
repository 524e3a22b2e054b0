#ifndef KXBBOX_H
#define KXBBOX_H

#include "Wm4Foundation.h"

#include <cstdint>
#include <iosfwd>
#include <limits>

/// Axis-aligned 3D box: six floats, minimum x, y, z then maximum x, y, z, and nothing
/// else (node records embed it word for word). The default box is empty: minima
/// +infinity, maxima -infinity, so extending it by the first point or box yields exactly
/// that point or box.
class kxBBox
{
public:
    /// The axis number already shifted into bits 30-31, ready to be OR-ed into a node's
    /// offset word; 0xC0000000 in that place marks a leaf. Map to a component only by
    /// comparison (x, y, anything else is z).
    enum tAxis : uint32_t
    {
        eAxisX = 0x00000000u,
        eAxisY = 0x40000000u,
        eAxisZ = 0x80000000u
    };

    float min[3];
    float max[3];

    kxBBox()
        : min{std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
              std::numeric_limits<float>::infinity()},
          max{-std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
              -std::numeric_limits<float>::infinity()}
    {
    }
    kxBBox(const Wm4::Vector3<float>& minimum, const Wm4::Vector3<float>& maximum)
        : min{minimum[0], minimum[1], minimum[2]}, max{maximum[0], maximum[1], maximum[2]}
    {
    }

    /// Component-wise minimum of the minima and maximum of the maxima. A NaN coordinate
    /// never replaces a number.
    void extend(const Wm4::Vector3<float>& p)
    {
        for (int a = 0; a < 3; ++a)
        {
            if (p[a] < min[a])
                min[a] = p[a];
            if (p[a] > max[a])
                max[a] = p[a];
        }
    }
    void extend(const kxBBox& b)
    {
        for (int a = 0; a < 3; ++a)
        {
            if (b.min[a] < min[a])
                min[a] = b.min[a];
            if (b.max[a] > max[a])
                max[a] = b.max[a];
        }
    }

    /// 0 for eAxisX, 1 for eAxisY, 2 for any other value.
    static int component(tAxis a) { return a == eAxisX ? 0 : (a == eAxisY ? 1 : 2); }

    /// max - min on axis a (-infinity on every axis of the empty box).
    float getExtent(tAxis a) const { return max[component(a)] - min[component(a)]; }
    /// Largest extent and its axis; on equal extents y wins over z and x, z over x.
    float getMaxExtent(tAxis& a) const;
    /// Smallest extent and its axis; on equal extents y wins over z and x, z over x.
    float getMinExtent(tAxis& a) const;
    /// (min + max) * 0.5 per axis.
    Wm4::Vector3<float> getCenter() const
    {
        return Wm4::Vector3<float>((min[0] + max[0]) * 0.5f, (min[1] + max[1]) * 0.5f, (min[2] + max[2]) * 0.5f);
    }
    /// The box as an oriented box with the unit axes and half-extents.
    Wm4::Box3<float> convert() const;

    /// A copy whose maximum on a is min(maximum, p); p is not checked against the box.
    kxBBox splitLeft(tAxis a, float p) const;
    /// A copy whose minimum on a is max(minimum, p).
    kxBBox splitRight(tAxis a, float p) const;
    /// Clips this box to the left part and returns the right part.
    kxBBox split(tAxis a, float p);

    /// True when the closed box and the closed triangle abc share a point: a separating
    /// axis test in 13 axes, single precision, touching counts as overlap.
    bool overlapsTriangle(const Wm4::Vector3<float>& a, const Wm4::Vector3<float>& b,
                          const Wm4::Vector3<float>& c) const;

    /// Floating-point equality of all six values.
    bool operator==(const kxBBox& o) const
    {
        return min[0] == o.min[0] && min[1] == o.min[1] && min[2] == o.min[2] && max[0] == o.max[0] &&
               max[1] == o.max[1] && max[2] == o.max[2];
    }
    bool operator!=(const kxBBox& o) const { return !(*this == o); }
};

/// Writes "(minx,miny,minz)(maxx,maxy,maxz)".
std::ostream& operator<<(std::ostream& os, const kxBBox& box);

/// Axis-aligned 2D box: minimum x, y then maximum x, y. The default box is empty.
class kxBBox2D
{
public:
    float min[2];
    float max[2];

    kxBBox2D()
        : min{std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity()},
          max{-std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity()}
    {
    }
    kxBBox2D(const Wm4::Vector2<float>& minimum, const Wm4::Vector2<float>& maximum)
        : min{minimum[0], minimum[1]}, max{maximum[0], maximum[1]}
    {
    }

    void extend(const Wm4::Vector2<float>& p)
    {
        for (int a = 0; a < 2; ++a)
        {
            if (p[a] < min[a])
                min[a] = p[a];
            if (p[a] > max[a])
                max[a] = p[a];
        }
    }
    void extend(const kxBBox2D& b)
    {
        for (int a = 0; a < 2; ++a)
        {
            if (b.min[a] < min[a])
                min[a] = b.min[a];
            if (b.max[a] > max[a])
                max[a] = b.max[a];
        }
    }

    /// min + (max - min) * 0.5 per axis; rounds differently from the 3D centre on purpose.
    Wm4::Vector2<float> getCenter() const
    {
        return Wm4::Vector2<float>(min[0] + (max[0] - min[0]) * 0.5f, min[1] + (max[1] - min[1]) * 0.5f);
    }

    bool operator==(const kxBBox2D& o) const
    {
        return min[0] == o.min[0] && min[1] == o.min[1] && max[0] == o.max[0] && max[1] == o.max[1];
    }
    bool operator!=(const kxBBox2D& o) const { return !(*this == o); }
};

/// Writes "(minx,miny)(maxx,maxy)".
std::ostream& operator<<(std::ostream& os, const kxBBox2D& box);

#endif
