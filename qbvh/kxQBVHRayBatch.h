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

/// Whether most sampled neighbours of a batch leave nearly the same point (within a
/// hundredth of the hierarchy's diagonal) or run nearly parallel (within about 25
/// degrees): camera, shadow and hemisphere rays do, random rays do not.
bool coherent(const kxQBVH& qbvh, unsigned int count, const Wm4::Vector3<float>* origins,
              const Wm4::Vector3<float>* directions);

/// The way the batch queries take, by the size of the hierarchy (nodes and equations) and
/// the coherence of the rays. Beyond the last-level cache of common machines (24 MiB),
/// and from 12 MiB on for incoherent rays, walks wait on memory and are interleaved
/// (measured 1.0 to 2.1 times one call per ray there). Below 12 MiB, interleaving gained
/// up to 1.15 times on rays in random order but lost up to 0.85 times on rays sorted by
/// place, as the Python module sorts them. Otherwise occlusion walks packets (1.3 to 1.5
/// times on coherent rays, 0.97 to 1.10 on incoherent ones) and the nearest hit one ray
/// after another (interleaving measured 0.5 to 0.9 times on coherent rays).
BatchWalk batchWalk(const kxQBVH& qbvh, bool occlusion, unsigned int count, const Wm4::Vector3<float>* origins,
                    const Wm4::Vector3<float>* directions);

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
