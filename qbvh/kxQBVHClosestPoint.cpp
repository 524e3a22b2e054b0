#include "kxLogObject.h"
#include "kxQBVH.h"
#include "kxSimd4.h"

#include <cmath>
#include <limits>

using namespace kxSimd;

namespace
{
constexpr uint32_t kNone = 0xFFFFFFFFu;

// A triangle whose corner angle has a sine below 1e-7 (squared: 1e-14) is treated as its
// three edges: it is then narrower than a float step of its longest edge, and its normal
// no longer gives a trustworthy plane distance.
constexpr double kFlatSineSquared = 1e-14;

struct V3d
{
    vdouble4 x, y, z;
};

inline V3d operator-(const V3d& a, const V3d& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline vdouble4 dot(const V3d& a, const V3d& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline V3d cross(const V3d& a, const V3d& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// Nearest point of the segment from s along e to the point at offset sp from s: its
// parameter in [0, 1] and the squared distance. A zero-length segment gives 0/0, which
// the SSE max turns into parameter 0 (a NaN first operand yields the second).
inline void nearestOnSegment(const V3d& sp, const V3d& e, vdouble4 ee, vdouble4& t, vdouble4& squared)
{
    t = min(max(dot(sp, e) / ee, vdouble4(0.0)), vdouble4(1.0));
    const V3d d = {sp.x - e.x * t, sp.y - e.y * t, sp.z - e.z * t};
    squared = dot(d, d);
}

// Squared distances from p to the four triangles of a group, and where the nearest points
// lie: corner 0 + wb (corner 1 - corner 0) + wc (corner 2 - corner 0). Differences of the
// float corners and their cross products are exact or nearly so in double precision,
// which keeps slivers as accurate as well-shaped triangles.
struct GroupDistances
{
    vdouble4 squared, wb, wc;
};

using tSOATriangleVertices = kxQBVH::tSOATriangleVertices;

GroupDistances groupDistances(const tSOATriangleVertices& v, const V3d& p)
{
    const auto corner = [&](int c) {
        return V3d{vdouble4(vfloat4::load(v.corner[c][0])), vdouble4(vfloat4::load(v.corner[c][1])),
                   vdouble4(vfloat4::load(v.corner[c][2]))};
    };
    const V3d a = corner(0), b = corner(1), c = corner(2);
    const V3d ab = b - a, ac = c - a, bc = c - b, ca = a - c;
    const V3d ap = p - a, bp = p - b, cp = p - c;
    const vdouble4 abab = dot(ab, ab), acac = dot(ac, ac), bcbc = dot(bc, bc);
    vdouble4 tab, tbc, tca, dab, dbc, dca;
    nearestOnSegment(ap, ab, abab, tab, dab);
    nearestOnSegment(bp, bc, bcbc, tbc, dbc);
    nearestOnSegment(cp, ca, acac, tca, dca);
    const vdouble4 zero(0.0), one(1.0);
    GroupDistances g{dab, tab, zero};
    const vdmask4 toBC = dbc < g.squared;
    g.squared = select(toBC, dbc, g.squared);
    g.wb = select(toBC, one - tbc, g.wb);
    g.wc = select(toBC, tbc, g.wc);
    const vdmask4 toCA = dca < g.squared;
    g.squared = select(toCA, dca, g.squared);
    g.wb = select(toCA, zero, g.wb);
    g.wc = select(toCA, one - tca, g.wc);

    // The face: p's projection lies inside when its three barycentric numerators,
    // n . (edge x (p - edge start)), are not negative; p itself may stand for the
    // projection there, as the two differ along n only.
    const V3d n = cross(ab, ac);
    const vdouble4 nn = dot(n, n);
    const vdouble4 la = dot(cross(bc, bp), n), lb = dot(cross(ap, ac), n), lc = dot(cross(ab, ap), n);
    const vdmask4 face = (nn > vdouble4(kFlatSineSquared) * abab * acac) & (la >= zero) & (lb >= zero) &
                         (lc >= zero);
    if (face.bits() != 0)
    {
        const vdouble4 h = dot(n, ap);
        g.squared = select(face, h * h / nn, g.squared);
        g.wb = select(face, lb / nn, g.wb);
        g.wc = select(face, lc / nn, g.wc);
    }
    return g;
}

struct Best
{
    double squared;
    uint32_t group = kNone;
    int lane = 0;
    double wb = 0.0, wc = 0.0;
};

class ClosestPointSearch
{
public:
    ClosestPointSearch(const kxQBVH& qbvh, const Wm4::Vector3<float>& point, double limitSquared)
        : mNodes(qbvh.getNodes()), mVertices(qbvh.getTriangleVertices()), mIndices(qbvh.getTriangleIndices()),
          mGroupCount(qbvh.getGroupCount()), mX(point[0]), mY(point[1]), mZ(point[2]),
          mP{vdouble4(double(point[0])), vdouble4(double(point[1])), vdouble4(double(point[2]))}
    {
        mBest.squared = limitSquared;
        updateCull();
    }

    void leafTest(uint32_t g0, uint32_t count);
    void run(uint32_t ref, uint32_t count);
    const Best& best() const { return mBest; }

private:
    static constexpr int kStackSize = 96;

    struct Entry
    {
        uint32_t ref;
        uint32_t count;
        float squared;
    };

    // Box distances are rounded floats: a box is skipped only when it is farther than the
    // best distance by more than their rounding, so that a triangle as near as the best
    // (or as the limit) is never lost.
    void updateCull() { mCull = float(mBest.squared * (1.0 + 1.0 / (1 << 18))); }

    const kxQBVH::tQBVHNode* mNodes;
    const kxQBVH::tSOATriangleVertices* mVertices;
    const kxQBVH::tSOATriangleIndices* mIndices;
    uint32_t mGroupCount;
    vfloat4 mX, mY, mZ;
    V3d mP;
    Best mBest;
    float mCull;
};

void ClosestPointSearch::leafTest(uint32_t g0, uint32_t count)
{
    const uint32_t end = g0 + count;
    for (uint32_t g = g0; g < end && g < mGroupCount; ++g)
    {
        // The four triangles' own boxes, in floats, skip most groups before the exact test.
        const tSOATriangleVertices& v = mVertices[g];
        const auto gap = [&](int axis, vfloat4 p) {
            const vfloat4 a = vfloat4::load(v.corner[0][axis]), b = vfloat4::load(v.corner[1][axis]),
                          c = vfloat4::load(v.corner[2][axis]);
            const vfloat4 d = max(max(min(min(a, b), c) - p, p - max(max(a, b), c)), vfloat4(0.0f));
            return d * d;
        };
        if (!((gap(0, mX) + gap(1, mY) + gap(2, mZ)) <= vfloat4(mCull)).any())
            continue;
        const GroupDistances d = groupDistances(v, mP);
        const int padding = (vuint4::load(mIndices[g].index) == vuint4(kNone)).bits();
        int lanes = (d.squared <= vdouble4(mBest.squared)).bits() & ~padding;
        if (lanes == 0)
            continue;
        alignas(16) double squared[4], wb[4], wc[4];
        d.squared.store(squared);
        d.wb.store(wb);
        d.wc.store(wc);
        for (; lanes != 0; lanes &= lanes - 1)
        {
            const int k = __builtin_ctz(static_cast<unsigned>(lanes));
            if (squared[k] <= mBest.squared)
            {
                mBest.squared = squared[k];
                mBest.group = g;
                mBest.lane = k;
                mBest.wb = wb[k];
                mBest.wc = wc[k];
            }
        }
        updateCull();
    }
}

void ClosestPointSearch::run(uint32_t ref, uint32_t count)
{
    Entry stack[kStackSize];
    int top = 0;
    const vfloat4 zero(0.0f);
    for (;;)
    {
        if (count == kNone)
        {
            const kxQBVH::tQBVHNode& node = mNodes[ref];
            const auto gap = [&](int axis, vfloat4 p) {
                const vfloat4 g = max(max(vfloat4::load(node.bboxMin[axis]) - p, p - vfloat4::load(node.bboxMax[axis])),
                                      zero);
                return g * g;
            };
            const vfloat4 squared = gap(0, mX) + gap(1, mY) + gap(2, mZ);
            int visit = (squared <= vfloat4(mCull)).bits();
            if (visit != 0)
            {
                alignas(16) float key[4];
                squared.store(key);
                int first = __builtin_ctz(static_cast<unsigned>(visit));
                visit &= visit - 1;
                if (visit != 0)
                {
                    // Nearest slot now, the others pushed farthest first so that the
                    // nearer ones come off the stack first.
                    int order[4], n = 0;
                    order[n++] = first;
                    for (; visit != 0; visit &= visit - 1)
                    {
                        const int k = __builtin_ctz(static_cast<unsigned>(visit));
                        int i = n++;
                        for (; i > 0 && key[order[i - 1]] > key[k]; --i)
                            order[i] = order[i - 1];
                        order[i] = k;
                    }
                    first = order[0];
                    for (int i = n - 1; i > 0; --i)
                    {
                        const int k = order[i];
                        if (top < kStackSize)
                        {
                            stack[top++] = {node.child[k], node.count[k], key[k]};
                            prefetchLines(node.count[k] == kNone ? static_cast<const void*>(mNodes + node.child[k])
                                                                 : mVertices + node.child[k],
                                          2);
                        }
                        else
                            run(node.child[k], node.count[k]);
                    }
                }
                ref = node.child[first];
                count = node.count[first];
                continue;
            }
        }
        else
            leafTest(ref, count);
        for (;;)
        {
            if (top == 0)
                return;
            --top;
            if (stack[top].squared <= mCull)
                break;
        }
        ref = stack[top].ref;
        count = stack[top].count;
    }
}
} // namespace

bool kxQBVH::findClosestPoint(const Wm4::Vector3<float>& point, float& distance, Wm4::Vector3<float>& closest,
                              Wm4::Vector2<float>& barycentric, unsigned int& triangle) const
{
    if (!(mDataFlags & eTrianglesVertices))
    {
        if (kx::kxLogObject::errorLevelEnabled())
            kx::kxLogObject(2)
                << "error: QBVH is not built with the right data type (should be kxQBVH::eTrianglesVertices)";
        return false;
    }
    // Nothing is nearest to a point at infinity or NaN, and nothing lies within a negative
    // or NaN distance.
    if (!(std::isfinite(point[0]) && std::isfinite(point[1]) && std::isfinite(point[2]) && distance >= 0.0f))
        return false;
    // A triangle whose distance rounds to the limit is within it, so that the distance
    // found, given back as the limit, finds it again.
    const double limit = std::isinf(distance) ? double(distance)
                                              : double(distance) + 0.5 * (double(std::nextafter(distance, HUGE_VALF)) -
                                                                          double(distance));
    ClosestPointSearch search(*this, point, limit * limit);
    if (mNodeCount > 0)
        search.run(0, kNone);
    else
        search.leafTest(0, mGroupCount);
    const Best& best = search.best();
    if (best.group == kNone)
        return false;
    const tSOATriangleVertices& v = mTriangleVertices[best.group];
    const int k = best.lane;
    for (int axis = 0; axis < 3; ++axis)
    {
        const double a = v.corner[0][axis][k];
        closest[axis] = float(a + best.wb * (double(v.corner[1][axis][k]) - a) +
                              best.wc * (double(v.corner[2][axis][k]) - a));
    }
    distance = float(std::sqrt(best.squared));
    barycentric = Wm4::Vector2<float>(float(1.0 - best.wb - best.wc), float(best.wb));
    triangle = mTriangleIndices[best.group].index[k];
    return true;
}
