// The closest point of a triangle as Embree's closest-point tutorial computes it in its
// callback, so that figures beside Embree's point queries do the same work per triangle.
#ifndef KXBVH_EMBREECLOSESTPOINT_H
#define KXBVH_EMBREECLOSESTPOINT_H

#include <Wm4Foundation.h>

namespace kxbvh
{
/// Ericson's region method.
inline Wm4::Vector3<float> closestPointTriangle(const Wm4::Vector3<float>& p, const Wm4::Vector3<float>& a,
                                               const Wm4::Vector3<float>& b, const Wm4::Vector3<float>& c)
{
    const Wm4::Vector3<float> ab = b - a, ac = c - a, ap = p - a;
    const float d1 = ab.Dot(ap), d2 = ac.Dot(ap);
    if (d1 <= 0.0f && d2 <= 0.0f)
        return a;
    const Wm4::Vector3<float> bp = p - b;
    const float d3 = ab.Dot(bp), d4 = ac.Dot(bp);
    if (d3 >= 0.0f && d4 <= d3)
        return b;
    const Wm4::Vector3<float> cp = p - c;
    const float d5 = ab.Dot(cp), d6 = ac.Dot(cp);
    if (d6 >= 0.0f && d5 <= d6)
        return c;
    const float vc = d1 * d4 - d3 * d2;
    if (vc <= 0.0f && d1 >= 0.0f && d3 <= 0.0f)
        return a + ab * (d1 / (d1 - d3));
    const float vb = d5 * d2 - d1 * d6;
    if (vb <= 0.0f && d2 >= 0.0f && d6 <= 0.0f)
        return a + ac * (d2 / (d2 - d6));
    const float va = d3 * d6 - d5 * d4;
    if (va <= 0.0f && d4 - d3 >= 0.0f && d5 - d6 >= 0.0f)
        return b + (c - b) * ((d4 - d3) / ((d4 - d3) + (d5 - d6)));
    const float denom = 1.0f / (va + vb + vc);
    return a + ab * (vb * denom) + ac * (vc * denom);
}
} // namespace kxbvh

#endif
