#include "kxLogObject.h"
#include "kxQBVH.h"
#include "kxQBVHRayKernels.h"

#include <limits>

using namespace kxSimd;
using namespace kxQBVHRay;

namespace
{
constexpr uint32_t kNone = 0xFFFFFFFFu;

// The nearest-hit query with a fixed interval [tMin, tMax] reaches exactly the slots and
// accepts exactly the triangles tested here, since its interval only shrinks after a hit.
// A hit counts there only when it is strictly nearer than tMax (its final reduction is
// strict), and th < tMax also rules out th = +infinity, which its "nearer than the
// lane's best so far" test rejects.
template <int P>
class Occlusion
{
public:
    Occlusion(const kxQBVH& qbvh, const RayRecord& ray, float tMin, float tMax)
        : mNodes(qbvh.getNodes()), mEquations(qbvh.getTriangleEquations()), mGroupCount(qbvh.getGroupCount()),
          mRay(ray), mTMin(tMin), mTMax(tMax)
    {
    }

    // Inlined into the walk, which would otherwise save and reload its registers around
    // every leaf.
    inline bool leafTest(uint32_t g0, uint32_t count) const __attribute__((always_inline))
    {
        const uint32_t end = g0 + count;
        for (uint32_t g = g0; g < end && g < mGroupCount; ++g)
        {
            const TriangleTest hit4 = testTriangles(mEquations[g], mRay);
            const vmask4 accept = sideAccepted<P>(hit4.denom) & (mTMin <= hit4.th) & (hit4.th < mTMax) &
                                  insideTriangle(hit4);
            if (accept.any())
                return true;
        }
        return false;
    }

    bool run(uint32_t ref, uint32_t count) const;

private:
    static constexpr int kStackSize = 96;

    struct Entry
    {
        uint32_t ref;
        uint32_t count;
    };

    const kxQBVH::tQBVHNode* mNodes;
    const kxQBVH::tSOATriangleEquations* mEquations;
    uint32_t mGroupCount;
    const RayRecord& mRay;
    vfloat4 mTMin, mTMax;
};

template <int P>
bool Occlusion<P>::run(uint32_t ref, uint32_t count) const
{
    Entry stack[kStackSize];
    int top = 0;
    const RayRecord& r = mRay;
    const vfloat4 ox = r.org[0], oy = r.org[1], oz = r.org[2];
    const vfloat4 ix = r.inv[0], iy = r.inv[1], iz = r.inv[2];
    const vfloat4 lower = mTMin, upper = mTMax;
    for (;;)
    {
        if (count == kNone)
        {
            const kxQBVH::tQBVHNode& node = mNodes[ref];
            const Slabs s = slabs(node, ox, oy, oz, ix, iy, iz, lower, upper);
            int visit = enteredSlots(s);
            if (visit != 0)
            {
                // Slot order: any accepted triangle ends the walk, and ordering the slots by
                // their entry distance cost more than it saved on shadow and random rays.
                const int first = __builtin_ctz(static_cast<unsigned>(visit));
                for (visit &= visit - 1; visit != 0; visit &= visit - 1)
                {
                    const int k = __builtin_ctz(static_cast<unsigned>(visit));
                    if (top < kStackSize)
                    {
                        stack[top++] = {node.child[k], node.count[k]};
                        if (node.count[k] == kNone)
                            prefetchLines(mNodes + node.child[k], 2);
                        else
                            prefetchLines(mEquations + node.child[k], 3);
                    }
                    else if (run(node.child[k], node.count[k]))
                        return true;
                }
                ref = node.child[first];
                count = node.count[first];
                continue;
            }
        }
        else if (leafTest(ref, count))
            return true;
        if (top == 0)
            return false;
        --top;
        ref = stack[top].ref;
        count = stack[top].count;
    }
}

template <int P>
bool occluded(const kxQBVH& qbvh, const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction,
              float tMin, float tMax)
{
    const RayRecord ray(origin, direction);
    const Occlusion<P> occlusion(qbvh, ray, tMin, tMax);
    if (qbvh.getNodeCount() > 0)
        return occlusion.run(0, kNone);
    return occlusion.leafTest(0, qbvh.getGroupCount());
}
} // namespace

bool kxQBVH::intersectRayAny(const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction, float tMin,
                             float tMax, tIntersectionPolicy policy) const
{
    if (!(mDataFlags & eTrianglesEquations))
    {
        if (kx::kxLogObject::errorLevelEnabled())
            kx::kxLogObject(2)
                << "error: QBVH is not built with the right data type (should be kxQBVH::eTrianglesEquations)";
        return false;
    }
    switch (policy)
    {
    case eFrontSide:
        return occluded<eFrontSide>(*this, origin, direction, tMin, tMax);
    case eBackSide:
        return occluded<eBackSide>(*this, origin, direction, tMin, tMax);
    default:
        return occluded<eAllSides>(*this, origin, direction, tMin, tMax);
    }
}
