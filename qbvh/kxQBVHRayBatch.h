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

/// How the rays of a batch follow each other, judged from sampled neighbours.
enum class RayOrder
{
    eCoherent, ///< most leave nearly the same point (within a hundredth of the hierarchy's
               ///< diagonal) or run nearly parallel (within about 25 degrees): camera,
               ///< shadow and hemisphere rays
    eLocal,    ///< most of the others start within a quarter of the box along every axis
               ///< and point into the same octant: rays sorted by place, as the Python
               ///< module sorts them
    eScattered ///< random rays in random order
};

RayOrder rayOrder(const kxQBVH& qbvh, unsigned int count, const Wm4::Vector3<float>* origins,
                  const Wm4::Vector3<float>* directions);

/// The way the batch queries take, by the size of the hierarchy (nodes and equations) and
/// the order of the rays. Walks that wait on memory are interleaved: beyond the last-level
/// cache of common machines (24 MiB); from 12 MiB on for rays that are not coherent
/// (measured 1.0 to 2.1 times one call per ray there); and from 4 MiB on for scattered
/// rays, whose walks share nothing with the walk before (1.15 to 1.43 times packets for
/// occlusion and 1.06 to 1.36 times one by one for the nearest hit between 4 and 12 MiB;
/// below 4 MiB 0.8 to 1.07). Local rays below 12 MiB find what the walk before them
/// fetched, and lose up to 0.86 times when interleaved. Otherwise occlusion walks packets
/// (1.3 to 1.5 times on coherent rays) and the nearest hit one ray after another
/// (interleaving measured 0.5 to 0.9 times on coherent rays).
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
