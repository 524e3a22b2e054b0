// Oracles shared by the four-wide hierarchy's tests: where every triangle sits, the boxes
// a query must pass to reach it, and a brute-force ray test of one triangle.
#ifndef KXQBVHTESTUTIL_H
#define KXQBVHTESTUTIL_H

#include "kxMedianSplitBVH.h"
#include "kxQBVH.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <vector>

namespace kxtest
{
constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr float kInf = std::numeric_limits<float>::infinity();

inline uint32_t bitsOf(float f)
{
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

/// Bit-equal, or both NaN (a NaN's sign and payload carry no meaning here).
inline bool sameFloat(float a, float b)
{
    return bitsOf(a) == bitsOf(b) || (std::isnan(a) && std::isnan(b));
}

/// Where a triangle is stored, and the boxes of every slot on the way from the root to it.
struct TriangleSlot
{
    uint32_t group;
    int lane;
    uint32_t leafFirstGroup;
    std::vector<kxBBox> path;
};

inline std::map<uint32_t, TriangleSlot> locateTriangles(const kxQBVH& qbvh)
{
    std::map<uint32_t, TriangleSlot> slots;
    std::vector<kxBBox> path;
    auto addLeaf = [&](uint32_t first, uint32_t count) {
        for (uint32_t g = first; g < first + count; ++g)
            for (int k = 0; k < 4; ++k)
            {
                const uint32_t t = qbvh.getTriangleIndices()[g].index[k];
                if (t != kNone)
                    slots[t] = TriangleSlot{g, k, first, path};
            }
    };
    auto walk = [&](auto&& self, uint32_t index) -> void {
        const kxQBVH::tQBVHNode& node = qbvh.getNodes()[index];
        for (int k = 0; k < 4; ++k)
        {
            kxBBox box;
            for (int a = 0; a < 3; ++a)
            {
                box.min[a] = node.bboxMin[a][k];
                box.max[a] = node.bboxMax[a][k];
            }
            path.push_back(box);
            if (node.count[k] == kNone)
                self(self, node.child[k]);
            else
                addLeaf(node.child[k], node.count[k]);
            path.pop_back();
        }
    };
    if (qbvh.getNodeCount() > 0)
        walk(walk, 0);
    else
        addLeaf(0, qbvh.getGroupCount());
    return slots;
}

/// One triangle's answer to a ray, computed from its stored equations in the query's
/// own operation order.
struct RayCandidate
{
    bool accepted;
    float th;
    float distance;
    float w, u;
};

inline RayCandidate rayCandidate(const kxQBVH& qbvh, const TriangleSlot& slot, const Wm4::Vector3<float>& o,
                                 const Wm4::Vector3<float>& d, bool symmetric, kxQBVH::tIntersectionPolicy policy,
                                 float tMin, float tMax)
{
    float e[12];
    for (int i = 0; i < 12; ++i)
        e[i] = qbvh.getTriangleEquations()[slot.group].eq[i][slot.lane];
    const float denom = e[2] * d[2] + e[1] * d[1] + e[0] * d[0];
    const float th = -(((e[2] * o[2] + e[3]) + e[1] * o[1] + e[0] * o[0]) / denom);
    const float p[3] = {d[0] * th + o[0], d[1] * th + o[1], d[2] * th + o[2]};
    const float u = e[4] * p[0] + e[5] * p[1] + e[6] * p[2] + e[7];
    const float v = e[8] * p[0] + e[9] * p[1] + e[10] * p[2] + e[11];
    const float w = 1.0f - (u + v);
    bool side = !std::isnan(denom);
    if (symmetric || policy == kxQBVH::eFrontSide)
        side = denom <= 0.0f;
    else if (policy == kxQBVH::eBackSide)
        side = denom >= 0.0f;
    const float distance = symmetric ? std::fabs(th) : th;
    const bool inRange = symmetric ? distance <= std::fabs(tMax) : (tMin <= th && th <= tMax);
    const bool inside = w > -0.0001f && v > -0.0001f && u > -0.0001f;
    return {side && inRange && inside, th, distance, w, u};
}

/// True when th lies well inside the slab interval of every box on the path, so that no
/// rounding in the box tests can hide this hit.
inline bool reachableWithMargin(const TriangleSlot& slot, const Wm4::Vector3<float>& o, const Wm4::Vector3<float>& d,
                                float th)
{
    const double margin = 1e-3 * (1.0 + std::fabs(th));
    for (const kxBBox& box : slot.path)
    {
        double lo = -std::numeric_limits<double>::infinity(), hi = std::numeric_limits<double>::infinity();
        for (int a = 0; a < 3; ++a)
        {
            if (d[a] == 0.0f)
            {
                if (!(o[a] > box.min[a] && o[a] < box.max[a]))
                    return false;
                continue;
            }
            const double t1 = (double(box.min[a]) - o[a]) / d[a], t2 = (double(box.max[a]) - o[a]) / d[a];
            lo = std::max(lo, std::min(t1, t2));
            hi = std::min(hi, std::max(t1, t2));
        }
        if (!(lo + margin < th && th < hi - margin))
            return false;
    }
    return true;
}

/// Builds qbvh over mesh through the median-split builder with the given leaf size.
inline void buildWithLeafSize(kxQBVH& qbvh, unsigned int flags, const kx::kxTriMesh& mesh, unsigned int maxLeafSize)
{
    MedianSplitOptions options;
    options.maxLeafSize = maxLeafSize;
    qbvh.buildFromBVH(static_cast<kxQBVH::tQBVHDataFlags>(flags), buildMedianSplitBVH(mesh, options), mesh);
}

/// Random ray: from inside the box or from a shell around it, some directions with zero
/// components, lengths between 0.5 and 2.
inline void randomRay(std::mt19937& rng, const kxBBox& box, bool inside, Wm4::Vector3<float>& o,
                      Wm4::Vector3<float>& d)
{
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    Wm4::Vector3<float> centre = box.getCenter();
    const float radius = (box.max[0] - box.min[0]) + (box.max[1] - box.min[1]) + (box.max[2] - box.min[2]);
    Wm4::Vector3<float> target;
    for (int a = 0; a < 3; ++a)
        target[a] = box.min[a] + unit(rng) * (box.max[a] - box.min[a]);
    if (inside)
        for (int a = 0; a < 3; ++a)
            o[a] = box.min[a] + unit(rng) * (box.max[a] - box.min[a]);
    else
    {
        Wm4::Vector3<float> away(signedUnit(rng), signedUnit(rng), signedUnit(rng));
        away.Normalize();
        o = centre + away * radius;
    }
    d = target - o;
    if (d.Length() == 0.0f)
        d = Wm4::Vector3<float>(1.0f, 0.0f, 0.0f);
    d.Normalize();
    if (unit(rng) < 0.15f)
        d[std::uniform_int_distribution<int>(0, 2)(rng)] = 0.0f;
    d *= 0.5f + 1.5f * unit(rng);
}
} // namespace kxtest

#endif
