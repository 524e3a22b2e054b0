#include "kxQBVH.h"
#include "kxQBVHRayBatch.h"
#include "kxQBVHRayKernels.h"

#include <algorithm>
#include <cmath>
#include <limits>

using namespace kxSimd;
using namespace kxQBVHRay;

namespace
{
constexpr uint32_t kNone = kNoChild;
constexpr float kInf = std::numeric_limits<float>::infinity();

struct Hit
{
    float t;
    float w;
    float u;
    uint32_t triangle;
};

// The interval and acceptance rules that tell a ray with side policy P (in [tMin, t])
// from the symmetric line query (in [-|t|, |t|], front faces, distance |th|).
template <int P>
struct DirectedRule
{
    vfloat4 tMin;

    vfloat4 lower(float) const { return tMin; }
    static vfloat4 upper(float t) { return vfloat4(t); }
    static vfloat4 distance(vfloat4 th) { return th; }
    vmask4 accepts(vfloat4 denom, vfloat4 th, vfloat4 tEntry) const
    {
        return sideAccepted<P>(denom) & (tMin <= th) & (th <= tEntry);
    }
};

struct SymmetricRule
{
    static vfloat4 lower(float t) { return -abs(vfloat4(t)); }
    static vfloat4 upper(float t) { return abs(vfloat4(t)); }
    static vfloat4 distance(vfloat4 th) { return abs(th); }
    static vmask4 accepts(vfloat4 denom, vfloat4 th, vfloat4 tEntry)
    {
        return (denom <= vfloat4(0.0f)) & (abs(th) <= abs(tEntry));
    }
};

// Visited slots of a node by their lane mask.
constexpr int kSlotCount[16] = {0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4};

// The order in which the walk takes the entered slots `visit` (two or more) of a node:
// nearest key first, into slot[0 ..].
inline void orderSlots(int visit, vfloat4 nearT, vfloat4 farT, int slot[4]) __attribute__((always_inline));
inline void orderSlots(int visit, vfloat4 nearT, vfloat4 farT, int slot[4])
{
    // A keyed slot (near <= far) is visited when its key is below +infinity, that is when
    // near is: the key is near when near > 0, else 0 or far. Keys themselves are formed
    // only to order several slots.
    const vfloat4 zero(0.0f), inf(kInf);
    const vmask4 keyed = nearT <= farT;
    const int lowest = __builtin_ctz(static_cast<unsigned>(visit));
    const int remaining = visit & (visit - 1);
    // Near when the box lies ahead, 0 when the origin is inside, far (negative)
    // when the whole box lies behind the origin.
    const vfloat4 bits = orBits(max(nearT, zero), min(farT, zero));
    alignas(16) float keys[4];
    if ((remaining & (remaining - 1)) == 0)
    {
        // Two slots: the network keeps their slot order on equal keys.
        bits.store(keys);
        const int other = __builtin_ctz(static_cast<unsigned>(remaining));
        const bool swap = keys[lowest] > keys[other];
        slot[0] = swap ? other : lowest;
        slot[1] = swap ? lowest : other;
    }
    else
    {
        select(keyed, bits, inf).store(keys);
        slot[0] = 0, slot[1] = 1, slot[2] = 2, slot[3] = 3;
        const auto exchange = [&](int i, int j) {
            const bool swap = keys[i] > keys[j];
            const float ki = keys[i], kj = keys[j];
            const int si = slot[i], sj = slot[j];
            keys[i] = swap ? kj : ki;
            keys[j] = swap ? ki : kj;
            slot[i] = swap ? sj : si;
            slot[j] = swap ? si : sj;
        };
        exchange(0, 1);
        exchange(2, 3);
        exchange(0, 2);
        exchange(1, 3);
        exchange(1, 2);
    }
}

template <class Rule>
class Traversal
{
public:
    Traversal(const kxQBVH& qbvh, const RayRecord& ray, const Rule& rule)
        : mNodes(qbvh.getNodes()), mEquations(qbvh.getTriangleEquations()), mIndices(qbvh.getTriangleIndices()),
          mGroupCount(qbvh.getGroupCount()), mRay(ray), mRule(rule)
    {
    }

    // Inlined into the walk, which would otherwise save and reload its registers around
    // every leaf.
    inline void leafTest(uint32_t g0, uint32_t count, Hit& hit) const __attribute__((always_inline));
    void run(uint32_t ref, uint32_t count, Hit& hit) const;

    void prefetch(uint32_t ref, uint32_t count) const;

private:

    const kxQBVH::tQBVHNode* mNodes;
    const kxQBVH::tSOATriangleEquations* mEquations;
    const kxQBVH::tSOATriangleIndices* mIndices;
    uint32_t mGroupCount;
    const RayRecord& mRay;
    Rule mRule;
};

template <class Rule>
void Traversal<Rule>::leafTest(uint32_t g0, uint32_t count, Hit& hit) const
{
    const uint32_t end = g0 + count;
    if (g0 >= end)
        return;
    const vfloat4 tEntry(hit.t);
    const RayRecord& r = mRay;
    vfloat4 best(kInf), bestW(0.0f), bestU(0.0f);
    vuint4 bestIndex(kNone);
    int accepted = 0;
    for (uint32_t g = g0; g < end && g < mGroupCount; ++g)
    {
        const TriangleTest hit4 = testTriangles(mEquations[g], r);
        const vfloat4 distance = Rule::distance(hit4.th);
        const vmask4 accept = mRule.accepts(hit4.denom, hit4.th, tEntry) & (distance < best) & insideTriangle(hit4);
        const int lanes = accept.bits();
        if (lanes == 0)
            continue;
        accepted |= lanes;
        best = select(accept, distance, best);
        bestW = select(accept, hit4.w, bestW);
        bestU = select(accept, hit4.u, bestU);
        bestIndex = select(accept, vuint4::load(mIndices[g].index), bestIndex);
    }
    if (accepted == 0)
        return;
    alignas(16) float d[4], ws[4], us[4];
    alignas(16) uint32_t index[4];
    best.store(d);
    bestW.store(ws);
    bestU.store(us);
    bestIndex.store(index);
    // Lane order with a strict test: ties go to the lower lane. A lane that never accepted
    // keeps +infinity, which no t exceeds.
    for (; accepted != 0; accepted &= accepted - 1)
    {
        const int k = __builtin_ctz(static_cast<unsigned>(accepted));
        if (hit.t > d[k])
        {
            hit.t = d[k];
            hit.w = ws[k];
            hit.u = us[k];
            hit.triangle = index[k];
        }
    }
}

// Child data is fetched while the nearer siblings are processed.
template <class Rule>
void Traversal<Rule>::prefetch(uint32_t ref, uint32_t count) const
{
    prefetchEntry(mNodes, mEquations, ref, count);
}

template <class Rule>
void Traversal<Rule>::run(uint32_t ref, uint32_t count, Hit& hit) const
{
    StackEntry stack[kStackSize];
    int top = 0;
    const RayRecord& r = mRay;
    const vfloat4 ox = r.org[0], oy = r.org[1], oz = r.org[2];
    const vfloat4 ix = r.inv[0], iy = r.inv[1], iz = r.inv[2];
    // The interval follows t, which only leaf tests change.
    vfloat4 lower = mRule.lower(hit.t), upper = Rule::upper(hit.t);
    for (;;)
    {
        if (count == kNone)
        {
            const kxQBVH::tQBVHNode& node = mNodes[ref];
            const Slabs s = slabs(node, ox, oy, oz, ix, iy, iz, lower, upper);
            const vfloat4 nearT = s.nearT, farT = s.farT;
            const int visit = enteredSlots(s);
            if (visit != 0)
            {
                const int lowest = __builtin_ctz(static_cast<unsigned>(visit));
                const int remaining = visit & (visit - 1);
                if (remaining == 0)
                {
                    ref = node.child[lowest];
                    count = node.count[lowest];
                    continue;
                }
                int slot[4];
                orderSlots(visit, nearT, farT, slot);
                const int n = kSlotCount[visit];
                if (top + n - 1 <= kStackSize)
                {
                    for (int i = n - 1; i > 0; --i)
                    {
                        const uint32_t childRef = node.child[slot[i]], childCount = node.count[slot[i]];
                        prefetch(childRef, childCount);
                        stack[top++] = {childRef, childCount};
                    }
                    ref = node.child[slot[0]];
                    count = node.count[slot[0]];
                    continue;
                }
                for (int i = 0; i < n; ++i)
                    run(node.child[slot[i]], node.count[slot[i]], hit);
                lower = mRule.lower(hit.t);
                upper = Rule::upper(hit.t);
            }
        }
        else
        {
            leafTest(ref, count, hit);
            lower = mRule.lower(hit.t);
            upper = Rule::upper(hit.t);
        }
        if (top == 0)
            return;
        --top;
        ref = stack[top].ref;
        count = stack[top].count;
    }
}

template <class Rule>
bool query(const kxQBVH& qbvh, const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction,
           const Rule& rule, float& t, Wm4::Vector2<float>& barycentric, unsigned int& triangle)
{
    triangle = kNone;
    const RayRecord ray(origin, direction);
    const Traversal<Rule> traversal(qbvh, ray, rule);
    Hit hit = {t, 0.0f, 0.0f, kNone};
    if (qbvh.getNodeCount() > 0)
        traversal.run(0, kNone, hit);
    else if (qbvh.getGroupCount() > 0)
        traversal.leafTest(0, qbvh.getGroupCount(), hit);
    else
        return false;
    if (hit.triangle == kNone)
        return false;
    t = hit.t;
    barycentric = Wm4::Vector2<float>(hit.w, hit.u);
    triangle = hit.triangle;
    return true;
}

// intersectRay over a batch, the walks interleaved. A walk makes the visits of
// Traversal::run in the same order with the same arithmetic; where run would recurse (a
// stack overflow), the ray is answered by a walk of its own from the start instead.
template <int P>
class NearestBatch
{
public:
    struct Walk
    {
        RayRecord ray;
        Hit hit;
        vfloat4 lower, upper;
        uint32_t ref, count;
        int top;
        unsigned int query;
        StackEntry stack[kStackSize];
    };

    NearestBatch(const kxQBVH& qbvh, const Wm4::Vector3<float>* origins, const Wm4::Vector3<float>* directions,
                 const float* tMin, float* t, Wm4::Vector2<float>* barycentric, unsigned int* triangle, bool* hit)
        : mQBVH(qbvh), mNodes(qbvh.getNodes()), mOrigins(origins), mDirections(directions), mTMin(tMin), mT(t),
          mBarycentric(barycentric), mTriangle(triangle), mHit(hit)
    {
    }

    void start(Walk& w, unsigned int query) const
    {
        w.ray = RayRecord(mOrigins[query], mDirections[query]);
        w.hit = {mT[query], 0.0f, 0.0f, kNone};
        w.lower = vfloat4(mTMin[query]);
        w.upper = vfloat4(w.hit.t);
        w.ref = 0;
        w.count = kNone;
        w.top = 0;
        w.query = query;
    }

    bool step(Walk& w) const;

    void finish(const Walk& w) const
    {
        const unsigned int i = w.query;
        mTriangle[i] = w.hit.triangle;
        mHit[i] = w.hit.triangle != kNone;
        if (mHit[i])
        {
            mT[i] = w.hit.t;
            mBarycentric[i] = Wm4::Vector2<float>(w.hit.w, w.hit.u);
        }
    }

private:
    const kxQBVH& mQBVH;
    const kxQBVH::tQBVHNode* mNodes;
    const Wm4::Vector3<float>* mOrigins;
    const Wm4::Vector3<float>* mDirections;
    const float* mTMin;
    float* mT;
    Wm4::Vector2<float>* mBarycentric;
    unsigned int* mTriangle;
    bool* mHit;
};

template <int P>
bool NearestBatch<P>::step(Walk& w) const
{
    const DirectedRule<P> rule{w.lower};
    const Traversal<DirectedRule<P>> traversal(mQBVH, w.ray, rule);
    if (w.count == kNone)
    {
        const kxQBVH::tQBVHNode& node = mNodes[w.ref];
        const RayRecord& r = w.ray;
        const Slabs s = slabs(node, r.org[0], r.org[1], r.org[2], r.inv[0], r.inv[1], r.inv[2], w.lower, w.upper);
        const int visit = enteredSlots(s);
        if (visit != 0)
        {
            if ((visit & (visit - 1)) == 0)
            {
                const int only = __builtin_ctz(static_cast<unsigned>(visit));
                w.ref = node.child[only];
                w.count = node.count[only];
                traversal.prefetch(w.ref, w.count);
                return true;
            }
            int slot[4];
            orderSlots(visit, s.nearT, s.farT, slot);
            const int n = kSlotCount[visit];
            if (w.top + n - 1 > kStackSize)
            {
                Hit hit = {mT[w.query], 0.0f, 0.0f, kNone};
                Traversal<DirectedRule<P>>(mQBVH, w.ray, DirectedRule<P>{vfloat4(mTMin[w.query])}).run(0, kNone, hit);
                w.hit = hit;
                return false;
            }
            for (int i = n - 1; i > 0; --i)
            {
                w.stack[w.top++] = {node.child[slot[i]], node.count[slot[i]]};
            }
            w.ref = node.child[slot[0]];
            w.count = node.count[slot[0]];
            traversal.prefetch(w.ref, w.count);
            return true;
        }
    }
    else
    {
        traversal.leafTest(w.ref, w.count, w.hit);
        w.upper = DirectedRule<P>::upper(w.hit.t);
    }
    if (w.top == 0)
        return false;
    --w.top;
    w.ref = w.stack[w.top].ref;
    w.count = w.stack[w.top].count;
    traversal.prefetch(w.ref, w.count);
    return true;
}

template <int P>
void nearestBatch(const kxQBVH& qbvh, BatchWalk walk, unsigned int count, const Wm4::Vector3<float>* origins,
                  const Wm4::Vector3<float>* directions, const float* tMin, float* t,
                  Wm4::Vector2<float>* barycentric, unsigned int* triangle, bool* hit)
{
    // The nearest hit may depend on the order of visits (ties, and boxes whose rounding
    // differs from a triangle's), which packets would change: no packets here.
    if (qbvh.getNodeCount() == 0 || walk != BatchWalk::eInterleaved)
    {
        for (unsigned int i = 0; i < count; ++i)
            hit[i] = query(qbvh, origins[i], directions[i], DirectedRule<P>{vfloat4(tMin[i])}, t[i], barycentric[i],
                           triangle[i]);
        return;
    }
    NearestBatch<P> batch(qbvh, origins, directions, tMin, t, barycentric, triangle, hit);
    interleave(count, batch);
}
} // namespace

bool kxQBVH::intersectRay(const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction, float tMin,
                          float& t, Wm4::Vector2<float>& barycentric, unsigned int& triangle,
                          tIntersectionPolicy policy) const
{
    if (!kxQBVHRay::hasEquations(*this))
    {
        return false;
    }
    const vfloat4 lower(tMin);
    switch (policy)
    {
    case eFrontSide:
        return query(*this, origin, direction, DirectedRule<eFrontSide>{lower}, t, barycentric, triangle);
    case eBackSide:
        return query(*this, origin, direction, DirectedRule<eBackSide>{lower}, t, barycentric, triangle);
    default:
        return query(*this, origin, direction, DirectedRule<eAllSides>{lower}, t, barycentric, triangle);
    }
}

bool kxQBVH::intersectRaySymmetric(const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction,
                                   float& t, Wm4::Vector2<float>& barycentric, unsigned int& triangle) const
{
    if (!(mDataFlags & eTrianglesEquations))
        return false;
    return query(*this, origin, direction, SymmetricRule{}, t, barycentric, triangle);
}

kxQBVHRay::RayOrder kxQBVHRay::rayOrder(const kxQBVH& qbvh, unsigned int count, const Wm4::Vector3<float>* origins,
                                        const Wm4::Vector3<float>* directions)
{
    if (count < 2)
        return RayOrder::eCoherent;
    const kxBBox& box = qbvh.getBBox();
    const Wm4::Vector3<float> extent(box.max[0] - box.min[0], box.max[1] - box.min[1], box.max[2] - box.min[2]);
    // Within a hundredth of the diagonal, or within about 25 degrees.
    const float close = 1e-4f * extent.SquaredLength();
    const Wm4::Vector3<float> quarter = 0.25f * extent;
    const auto octant = [](const Wm4::Vector3<float>& d) {
        return int(d[0] < 0.0f) | (int(d[1] < 0.0f) << 1) | (int(d[2] < 0.0f) << 2);
    };
    const unsigned int samples = std::min(count - 1, 32u), step = (count - 1) / samples;
    unsigned int together = 0, nearby = 0;
    for (unsigned int s = 0; s < samples; ++s)
    {
        const unsigned int i = s * step;
        const Wm4::Vector3<float>&da = directions[i], &db = directions[i + 1];
        const Wm4::Vector3<float> apart = origins[i] - origins[i + 1];
        const float dot = da.Dot(db);
        const bool parallel = dot > 0.0f && dot * dot >= 0.81f * da.SquaredLength() * db.SquaredLength();
        if (parallel || apart.SquaredLength() <= close)
            ++together;
        else
            nearby += std::fabs(apart[0]) <= quarter[0] && std::fabs(apart[1]) <= quarter[1] &&
                      std::fabs(apart[2]) <= quarter[2] && octant(da) == octant(db);
    }
    if (2 * together >= samples)
        return RayOrder::eCoherent;
    return 2 * (together + nearby) >= samples ? RayOrder::eLocal : RayOrder::eScattered;
}

kxQBVHRay::BatchWalk kxQBVHRay::batchWalk(const kxQBVH& qbvh, bool occlusion, unsigned int count,
                                          const Wm4::Vector3<float>* origins, const Wm4::Vector3<float>* directions)
{
    constexpr double kBeyondTheCaches = 24.0 * 1024 * 1024, kWithinTheCaches = 12.0 * 1024 * 1024,
                     kBeyondOneCore = 4.0 * 1024 * 1024;
    const double bytes = sizeof(kxQBVH::tQBVHNode) * static_cast<double>(qbvh.getNodeCount()) +
                         sizeof(kxQBVH::tSOATriangleEquations) * static_cast<double>(qbvh.getGroupCount());
    if (bytes >= kBeyondTheCaches)
        return BatchWalk::eInterleaved;
    if (bytes >= kBeyondOneCore)
    {
        const RayOrder order = rayOrder(qbvh, count, origins, directions);
        if (order == RayOrder::eScattered || (order == RayOrder::eLocal && bytes >= kWithinTheCaches))
            return BatchWalk::eInterleaved;
    }
    return occlusion ? BatchWalk::ePackets : BatchWalk::eOneByOne;
}

void kxQBVHRay::nearestBatch(const kxQBVH& qbvh, BatchWalk walk, unsigned int count,
                             const Wm4::Vector3<float>* origins, const Wm4::Vector3<float>* directions,
                             const float* tMin, float* t, Wm4::Vector2<float>* barycentric, unsigned int* triangle,
                             bool* hit, kxQBVH::tIntersectionPolicy policy)
{
    switch (policy)
    {
    case kxQBVH::eFrontSide:
        return ::nearestBatch<kxQBVH::eFrontSide>(qbvh, walk, count, origins, directions, tMin, t, barycentric,
                                                  triangle, hit);
    case kxQBVH::eBackSide:
        return ::nearestBatch<kxQBVH::eBackSide>(qbvh, walk, count, origins, directions, tMin, t, barycentric,
                                                 triangle, hit);
    default:
        return ::nearestBatch<kxQBVH::eAllSides>(qbvh, walk, count, origins, directions, tMin, t, barycentric,
                                                 triangle, hit);
    }
}

void kxQBVH::intersectRays(unsigned int count, const Wm4::Vector3<float>* origins,
                           const Wm4::Vector3<float>* directions, const float* tMin, float* t,
                           Wm4::Vector2<float>* barycentric, unsigned int* triangle, bool* hit,
                           tIntersectionPolicy policy) const
{
    if (!kxQBVHRay::hasEquations(*this))
    {
        for (unsigned int i = 0; i < count; ++i)
            hit[i] = false;
        return;
    }
    kxQBVHRay::nearestBatch(*this, kxQBVHRay::batchWalk(*this, false, count, origins, directions), count, origins,
                            directions, tMin, t, barycentric, triangle, hit, policy);
}
