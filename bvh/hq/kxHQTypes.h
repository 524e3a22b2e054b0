// What the stages of the high-quality builder hand to each other.
#ifndef KXHQTYPES_H
#define KXHQTYPES_H

#include "kxBBox.h"
#include "kxCancelInterface.h"

#include <cstdint>
#include <limits>
#include <vector>

namespace kxHQ
{
/// The three corners of a triangle, as the mesh gives them.
struct Triangle
{
    float corner[3][3];
};

/// A triangle, or the part of it inside box.
struct Reference
{
    kxBBox box;
    uint32_t triangle;
};

/// The binary tree of the top-down build: parents come before their children, siblings
/// are adjacent (the right child is left + 1), and every leaf holds one reference.
struct TreeNode
{
    static constexpr uint32_t kLeaf = 0; // the root is nobody's child

    kxBBox box;
    uint32_t left;     // kLeaf for a leaf
    uint32_t triangle; // a leaf's reference
};

inline bool cancelled(const kx::kxCancelInterfaceReadOnly* cancel)
{
    return cancel && cancel->shouldCancel();
}

/// Half the surface area in double precision, so that boxes near the largest floats do
/// not overflow; 0 for an empty box, +infinity when the extents do not make a number.
inline double halfArea(const kxBBox& b)
{
    const double ex = double(b.max[0]) - b.min[0];
    const double ey = double(b.max[1]) - b.min[1];
    const double ez = double(b.max[2]) - b.min[2];
    if (ex < 0.0 || ey < 0.0 || ez < 0.0)
        return 0.0;
    const double area = ex * (ey + ez) + ey * ez;
    return area == area ? area : std::numeric_limits<double>::infinity();
}

inline void extend(kxBBox& b, const float* p)
{
    for (int a = 0; a < 3; ++a)
    {
        b.min[a] = p[a] < b.min[a] ? p[a] : b.min[a];
        b.max[a] = p[a] > b.max[a] ? p[a] : b.max[a];
    }
}

inline bool isEmpty(const kxBBox& b)
{
    return !(b.min[0] <= b.max[0] && b.min[1] <= b.max[1] && b.min[2] <= b.max[2]);
}

/// min * 0.5 + max * 0.5, which stays finite for boxes near the largest floats.
inline float centroid(const kxBBox& b, int axis)
{
    return b.min[axis] * 0.5f + b.max[axis] * 0.5f;
}
} // namespace kxHQ

#endif
