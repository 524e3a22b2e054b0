// Scalar twins of kxQBVH's SIMD queries: the same algorithms written one lane and one
// slot at a time, recursively, for tests to compare the fast paths against bit for bit.
// They assume the hierarchy holds the data they need and log nothing. Beside them the
// plain collapse, which buildFromBVH's must match word for word.
#ifndef KXQBVHREFERENCE_H
#define KXQBVHREFERENCE_H

#include "kxQBVH.h"

namespace kxQBVHReference
{
/// What a ray query did: four-wide nodes visited, leaf tests entered, groups tested.
struct RayWork
{
    uint64_t nodes = 0;
    uint64_t leaves = 0;
    uint64_t groups = 0;
};

/// work, when given, is added to.
bool intersectRay(const kxQBVH& qbvh, const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction,
                  float tMin, float& t, Wm4::Vector2<float>& barycentric, unsigned int& triangle,
                  kxQBVH::tIntersectionPolicy policy, RayWork* work = nullptr);

bool intersectRaySymmetric(const kxQBVH& qbvh, const Wm4::Vector3<float>& origin,
                           const Wm4::Vector3<float>& direction, float& t, Wm4::Vector2<float>& barycentric,
                           unsigned int& triangle);

bool intersectConvexHull(const kxQBVH& qbvh, const kxQBVH::tSOASinglePlaneEqn* set, unsigned int count);

/// Allocates qbvh's arrays by flags and fills them from bvh: two depth-first walks and two
/// running-sum arrays of one entry per binary record, for any node order. Leaves the box
/// alone. buildFromBVH falls back to it for trees whose children do not follow their parent.
void collapse(kxQBVH& qbvh, kxQBVH::tQBVHDataFlags flags, const kxGenericBVH& bvh, const kx::kxTriMesh& mesh);
} // namespace kxQBVHReference

#endif
