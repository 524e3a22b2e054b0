// Pieces shared by the two collapses of a binary hierarchy into a kxQBVH: the one that
// buildFromBVH runs and the plain one it is compared with (kxQBVHReference::collapse).
#ifndef KXQBVHCOLLAPSE_H
#define KXQBVHCOLLAPSE_H

#include "kxQBVH.h"
#include "kxSimd4.h"

#include <cstdint>
#include <limits>

namespace kxQBVHCollapse
{
constexpr uint32_t kNone = 0xFFFFFFFFu;

inline bool isLeaf(const kxGNode& node)
{
    return (node.offset & kxGNode::eKindMask) == kxGNode::eLeafMark;
}

inline uint32_t leftChild(const kxGNode& node)
{
    return node.offset & kxGNode::eIndexMask;
}

inline uint32_t rightChild(const kxGNode& node)
{
    return node.count & kxGNode::eRightChildMask;
}

// (count + 3) >> 2 in 32 bits: counts of 0xFFFFFFFD and more wrap to no groups, which the
// leaf fill then skips as well.
inline uint32_t groupsFor(uint32_t primitiveCount)
{
    return (primitiveCount + 3u) >> 2;
}

// Whether the leaf fill writes anything for a leaf of this many primitives.
inline bool fillsGroups(uint32_t primitiveCount)
{
    return primitiveCount != 0 && primitiveCount < 0xFFFFFFFDu;
}

// The equations of a group's four triangles at once, from their corners ([corner][axis]),
// each row handed to put(row, value). Each lane is computed with the operations, in the
// order, that fix its rounding; lanes from realLanes on get the padding that no ray can hit
// (its u-plane gives u = -1 everywhere). Where two NaNs meet, the one kept depends on the
// order in which the compiler takes the operands, so the sign of a NaN may differ between
// the places this is inlined.
template <typename Put>
inline void computeEquations(const kxSimd::vfloat4 (&corner)[3][3], uint32_t realLanes, Put put)
{
    using namespace kxSimd;
    const vfloat4 c0x = corner[0][0], c0y = corner[0][1], c0z = corner[0][2];
    const vfloat4 e1x = corner[1][0] - c0x, e1y = corner[1][1] - c0y, e1z = corner[1][2] - c0z;
    const vfloat4 e2x = corner[2][0] - c0x, e2y = corner[2][1] - c0y, e2z = corner[2][2] - c0z;
    const vfloat4 mx = e1y * e2z - e1z * e2y;
    const vfloat4 my = e1z * e2x - e1x * e2z;
    const vfloat4 mz = e1x * e2y - e1y * e2x;
    const vfloat4 len = sqrt(mx * mx + my * my + mz * mz);

    // A degenerate triangle (or a NaN) keeps its unnormalised normal and d = 1.
    const vfloat4 one(1.0f);
    const vmask4 normalised = len > vfloat4(0.0f);
    const vfloat4 inv = one / len;
    const vfloat4 nx = select(normalised, mx * inv, mx), ny = select(normalised, my * inv, my),
                  nz = select(normalised, mz * inv, mz);
    const vfloat4 d = select(normalised, -(c0x * nx + c0y * ny + c0z * nz), one);

    const vfloat4 a = one / (e1x * e1x + e1y * e1y + e1z * e1z);
    const vfloat4 b = one / (e2x * e2x + e2y * e2y + e2z * e2z);
    const vfloat4 c = e1x * e2x + e1y * e2y + e1z * e2z;
    const vfloat4 s = one / (one - a * c * (c * b));

    const vfloat4 u1 = a * s, u2 = -(c * b) * a * s;
    const vfloat4 ux = u1 * e1x + u2 * e2x, uy = u1 * e1y + u2 * e2y, uz = u1 * e1z + u2 * e2z;
    const vfloat4 v1 = -(a * c) * b * s, v2 = b * s;
    const vfloat4 vx = v1 * e1x + v2 * e2x, vy = v1 * e1y + v2 * e2y, vz = v1 * e1z + v2 * e2z;

    const vfloat4 uc = -(ux * c0x + uy * c0y + uz * c0z), vc = -(vx * c0x + vy * c0y + vz * c0z);

    if (realLanes == 4)
    {
        put(0, nx), put(1, ny), put(2, nz), put(3, d);
        put(4, ux), put(5, uy), put(6, uz), put(7, uc);
        put(8, vx), put(9, vy), put(10, vz), put(11, vc);
        return;
    }
    const vmask4 real = laneBelow(realLanes);
    const vfloat4 zero(0.0f), minusOne(-1.0f);
    put(0, select(real, nx, zero));
    put(1, select(real, ny, zero));
    put(2, select(real, nz, zero));
    put(3, select(real, d, vfloat4(std::numeric_limits<float>::infinity())));
    put(4, select(real, ux, zero));
    put(5, select(real, uy, zero));
    put(6, select(real, uz, zero));
    put(7, select(real, uc, minusOne));
    put(8, select(real, vx, zero));
    put(9, select(real, vy, zero));
    put(10, select(real, vz, zero));
    put(11, select(real, vc, minusOne));
}

// The same from corners stored [corner][axis][lane], as the vertex block holds them.
inline void writeEquations(const float (&corner)[3][3][4], uint32_t realLanes, kxQBVH::tSOATriangleEquations& block)
{
    kxSimd::vfloat4 rows[3][3];
    for (int c = 0; c < 3; ++c)
        for (int a = 0; a < 3; ++a)
            rows[c][a] = kxSimd::vfloat4::load(corner[c][a]);
    computeEquations(rows, realLanes, [&block](int row, kxSimd::vfloat4 value) { value.store(block.eq[row]); });
}
} // namespace kxQBVHCollapse

#endif
