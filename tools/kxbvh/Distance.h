// kxbvh distance: how far every point of a file lies from a mesh, through the QBVH's
// closest-point query.
#ifndef KXBVH_DISTANCE_H
#define KXBVH_DISTANCE_H

#include "Hierarchy.h"
#include "MeshSource.h"

#include <limits>
#include <string>
#include <vector>

namespace kxbvh
{
struct DistanceOptions
{
    MeshSource source;
    std::string points;
    BuildOptions build;
    std::string output;  // .csv or .ply; empty: the summary only
    float maxDistance = std::numeric_limits<float>::infinity();
    unsigned threads = 0;
};

/// One point's answer; triangle is 0xFFFFFFFF when nothing lies within the largest distance.
struct PointDistance
{
    float distance;
    unsigned triangle;
    Wm4::Vector3<float> closest;
};

/// Asks findClosestPoint for every point on `threads` threads with a progress bar;
/// Cancelled on Ctrl-C.
std::vector<PointDistance> measureDistances(const kxQBVH& qbvh, const std::vector<Wm4::Vector3<float>>& points,
                                            float maxDistance, unsigned threads, double& seconds);

void runDistance(const DistanceOptions& options);
} // namespace kxbvh

#endif
