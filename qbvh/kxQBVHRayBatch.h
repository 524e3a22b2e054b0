// The ways kxQBVH's batch ray queries walk their rays, named so that tests can check each
// against one call per ray. Every way gives every ray the answer of its own walk, bit for
// bit; they differ in speed only.
#ifndef KXQBVHRAYBATCH_H
#define KXQBVHRAYBATCH_H

#include "kxQBVH.h"
#include "kxQBVHInterleave.h"

namespace kxQBVHRay
{
enum class BatchWalk
{
    eOneByOne,   ///< one ray after another
    ePackets,    ///< occlusion only: eight neighbouring rays share one walk
    eInterleaved ///< eight walks taken in turn, one visit each
};

/// The way the batch queries take: interleaved walks on hierarchies (nodes and equations)
/// beyond the last-level cache of common machines, 24 MiB, where walks wait on memory;
/// below, packets for occlusion (measured 1.3 to 1.5 times one call per ray on coherent
/// rays, 0.94 to 1.09 on incoherent ones) and one ray after another for the nearest hit
/// (interleaving measured 0.5 to 0.9 times there).
BatchWalk batchWalk(const kxQBVH& qbvh, bool occlusion);

/// kxQBVH::intersectRaysAny's work, walked as `walk` says; the hierarchy has equations.
void occludedBatch(const kxQBVH& qbvh, BatchWalk walk, unsigned int count, const Wm4::Vector3<float>* origins,
                   const Wm4::Vector3<float>* directions, const float* tMin, const float* tMax, bool* occluded,
                   kxQBVH::tIntersectionPolicy policy);

/// kxQBVH::intersectRays' work, walked as `walk` says (packets are taken as one by one);
/// the hierarchy has equations.
void nearestBatch(const kxQBVH& qbvh, BatchWalk walk, unsigned int count, const Wm4::Vector3<float>* origins,
                  const Wm4::Vector3<float>* directions, const float* tMin, float* t,
                  Wm4::Vector2<float>* barycentric, unsigned int* triangle, bool* hit,
                  kxQBVH::tIntersectionPolicy policy);
} // namespace kxQBVHRay

#endif
