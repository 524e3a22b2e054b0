// Builds what the queries need: a binary BVH (linear, binned SAH or high quality) collapsed
// into a QBVH.
#ifndef KXBVH_HIERARCHY_H
#define KXBVH_HIERARCHY_H

#include "MeshSource.h"

#include <kxGenericBVH.h>
#include <kxQBVH.h>

namespace kxbvh
{
class Progress;

enum class Builder
{
    eLinear,
    eSah,
    eHq
};

const char* builderName(Builder builder);

struct BuildOptions
{
    Builder builder = Builder::eLinear;
    unsigned leafSize = 4;  // largest leaf of the linear and high-quality builders
};

struct BuildTimes
{
    double container = 0.0;  // boxing the triangles
    double binary = 0.0;     // the binary hierarchy
    double collapse = 0.0;   // binary to four-wide, with the triangle data
    double total() const { return container + binary + collapse; }
};

/// The QBVH holds both vertices (for convex-hull queries) and equations (for rays).
struct Hierarchy
{
    kxGenericBVH bvh;
    kxQBVH qbvh;
    BuildTimes times;
};

/// Builds into out, timing each phase. Shows a spinner unless the caller passes its own
/// progress line to tick. Ctrl-C stops the linear and high-quality builders through the
/// library's cancellation interface and then throws Cancelled; the SAH builder cannot be
/// stopped midway, so the tool stops as soon as it returns.
void buildHierarchy(const Mesh& mesh, const BuildOptions& options, Hierarchy& out, const Progress* ticker = nullptr);
} // namespace kxbvh

#endif
