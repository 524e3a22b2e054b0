// kxbvh cull: which tiles of the picture see any geometry, one convex-hull query per
// tile frustum, drawn as a mask over the rendering.
#ifndef KXBVH_CULL_H
#define KXBVH_CULL_H

#include "Camera.h"
#include "Hierarchy.h"
#include "MeshSource.h"

#include <string>
#include <vector>

namespace kxbvh
{
struct CullOptions
{
    MeshSource source;
    BuildOptions build;
    CameraOptions camera;
    int tile = 32;  // pixels
    std::string output = "kxbvh-cull.png";
    unsigned threads = 0;
};

struct TileGrid
{
    int columns = 0;
    int rows = 0;
    int tile = 0;
    std::vector<uint8_t> covered;  // row by row
};

/// Asks intersectConvexHull once for every tile's frustum, on `threads` threads.
/// seconds is the time of one pass over all tiles (averaged over repeated passes so that
/// a small grid still gives a steady figure).
TileGrid cullTiles(const kxQBVH& qbvh, const Camera& camera, int tile, unsigned threads, double& seconds);

void runCull(const CullOptions& options);
} // namespace kxbvh

#endif
