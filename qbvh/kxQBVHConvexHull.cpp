#include "kxLogObject.h"
#include "kxQBVH.h"
#include "kxQBVHClip.h"
#include "kxSimd4.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <limits>

using namespace kxSimd;

namespace
{
constexpr uint32_t kNone = 0xFFFFFFFFu;

class HullQuery
{
public:
    HullQuery(const kxQBVH& qbvh, const kxQBVH::tSOASinglePlaneEqn* planes, unsigned int planeCount,
              kxQBVHClip::WorkArea& area)
        : mNodes(qbvh.getNodes()), mVertices(qbvh.getTriangleVertices()), mGroupCount(qbvh.getGroupCount()),
          mPlanes(planes), mPlaneCount(planeCount), mArea(area)
    {
    }

    bool nodeTest(uint32_t index) const;
    bool leafTest(uint32_t g0, uint32_t count) const;

private:
    bool groupTest(const kxQBVH::tSOATriangleVertices& group) const;
    // A node spans two cache lines, a vertex block three.
    void prefetch(uint32_t ref, uint32_t count) const
    {
        if (count == kNone)
            prefetchLines(mNodes + ref, 2);
        else
            prefetchLines(mVertices + ref, 3);
    }

    const kxQBVH::tQBVHNode* mNodes;
    const kxQBVH::tSOATriangleVertices* mVertices;
    uint32_t mGroupCount;
    const kxQBVH::tSOASinglePlaneEqn* mPlanes;
    unsigned int mPlaneCount;
    kxQBVHClip::WorkArea& mArea;
};

bool HullQuery::nodeTest(uint32_t index) const
{
    if (mPlaneCount == 0)
        return true;
    const kxQBVH::tQBVHNode& node = mNodes[index];
    const vfloat4 minX = vfloat4::load(node.bboxMin[0]), maxX = vfloat4::load(node.bboxMax[0]);
    const vfloat4 minY = vfloat4::load(node.bboxMin[1]), maxY = vfloat4::load(node.bboxMax[1]);
    const vfloat4 minZ = vfloat4::load(node.bboxMin[2]), maxZ = vfloat4::load(node.bboxMax[2]);
    const vfloat4 zero(0.0f);
    vmask4 outside = zero < zero;
    vfloat4 lowest(std::numeric_limits<float>::infinity());
    for (unsigned int p = 0; p < mPlaneCount; ++p)
    {
        const kxQBVH::tSOASinglePlaneEqn& plane = mPlanes[p];
        const vfloat4 a = vfloat4::load(plane.a), b = vfloat4::load(plane.b);
        const vfloat4 c = vfloat4::load(plane.c), d = vfloat4::load(plane.d);
        const vfloat4 x0 = minX * a, x1 = maxX * a;
        const vfloat4 y0 = minY * b, y1 = maxY * b;
        const vfloat4 z0 = minZ * c, z1 = maxZ * c;
        const vfloat4 hi = max(y0, y1) + max(x0, x1) + (max(z0, z1) + d);
        const vfloat4 lo = min(y0, y1) + min(x0, x1) + (d + min(z0, z1));
        outside = outside | (hi < zero);
        // The running minimum comes first so that a NaN lo (an empty slot) is kept and
        // can never pass for a box inside the region.
        lowest = min(lowest, lo);
    }
    // A box wholly inside every plane answers at once, whatever the slot holds.
    if ((lowest > zero).any())
        return true;
    const int skip = outside.bits();
    // Later slots are fetched while the earlier ones are searched.
    for (int k = 0; k < 4; ++k)
        if (!(skip & (1 << k)))
            prefetch(node.child[k], node.count[k]);
    for (int k = 0; k < 4; ++k)
    {
        if (skip & (1 << k))
            continue;
        const bool inside =
            node.count[k] == kNone ? nodeTest(node.child[k]) : leafTest(node.child[k], node.count[k]);
        if (inside)
            return true;
    }
    return false;
}

bool HullQuery::leafTest(uint32_t g0, uint32_t count) const
{
    const uint32_t end = g0 + count;
    for (uint32_t g = g0; g < end; ++g)
    {
        if (g >= mGroupCount)
            return false;
        if (groupTest(mVertices[g]))
            return true;
    }
    return false;
}

bool HullQuery::groupTest(const kxQBVH::tSOATriangleVertices& group) const
{
    kxQBVHClip::WorkArea& w = mArea;
    float(*cur[3])[4] = {w.x, w.y, w.z};
    float(*out[3])[4] = {w.clipX, w.clipY, w.clipZ};
    for (int c = 0; c < 3; ++c)
        for (int a = 0; a < 3; ++a)
            vfloat4::load(group.corner[c][a]).store(cur[a][c]);
    uint32_t counts[4] = {3, 3, 3, 3};
    if (mPlaneCount == 0)
        return true;
    uint32_t limit = 3;
    for (unsigned int p = 0; p < mPlaneCount && limit > 1; ++p)
    {
        const kxQBVH::tSOASinglePlaneEqn& plane = mPlanes[p];
        const vfloat4 a = vfloat4::load(plane.a), b = vfloat4::load(plane.b);
        const vfloat4 c = vfloat4::load(plane.c), d = vfloat4::load(plane.d);
        for (uint32_t i = 0; i < limit; ++i)
            (c * vfloat4::load(cur[2][i]) + d + b * vfloat4::load(cur[1][i]) + a * vfloat4::load(cur[0][i]))
                .store(w.distance[i]);
        limit = kxQBVHClip::clipLanes(w.distance, cur, out, counts, w.capacity);
        for (int a = 0; a < 3; ++a)
            std::swap(cur[a], out[a]);
    }
    return limit > 2;
}
} // namespace

bool kxQBVH::intersectConvexHull(const tSOASinglePlaneEqn* set, unsigned int count) const
{
    if (!(mDataFlags & eTrianglesVertices))
    {
        if (kx::kxLogObject::errorLevelEnabled())
            kx::kxLogObject(2)
                << "error: QBVH is not built with the right data type (should be kxQBVH::eTrianglesVertices)";
        return false;
    }
    kxQBVHClip::WorkArea area(count);
    const HullQuery query(*this, set, count, area);
    if (mNodeCount > 0)
        return query.nodeTest(0);
    if (mGroupCount > 0)
        return query.leafTest(0, mGroupCount);
    return false;
}
