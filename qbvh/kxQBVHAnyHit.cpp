#include "kxQBVH.h"
#include "kxQBVHRayBatch.h"
#include "kxQBVHRayKernels.h"

#include <algorithm>
#include <limits>

using namespace kxSimd;
using namespace kxQBVHRay;

namespace
{
constexpr uint32_t kNone = kNoChild;

// Whether the groups g0 .. g0 + count - 1 (those that exist) hold a triangle the ray
// accepts in [tMin, tMax). Inlined into the walks, which would otherwise save and reload
// their registers around every leaf.
template <int P>
inline bool anyAccepted(const kxQBVH::tSOATriangleEquations* equations, uint32_t groupCount, const RayRecord& ray,
                        vfloat4 tMin, vfloat4 tMax, uint32_t g0, uint32_t count) __attribute__((always_inline));
template <int P>
inline bool anyAccepted(const kxQBVH::tSOATriangleEquations* equations, uint32_t groupCount, const RayRecord& ray,
                        vfloat4 tMin, vfloat4 tMax, uint32_t g0, uint32_t count)
{
    const uint32_t end = g0 + count;
    for (uint32_t g = g0; g < end && g < groupCount; ++g)
    {
        const TriangleTest hit4 = testTriangles(equations[g], ray);
        const vmask4 accept =
                sideAccepted<P>(hit4.denom) & (tMin <= hit4.th) & (hit4.th < tMax) & insideTriangle(hit4);
        if (accept.any())
            return true;
    }
    return false;
}

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

    inline bool leafTest(uint32_t g0, uint32_t count) const __attribute__((always_inline))
    {
        return anyAccepted<P>(mEquations, mGroupCount, mRay, mTMin, mTMax, g0, count);
    }

    bool run(uint32_t ref, uint32_t count) const;

private:
    const kxQBVH::tQBVHNode* mNodes;
    const kxQBVH::tSOATriangleEquations* mEquations;
    uint32_t mGroupCount;
    const RayRecord& mRay;
    vfloat4 mTMin, mTMax;
};

template <int P>
bool Occlusion<P>::run(uint32_t ref, uint32_t count) const
{
    StackEntry stack[kStackSize];
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
                        prefetchEntry(mNodes, mEquations, node.child[k], node.count[k]);
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

// intersectRayAny over a batch, the walks interleaved. Each walk visits what the walk on its
// own visits, in the same order.
template <int P>
class OcclusionBatch
{
public:
    struct Walk
    {
        RayRecord ray;
        vfloat4 tMin, tMax;
        uint32_t ref, count;
        int top;
        unsigned int query;
        bool occluded;
        StackEntry stack[kStackSize];
    };

    OcclusionBatch(const kxQBVH& qbvh, const Wm4::Vector3<float>* origins, const Wm4::Vector3<float>* directions,
                   const float* tMin, const float* tMax, bool* occluded)
        : mQBVH(qbvh), mNodes(qbvh.getNodes()), mEquations(qbvh.getTriangleEquations()),
          mGroupCount(qbvh.getGroupCount()), mOrigins(origins), mDirections(directions), mTMin(tMin), mTMax(tMax),
          mOccluded(occluded)
    {
    }

    void start(Walk& w, unsigned int query) const
    {
        w.ray = RayRecord(mOrigins[query], mDirections[query]);
        w.tMin = vfloat4(mTMin[query]);
        w.tMax = vfloat4(mTMax[query]);
        w.ref = 0;
        w.count = kNone;
        w.top = 0;
        w.query = query;
        w.occluded = false;
    }

    bool step(Walk& w) const;
    void finish(const Walk& w) const { mOccluded[w.query] = w.occluded; }

private:
    void prefetch(uint32_t ref, uint32_t count) const { prefetchEntry(mNodes, mEquations, ref, count); }

    const kxQBVH& mQBVH;
    const kxQBVH::tQBVHNode* mNodes;
    const kxQBVH::tSOATriangleEquations* mEquations;
    uint32_t mGroupCount;
    const Wm4::Vector3<float>* mOrigins;
    const Wm4::Vector3<float>* mDirections;
    const float* mTMin;
    const float* mTMax;
    bool* mOccluded;
};

template <int P>
bool OcclusionBatch<P>::step(Walk& w) const
{
    if (w.count == kNone)
    {
        const kxQBVH::tQBVHNode& node = mNodes[w.ref];
        const RayRecord& r = w.ray;
        const Slabs s = slabs(node, r.org[0], r.org[1], r.org[2], r.inv[0], r.inv[1], r.inv[2], w.tMin, w.tMax);
        int visit = enteredSlots(s);
        if (visit != 0)
        {
            if (w.top > kStackSize - 3)
            {
                // Nearly as deep as the stack holds: the walk on its own, which recurses there.
                w.occluded = Occlusion<P>(mQBVH, w.ray, mTMin[w.query], mTMax[w.query]).run(0, kNone);
                return false;
            }
            const int first = __builtin_ctz(static_cast<unsigned>(visit));
            for (visit &= visit - 1; visit != 0; visit &= visit - 1)
            {
                const int k = __builtin_ctz(static_cast<unsigned>(visit));
                w.stack[w.top++] = {node.child[k], node.count[k]};
            }
            w.ref = node.child[first];
            w.count = node.count[first];
            prefetch(w.ref, w.count);
            return true;
        }
    }
    else if (anyAccepted<P>(mEquations, mGroupCount, w.ray, w.tMin, w.tMax, w.ref, w.count))
    {
        w.occluded = true;
        return false;
    }
    if (w.top == 0)
        return false;
    --w.top;
    w.ref = w.stack[w.top].ref;
    w.count = w.stack[w.top].count;
    prefetch(w.ref, w.count);
    return true;
}

// intersectRayAny over a batch, eight neighbouring rays at a time. A packet visits the slots
// that any of its rays enters, and each ray tests boxes and triangles with its own
// arithmetic only where its own walk would, so it reaches the same triangles and gives the
// same answer; coherent rays share the loads and the bookkeeping.
template <int P>
void occludedPackets(const kxQBVH& qbvh, unsigned int count, const Wm4::Vector3<float>* origins,
                     const Wm4::Vector3<float>* directions, const float* tMin, const float* tMax, bool* answers)
{
    constexpr unsigned int kWidth = 8;
    struct Entry
    {
        uint32_t ref, count, rays;
    };
    const kxQBVH::tQBVHNode* nodes = qbvh.getNodes();
    const kxQBVH::tSOATriangleEquations* equations = qbvh.getTriangleEquations();
    const uint32_t groupCount = qbvh.getGroupCount();
    RayRecord ray[kWidth];
    vfloat4 lower[kWidth], upper[kWidth];
    Entry stack[kStackSize];
    for (unsigned int base = 0; base < count; base += kWidth)
    {
        const unsigned int width = std::min(kWidth, count - base);
        for (unsigned int r = 0; r < width; ++r)
        {
            ray[r] = RayRecord(origins[base + r], directions[base + r]);
            lower[r] = vfloat4(tMin[base + r]);
            upper[r] = vfloat4(tMax[base + r]);
            answers[base + r] = false;
        }
        // Rays still without an answer; entries keep the rays that entered them.
        uint32_t open = (1u << width) - 1;
        int top = 0;
        uint32_t ref = 0, groups = kNone, rays = open;
        for (;;)
        {
            rays &= open;
            if (rays != 0 && groups == kNone)
            {
                const kxQBVH::tQBVHNode& node = nodes[ref];
                uint32_t slotRays[4] = {0, 0, 0, 0};
                for (uint32_t pending = rays; pending != 0; pending &= pending - 1)
                {
                    const int r = __builtin_ctz(pending);
                    const RayRecord& rr = ray[r];
                    const int visit = enteredSlots(slabs(node, rr.org[0], rr.org[1], rr.org[2], rr.inv[0], rr.inv[1],
                                                         rr.inv[2], lower[r], upper[r]));
                    for (int k = 0; k < 4; ++k)
                        slotRays[k] |= static_cast<uint32_t>((visit >> k) & 1) << r;
                }
                if (top > kStackSize - 3)
                {
                    // Nearly as deep as the stack holds: these rays walk on their own, which
                    // recurses there.
                    for (uint32_t pending = rays; pending != 0; pending &= pending - 1)
                    {
                        const unsigned int i = base + __builtin_ctz(pending);
                        answers[i] = occluded<P>(qbvh, origins[i], directions[i], tMin[i], tMax[i]);
                    }
                    open &= ~rays;
                }
                else
                {
                    int first = -1;
                    for (int k = 0; k < 4; ++k)
                    {
                        if (slotRays[k] == 0)
                            continue;
                        if (first < 0)
                        {
                            first = k;
                            continue;
                        }
                        stack[top++] = {node.child[k], node.count[k], slotRays[k]};
                        prefetchEntry(nodes, equations, node.child[k], node.count[k]);
                    }
                    if (first >= 0)
                    {
                        ref = node.child[first];
                        groups = node.count[first];
                        rays = slotRays[first];
                        continue;
                    }
                }
            }
            else if (rays != 0)
            {
                for (uint32_t pending = rays; pending != 0; pending &= pending - 1)
                {
                    const int r = __builtin_ctz(pending);
                    if (anyAccepted<P>(equations, groupCount, ray[r], lower[r], upper[r], ref, groups))
                    {
                        answers[base + r] = true;
                        open &= ~(1u << r);
                    }
                }
            }
            if (open == 0 || top == 0)
                break;
            --top;
            ref = stack[top].ref;
            groups = stack[top].count;
            rays = stack[top].rays;
        }
    }
}

template <int P>
void occludedBatch(const kxQBVH& qbvh, BatchWalk walk, unsigned int count, const Wm4::Vector3<float>* origins,
                   const Wm4::Vector3<float>* directions, const float* tMin, const float* tMax, bool* answers)
{
    if (qbvh.getNodeCount() == 0 || walk == BatchWalk::eOneByOne)
    {
        for (unsigned int i = 0; i < count; ++i)
            answers[i] = occluded<P>(qbvh, origins[i], directions[i], tMin[i], tMax[i]);
    }
    else if (walk == BatchWalk::ePackets)
        occludedPackets<P>(qbvh, count, origins, directions, tMin, tMax, answers);
    else
    {
        OcclusionBatch<P> batch(qbvh, origins, directions, tMin, tMax, answers);
        interleave(count, batch);
    }
}
} // namespace

bool kxQBVH::intersectRayAny(const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction, float tMin,
                             float tMax, tIntersectionPolicy policy) const
{
    if (!kxQBVHRay::hasEquations(*this))
    {
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

void kxQBVHRay::occludedBatch(const kxQBVH& qbvh, BatchWalk walk, unsigned int count,
                              const Wm4::Vector3<float>* origins, const Wm4::Vector3<float>* directions,
                              const float* tMin, const float* tMax, bool* occluded,
                              kxQBVH::tIntersectionPolicy policy)
{
    switch (policy)
    {
    case kxQBVH::eFrontSide:
        return ::occludedBatch<kxQBVH::eFrontSide>(qbvh, walk, count, origins, directions, tMin, tMax, occluded);
    case kxQBVH::eBackSide:
        return ::occludedBatch<kxQBVH::eBackSide>(qbvh, walk, count, origins, directions, tMin, tMax, occluded);
    default:
        return ::occludedBatch<kxQBVH::eAllSides>(qbvh, walk, count, origins, directions, tMin, tMax, occluded);
    }
}

void kxQBVH::intersectRaysAny(unsigned int count, const Wm4::Vector3<float>* origins,
                              const Wm4::Vector3<float>* directions, const float* tMin, const float* tMax,
                              bool* occluded, tIntersectionPolicy policy) const
{
    if (!kxQBVHRay::hasEquations(*this))
    {
        for (unsigned int i = 0; i < count; ++i)
            occluded[i] = false;
        return;
    }
    kxQBVHRay::occludedBatch(*this, kxQBVHRay::batchWalk(*this, true, count, origins, directions), count, origins,
                             directions, tMin, tMax, occluded, policy);
}
