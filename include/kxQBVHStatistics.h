#ifndef KXQBVHSTATISTICS_H
#define KXQBVHSTATISTICS_H

#include "kxQBVH.h"

/// Expected work of a ray that hits the root box of a four-wide hierarchy, under the
/// surface-area heuristic: 1 for every node visited (one test of four boxes) and 1 for
/// every group of four triangles tested, each weighted by the area of the box that leads
/// to it over the area of the root box. A hierarchy whose root is a leaf costs its group
/// count; an empty one, or one whose root box has no area, 0.
double kxComputeQBVHSAHCost(const kxQBVH& qbvh);

#endif
