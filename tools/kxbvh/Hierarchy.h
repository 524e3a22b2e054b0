// Builds what the queries need: a binary BVH (linear, binned SAH or high quality) collapsed
// into a QBVH.
#ifndef KXBVH_HIERARCHY_H
#define KXBVH_HIERARCHY_H

#include "MeshSource.h"

#include <kxGenericBVH.h>
#include <kxQBVH.h>

#include <algorithm>
#include <cstdint>

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

/// The program's heap, for the peaks of a build: the bytes in use now, and the largest
/// since the last restart. Only programs that count their allocations have one.
struct HeapMeter
{
    int64_t (*inUse)();
    void (*restartPeak)();
    int64_t (*peak)();
};

struct BuildOptions
{
    Builder builder = Builder::eLinear;
    unsigned leafSize = 4;  // largest leaf of the linear and high-quality builders
    const HeapMeter* heap = nullptr;  // peaks are measured when given
};

/// Time and peak heap of each phase; a peak counts from what was in use before the build,
/// so the collapse's includes the binary hierarchy it reads.
struct BuildTimes
{
    double container = 0.0;  // boxing the triangles
    double binary = 0.0;     // the binary hierarchy
    double collapse = 0.0;   // binary to four-wide, with the triangle data
    double total() const { return container + binary + collapse; }

    bool peaksMeasured = false;
    uint64_t containerPeak = 0, binaryPeak = 0, collapsePeak = 0;  // bytes
    uint64_t peak() const { return std::max({containerPeak, binaryPeak, collapsePeak}); }
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
