// From numpy arrays to a built four-wide hierarchy, with the figures `kxbvh info` reports.
#ifndef KXPY_BUILD_H
#define KXPY_BUILD_H

#include "Arrays.h"

#include <Hierarchy.h>
#include <MeshSource.h>
#include <Stats.h>

#include <kxQBVH.h>

#include <string>

namespace kxpy
{
enum class BuilderKind
{
    eLinear,
    eSah,
    eHq
};

/// "linear", "sah" or "hq"; ValueError for anything else.
BuilderKind builderKind(const std::string& name);
const char* builderText(BuilderKind kind);

/// The library's mesh type owns its buffers, so the arrays are copied into one: read in
/// place (float32 or float64 vertices and 8- to 64-bit indices in any layout, other dtypes
/// converted once first) and checked on the way. ValueError for a shape other than (V, 3)
/// and (T, 3), no triangles, an index out of range or a coordinate that is not a finite
/// float32; TypeError for dtypes that are not numbers (vertices) or integers (triangles).
/// Runs without the GIL once the arrays are checked.
kxbvh::Mesh meshFromArrays(py::handle vertices, py::handle triangles);

struct Figures
{
    std::string source;
    uint32_t triangles = 0;
    uint32_t vertices = 0;
    kxBBox bounds;
    double meshSeconds = 0.0;
    BuilderKind builder = BuilderKind::eLinear;
    unsigned leaf = 0;
    kxbvh::BuildTimes times;
    kxbvh::BinaryStats bvh;
    kxbvh::QbvhStats qbvh;
};

/// Builds a QBVH holding vertices and equations (what every query needs) without the GIL.
/// Ctrl-C stops the linear and high-quality builders through the cancellation interface
/// (the SAH builder between its phases) and raises KeyboardInterrupt.
Figures buildQBVH(const kxbvh::Mesh& mesh, BuilderKind builder, unsigned leaf, kxQBVH& out);

/// The object `kxbvh info --json` prints, as a dict.
py::dict figuresDict(const Figures& figures);
} // namespace kxpy

#endif
