// Convex regions for tests: random plane sets around a box, and a brute-force answer to
// whether a mesh reaches inside one.
#ifndef KXCONVEXREGIONS_H
#define KXCONVEXREGIONS_H

#include "Wm4Foundation.h"
#include "kxBBox.h"
#include "kxTriMesh.h"

#include <array>
#include <random>
#include <vector>

namespace kxtest
{
using Plane = Wm4::Vector4<float>;
using D3 = std::array<double, 3>;

// Double-precision clip of a triangle by every plane moved by shift along its unit
// normal; true when a polygon of three or more vertices remains.
inline bool triangleInside(std::vector<D3> polygon, const std::vector<Plane>& planes, double shift)
{
    for (const Plane& p : planes)
    {
        auto distance = [&](const D3& x) { return p[0] * x[0] + p[1] * x[1] + p[2] * x[2] + p[3] + shift; };
        std::vector<D3> clipped;
        for (size_t i = 0; i < polygon.size(); ++i)
        {
            const D3& prev = polygon[(i + polygon.size() - 1) % polygon.size()];
            const D3& cur = polygon[i];
            const double dp = distance(prev), dc = distance(cur), r = dp / (dp - dc);
            if ((dc > 0) != (dp > 0))
                clipped.push_back({prev[0] + (cur[0] - prev[0]) * r, prev[1] + (cur[1] - prev[1]) * r,
                                   prev[2] + (cur[2] - prev[2]) * r});
            if (dc > 0)
                clipped.push_back(cur);
        }
        polygon = clipped;
    }
    return polygon.size() > 2;
}

// 1 or 0 when every triangle agrees whether the region is shrunk or grown by a small
// margin, -1 when the answer rests on rounding.
inline int bruteForce(const kx::kxTriMesh& mesh, const std::vector<Plane>& planes)
{
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    bool shrunk = false, grown = false;
    for (int t = 0; t < mesh.GetIndexBuffer()->GetIndexQuantity() / 3; ++t)
    {
        std::vector<D3> corners;
        for (int i = 0; i < 3; ++i)
        {
            const Wm4::Vector3<float>& p = mesh.GetVertexBuffer()->Position3(static_cast<int>(index[3 * t + i]));
            corners.push_back({p[0], p[1], p[2]});
        }
        shrunk = shrunk || triangleInside(corners, planes, -1e-3);
        grown = grown || triangleInside(corners, planes, 1e-3);
    }
    return shrunk == grown ? int(shrunk) : -1;
}

inline Plane planeThrough(const Wm4::Vector3<float>& point, Wm4::Vector3<float> inward)
{
    inward.Normalize();
    return Plane(inward[0], inward[1], inward[2], -inward.Dot(point));
}

// A frustum, a slab, or one to nine planes tangent to a sphere, around a random point of
// the box.
inline std::vector<Plane> randomPlanes(std::mt19937& rng, const kxBBox& box, int kind)
{
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    auto direction = [&] {
        Wm4::Vector3<float> v(signedUnit(rng), signedUnit(rng), signedUnit(rng));
        return v.Normalize() > 0.0f ? v : Wm4::Vector3<float>::UNIT_X;
    };
    Wm4::Vector3<float> centre;
    for (int a = 0; a < 3; ++a)
        centre[a] = box.min[a] + unit(rng) * (box.max[a] - box.min[a]);
    const float size = box.max[0] - box.min[0];
    const Wm4::Vector3<float> n = direction();
    if (kind == 2)
        return {planeThrough(centre, n), planeThrough(centre + n * (0.2f * size * unit(rng)), -n)};
    if (kind == 0)
    {
        const Wm4::Vector3<float> right = n.UnitCross(direction()), up = right.Cross(n);
        const float nearD = 0.05f * size * unit(rng), farD = nearD + size * unit(rng), spread = 0.1f + unit(rng);
        std::vector<Plane> frustum = {planeThrough(centre + n * nearD, n), planeThrough(centre + n * farD, -n)};
        for (const Wm4::Vector3<float>& side : {right, -right, up, -up})
            frustum.push_back(planeThrough(centre, n * spread - side));
        return frustum;
    }
    const float radius = 0.3f * size * unit(rng);
    std::vector<Plane> polytope;
    for (int i = 1 + static_cast<int>(unit(rng) * 9.0f); i > 0; --i)
    {
        const Wm4::Vector3<float> m = direction();
        polytope.push_back(planeThrough(centre + m * radius, -m));
    }
    return polytope;
}
} // namespace kxtest

#endif
