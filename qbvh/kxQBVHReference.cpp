#include "kxQBVHReference.h"
#include "kxQBVHClip.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

namespace
{
constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr float kInf = std::numeric_limits<float>::infinity();

// The SSE rule: a NaN in either operand yields the second operand.
float minOf(float a, float b)
{
    return a < b ? a : b;
}

float maxOf(float a, float b)
{
    return a > b ? a : b;
}

float orBits(float a, float b)
{
    uint32_t ia, ib;
    std::memcpy(&ia, &a, 4);
    std::memcpy(&ib, &b, 4);
    ia |= ib;
    std::memcpy(&a, &ia, 4);
    return a;
}

struct RayQuery
{
    const kxQBVH& qbvh;
    float org[3];
    float dir[3];
    float inv[3];
    bool symmetric;
    kxQBVH::tIntersectionPolicy policy;
    float tMin;
    float t;
    float w, u;
    uint32_t triangle;
    kxQBVHReference::RayWork* work;

    float lower() const { return symmetric ? -std::abs(t) : tMin; }
    float upper() const { return symmetric ? std::abs(t) : t; }

    bool sideAccepted(float denom) const
    {
        if (symmetric)
            return denom <= 0.0f;
        switch (policy)
        {
        case kxQBVH::eFrontSide:
            return denom <= 0.0f;
        case kxQBVH::eBackSide:
            return denom >= 0.0f;
        default:
            return -kInf <= denom && denom <= kInf;
        }
    }

    void leafTest(uint32_t g0, uint32_t count)
    {
        if (g0 >= g0 + count)
            return;
        if (work)
            ++work->leaves;
        const float tEntry = t;
        float best[4] = {kInf, kInf, kInf, kInf}, bestW[4] = {}, bestU[4] = {};
        uint32_t bestIndex[4] = {kNone, kNone, kNone, kNone};
        for (uint32_t g = g0; g < g0 + count && g < qbvh.getGroupCount(); ++g)
        {
            if (work)
                ++work->groups;
            const float(*E)[4] = qbvh.getTriangleEquations()[g].eq;
            for (int k = 0; k < 4; ++k)
            {
                const float denom = E[2][k] * dir[2] + E[1][k] * dir[1] + E[0][k] * dir[0];
                const float num = (E[2][k] * org[2] + E[3][k]) + E[1][k] * org[1] + E[0][k] * org[0];
                const float th = -(num / denom);
                const float px = dir[0] * th + org[0];
                const float py = dir[1] * th + org[1];
                const float pz = dir[2] * th + org[2];
                const float uk = E[4][k] * px + E[5][k] * py + E[6][k] * pz + E[7][k];
                const float vk = E[8][k] * px + E[9][k] * py + E[10][k] * pz + E[11][k];
                const float wk = 1.0f - (uk + vk);
                const float distance = symmetric ? std::abs(th) : th;
                const bool inRange = symmetric ? distance <= std::abs(tEntry) : (tMin <= th && th <= tEntry);
                if (sideAccepted(denom) && inRange && distance < best[k] && -0.0001f < wk && -0.0001f < vk &&
                    -0.0001f < uk)
                {
                    best[k] = distance;
                    bestW[k] = wk;
                    bestU[k] = uk;
                    bestIndex[k] = qbvh.getTriangleIndices()[g].index[k];
                }
            }
        }
        for (int k = 0; k < 4; ++k)
            if (t > best[k])
            {
                t = best[k];
                w = bestW[k];
                u = bestU[k];
                triangle = bestIndex[k];
            }
    }

    void nodeVisit(uint32_t index)
    {
        if (work)
            ++work->nodes;
        const kxQBVH::tQBVHNode& node = qbvh.getNodes()[index];
        float key[4];
        int slot[4] = {0, 1, 2, 3};
        for (int k = 0; k < 4; ++k)
        {
            float nearA[3], farA[3];
            for (int a = 0; a < 3; ++a)
            {
                const float t1 = (node.bboxMin[a][k] - org[a]) * inv[a];
                const float t2 = (node.bboxMax[a][k] - org[a]) * inv[a];
                nearA[a] = minOf(t1, t2);
                farA[a] = maxOf(t1, t2);
            }
            const float nearT = maxOf(nearA[2], maxOf(nearA[1], maxOf(nearA[0], lower())));
            const float farT = minOf(farA[2], minOf(farA[1], minOf(farA[0], upper())));
            key[k] = nearT <= farT ? orBits(maxOf(nearT, 0.0f), minOf(farT, 0.0f)) : kInf;
        }
        const int network[5][2] = {{0, 1}, {2, 3}, {0, 2}, {1, 3}, {1, 2}};
        for (const auto& pair : network)
            if (key[pair[0]] > key[pair[1]])
            {
                std::swap(key[pair[0]], key[pair[1]]);
                std::swap(slot[pair[0]], slot[pair[1]]);
            }
        for (int i = 0; i < 4 && key[i] != kInf; ++i)
        {
            const int k = slot[i];
            if (node.count[k] == kNone)
                nodeVisit(node.child[k]);
            else
                leafTest(node.child[k], node.count[k]);
        }
    }

    bool run()
    {
        if (qbvh.getNodeCount() > 0)
            nodeVisit(0);
        else if (qbvh.getGroupCount() > 0)
            leafTest(0, qbvh.getGroupCount());
        return triangle != kNone;
    }
};

bool answer(RayQuery& query, float& t, Wm4::Vector2<float>& barycentric, unsigned int& triangle)
{
    triangle = kNone;
    if (!query.run())
        return false;
    t = query.t;
    barycentric = Wm4::Vector2<float>(query.w, query.u);
    triangle = query.triangle;
    return true;
}

struct HullQuery
{
    const kxQBVH& qbvh;
    const kxQBVH::tSOASinglePlaneEqn* planes;
    unsigned int planeCount;
    kxQBVHClip::WorkArea& area;

    bool nodeTest(uint32_t index) const
    {
        if (planeCount == 0)
            return true;
        const kxQBVH::tQBVHNode& node = qbvh.getNodes()[index];
        bool outside[4] = {false, false, false, false};
        bool boxInside = false;
        for (int k = 0; k < 4; ++k)
        {
            float lowest = kInf;
            for (unsigned int p = 0; p < planeCount; ++p)
            {
                const kxQBVH::tSOASinglePlaneEqn& e = planes[p];
                const float x0 = node.bboxMin[0][k] * e.a[0], x1 = node.bboxMax[0][k] * e.a[0];
                const float y0 = node.bboxMin[1][k] * e.b[0], y1 = node.bboxMax[1][k] * e.b[0];
                const float z0 = node.bboxMin[2][k] * e.c[0], z1 = node.bboxMax[2][k] * e.c[0];
                const float hi = maxOf(y0, y1) + maxOf(x0, x1) + (maxOf(z0, z1) + e.d[0]);
                const float lo = minOf(y0, y1) + minOf(x0, x1) + (e.d[0] + minOf(z0, z1));
                outside[k] = outside[k] || hi < 0.0f;
                lowest = minOf(lowest, lo);
            }
            boxInside = boxInside || lowest > 0.0f;
        }
        if (boxInside)
            return true;
        for (int k = 0; k < 4; ++k)
        {
            if (outside[k])
                continue;
            if (node.count[k] == kNone ? nodeTest(node.child[k]) : leafTest(node.child[k], node.count[k]))
                return true;
        }
        return false;
    }

    bool leafTest(uint32_t g0, uint32_t count) const
    {
        for (uint32_t g = g0; g < g0 + count; ++g)
        {
            if (g >= qbvh.getGroupCount())
                return false;
            if (groupTest(qbvh.getTriangleVertices()[g]))
                return true;
        }
        return false;
    }

    bool groupTest(const kxQBVH::tSOATriangleVertices& group) const
    {
        float(*cur[3])[4] = {area.x, area.y, area.z};
        float(*out[3])[4] = {area.clipX, area.clipY, area.clipZ};
        uint32_t counts[4] = {3, 3, 3, 3};
        for (int c = 0; c < 3; ++c)
            for (int a = 0; a < 3; ++a)
                for (int k = 0; k < 4; ++k)
                    cur[a][c][k] = group.corner[c][a][k];
        if (planeCount == 0)
            return true;
        uint32_t limit = 3;
        for (unsigned int p = 0; p < planeCount; ++p)
        {
            const kxQBVH::tSOASinglePlaneEqn& e = planes[p];
            for (uint32_t i = 0; i < limit; ++i)
                for (int k = 0; k < 4; ++k)
                    area.distance[i][k] = e.c[0] * cur[2][i][k] + e.d[0] + e.b[0] * cur[1][i][k] + e.a[0] * cur[0][i][k];
            limit = kxQBVHClip::clipLanes(area.distance, cur, out, counts, area.capacity);
            for (int a = 0; a < 3; ++a)
                std::swap(cur[a], out[a]);
        }
        return limit > 2;
    }
};
} // namespace

namespace kxQBVHReference
{
bool intersectRay(const kxQBVH& qbvh, const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction,
                  float tMin, float& t, Wm4::Vector2<float>& barycentric, unsigned int& triangle,
                  kxQBVH::tIntersectionPolicy policy, RayWork* work)
{
    RayQuery query{qbvh, {origin[0], origin[1], origin[2]}, {direction[0], direction[1], direction[2]},
                   {1.0f / direction[0], 1.0f / direction[1], 1.0f / direction[2]}, false, policy, tMin, t,
                   0.0f, 0.0f, kNone, work};
    return answer(query, t, barycentric, triangle);
}

bool intersectRaySymmetric(const kxQBVH& qbvh, const Wm4::Vector3<float>& origin,
                           const Wm4::Vector3<float>& direction, float& t, Wm4::Vector2<float>& barycentric,
                           unsigned int& triangle)
{
    RayQuery query{qbvh, {origin[0], origin[1], origin[2]}, {direction[0], direction[1], direction[2]},
                   {1.0f / direction[0], 1.0f / direction[1], 1.0f / direction[2]}, true, kxQBVH::eAllSides,
                   0.0f, t, 0.0f, 0.0f, kNone, nullptr};
    return answer(query, t, barycentric, triangle);
}

bool intersectConvexHull(const kxQBVH& qbvh, const kxQBVH::tSOASinglePlaneEqn* set, unsigned int count)
{
    kxQBVHClip::WorkArea area(count);
    const HullQuery query{qbvh, set, count, area};
    if (qbvh.getNodeCount() > 0)
        return query.nodeTest(0);
    if (qbvh.getGroupCount() > 0)
        return query.leafTest(0, qbvh.getGroupCount());
    return false;
}
} // namespace kxQBVHReference
