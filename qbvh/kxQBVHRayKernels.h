// The box and triangle arithmetic of the ray queries, shared so that every ray query
// tests boxes and triangles with the same operations in the same order and therefore
// agrees on every input, NaN and infinities included.
#ifndef KXQBVHRAYKERNELS_H
#define KXQBVHRAYKERNELS_H

#include "kxLogObject.h"
#include "kxQBVH.h"
#include "kxSimd4.h"

namespace kxQBVHRay
{
using kxSimd::vfloat4;
using kxSimd::vmask4;

constexpr uint32_t kNoChild = 0xFFFFFFFFu;

/// Whether the hierarchy holds the equations the ray queries need; when it does not, the
/// queries' error line is logged (level 2).
inline bool hasEquations(const kxQBVH& qbvh)
{
    if (qbvh.getDataFlags() & kxQBVH::eTrianglesEquations)
        return true;
    if (kx::kxLogObject::errorLevelEnabled())
        kx::kxLogObject(2)
                << "error: QBVH is not built with the right data type (should be kxQBVH::eTrianglesEquations)";
    return false;
}

/// Entries of a walk's stack; three per four-wide level, and a deeper tree makes the walk
/// recurse.
constexpr int kStackSize = 96;

/// A stacked slot: a node (count kNoChild) or a leaf of `count` groups from group `ref`.
struct StackEntry
{
    uint32_t ref;
    uint32_t count;
};

/// Asks for a stacked slot's data ahead of its visit: a node spans two cache lines, a
/// group of equations three. Spelled out line by line: GCC 12 drops the prefetches of a
/// two-way branch between two prefetch loops.
inline void prefetchEntry(const kxQBVH::tQBVHNode* nodes, const kxQBVH::tSOATriangleEquations* equations,
                          uint32_t ref, uint32_t count)
{
    if (count == kNoChild)
    {
        const char* p = reinterpret_cast<const char*>(nodes + ref);
        kxSimd::prefetch(p);
        kxSimd::prefetch(p + 64);
    }
    else
    {
        const char* p = reinterpret_cast<const char*>(equations + ref);
        kxSimd::prefetch(p);
        kxSimd::prefetch(p + 64);
        kxSimd::prefetch(p + 128);
    }
}

struct RayRecord
{
    vfloat4 org[3];
    vfloat4 dir[3];
    vfloat4 inv[3];

    RayRecord() = default;
    RayRecord(const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction)
    {
        // The three reciprocals in one division (each lane rounds as 1.0f / d would).
        const vfloat4 d = vfloat4::lanes(direction[0], direction[1], direction[2], 1.0f);
        const vfloat4 o = vfloat4::lanes(origin[0], origin[1], origin[2], 0.0f);
        const vfloat4 r = vfloat4(1.0f) / d;
        org[0] = kxSimd::lane<0>(o), org[1] = kxSimd::lane<1>(o), org[2] = kxSimd::lane<2>(o);
        dir[0] = kxSimd::lane<0>(d), dir[1] = kxSimd::lane<1>(d), dir[2] = kxSimd::lane<2>(d);
        inv[0] = kxSimd::lane<0>(r), inv[1] = kxSimd::lane<1>(r), inv[2] = kxSimd::lane<2>(r);
    }
};

/// The interval [nearT, farT] of the ray inside each of the node's four boxes, clipped to
/// [lower, upper]. The origin and reciprocals come as values so that a traversal keeps
/// them in registers.
struct Slabs
{
    vfloat4 nearT, farT;
};

inline Slabs slabs(const kxQBVH::tQBVHNode& node, vfloat4 ox, vfloat4 oy, vfloat4 oz, vfloat4 ix, vfloat4 iy,
                   vfloat4 iz, vfloat4 lower, vfloat4 upper) __attribute__((always_inline));
inline Slabs slabs(const kxQBVH::tQBVHNode& node, vfloat4 ox, vfloat4 oy, vfloat4 oz, vfloat4 ix, vfloat4 iy,
                   vfloat4 iz, vfloat4 lower, vfloat4 upper)
{
    const vfloat4 x1 = (vfloat4::load(node.bboxMin[0]) - ox) * ix;
    const vfloat4 x2 = (vfloat4::load(node.bboxMax[0]) - ox) * ix;
    const vfloat4 y1 = (vfloat4::load(node.bboxMin[1]) - oy) * iy;
    const vfloat4 y2 = (vfloat4::load(node.bboxMax[1]) - oy) * iy;
    const vfloat4 z1 = (vfloat4::load(node.bboxMin[2]) - oz) * iz;
    const vfloat4 z2 = (vfloat4::load(node.bboxMax[2]) - oz) * iz;
    // The nesting decides where a NaN from 0 * infinity lands (the SSE min/max rule).
    return {max(min(z1, z2), max(min(y1, y2), max(min(x1, x2), lower))),
            min(max(z1, z2), min(max(y1, y2), min(max(x1, x2), upper)))};
}

/// Slots whose interval is not empty and starts before +infinity: the slots a traversal
/// enters.
inline int enteredSlots(const Slabs& s)
{
    return ((s.nearT <= s.farT) & (s.nearT < vfloat4(__builtin_inff()))).bits();
}

/// One group of four triangles against the ray: the plane distance th, the barycentric
/// coordinates u, v, w of the plane point and the denominator the side policy looks at.
struct TriangleTest
{
    vfloat4 denom, th, u, v, w;
};

inline TriangleTest testTriangles(const kxQBVH::tSOATriangleEquations& equations, const RayRecord& r)
    __attribute__((always_inline));
inline TriangleTest testTriangles(const kxQBVH::tSOATriangleEquations& equations, const RayRecord& r)
{
    const float(*E)[4] = equations.eq;
    const vfloat4 nx = vfloat4::load(E[0]), ny = vfloat4::load(E[1]), nz = vfloat4::load(E[2]);
    TriangleTest t;
    t.denom = nz * r.dir[2] + ny * r.dir[1] + nx * r.dir[0];
    const vfloat4 num = (nz * r.org[2] + vfloat4::load(E[3])) + ny * r.org[1] + nx * r.org[0];
    t.th = -(num / t.denom);
    const vfloat4 px = r.dir[0] * t.th + r.org[0];
    const vfloat4 py = r.dir[1] * t.th + r.org[1];
    const vfloat4 pz = r.dir[2] * t.th + r.org[2];
    t.u = vfloat4::load(E[4]) * px + vfloat4::load(E[5]) * py + vfloat4::load(E[6]) * pz + vfloat4::load(E[7]);
    t.v = vfloat4::load(E[8]) * px + vfloat4::load(E[9]) * py + vfloat4::load(E[10]) * pz + vfloat4::load(E[11]);
    t.w = vfloat4(1.0f) - (t.u + t.v);
    return t;
}

/// The barycentric tolerance: a point up to 0.0001 outside an edge still hits.
inline vmask4 insideTriangle(const TriangleTest& t)
{
    const vfloat4 tolerance(-0.0001f);
    return (tolerance < t.w) & (tolerance < t.v) & (tolerance < t.u);
}

/// The side policy P on the denominator (eAllSides: any that is not NaN).
template <int P>
inline vmask4 sideAccepted(vfloat4 denom)
{
    if (P == kxQBVH::eFrontSide)
        return denom <= vfloat4(0.0f);
    if (P == kxQBVH::eBackSide)
        return denom >= vfloat4(0.0f);
    return kxSimd::ordered(denom);
}
} // namespace kxQBVHRay

#endif
