// Meshes and hierarchies for the geometry fuzz targets: a mesh decoded from the input,
// every builder of the library behind one call, and the whole-structure checks that each
// binary and four-wide hierarchy must pass.
#ifndef KXFUZZGEOMETRY_H
#define KXFUZZGEOMETRY_H

#include "kxFuzz.h"

#include "kxBBox.h"
#include "kxBVHContainers.h"
#include "kxGenericBVH.h"
#include "kxPointer.h"
#include "kxQBVH.h"
#include "kxTriMesh.h"

#include <cstdint>
#include <vector>

namespace kxfuzz
{
struct Mesh
{
    kx::kxPointer<kx::kxTriMesh> mesh;
    std::vector<Wm4::Vector3<float>> positions;
    std::vector<uint32_t> indices;  // three per triangle, all below positions.size()

    uint32_t triangles() const { return static_cast<uint32_t>(indices.size() / 3); }
    const Wm4::Vector3<float>& corner(uint32_t triangle, int k) const { return positions[indices[3 * triangle + k]]; }
    /// The box of the triangle's corners, as the triangle container makes it.
    kxBBox box(uint32_t triangle) const;
};

/// Layout: vertex count - 1 (byte), triangle count (byte), repeat selector (byte), the
/// vertices (three Input::real each), then three vertex bytes per triangle (taken modulo
/// the vertex count). The triangle list is then repeated 1 to 512 times, so that large
/// sets of identical triangles occur, and cut at maxTriangles.
Mesh decodeMesh(Input& in, uint32_t maxTriangles);

/// Writes what decodeMesh reads (no repetition).
void encodeMesh(Output& out, const std::vector<Wm4::Vector3<float>>& positions, const std::vector<uint8_t>& indices,
                uint8_t repeatSelector = 0);

/// Every builder of the library that fills a kxGenericBVH. A new builder joins this list
/// and buildBinary; the targets then build, check and query its trees too.
enum class Builder
{
    eLinear,
    eSAH
};
constexpr Builder kBuilders[] = {Builder::eLinear, Builder::eSAH};
const char* builderName(Builder builder);

struct BuildSettings
{
    unsigned int leafSize = 4;  // linear builder
    unsigned int mortonBits = 20;
    unsigned int binCount = 16;  // SAH builder
};

void buildBinary(Builder builder, const BuildSettings& settings, const kxBVHTriangleContainer& container,
                 kxGenericBVH& bvh);

/// A binary hierarchy reached from the root: each record once, pairs of consecutive
/// children with adjacent runs, every primitive exactly once, every box holding its
/// primitives' boxes. Stops the run on the first violation.
void checkBinary(const kxGenericBVH& bvh, const kxBVHTriangleContainer& container, const char* builder);

/// A four-wide hierarchy collapsed from a build over mesh: every node reached once,
/// references in range, every slot's box holding what lies below it, every triangle in
/// exactly one lane, padding lanes empty, vertex blocks equal to the mesh's corners,
/// the root box holding every slot of the root.
void checkFourWide(const kxQBVH& qbvh, const Mesh& mesh, const char* builder);

/// For each triangle, its group and lane.
struct Placement
{
    uint32_t group = 0xFFFFFFFFu;
    int lane = 0;
};
std::vector<Placement> placeTriangles(const kxQBVH& qbvh, uint32_t triangles);

/// a holds b on every axis; NaN faces hold anything, the checks leave them to the
/// sanitizers.
bool holds(const kxBBox& a, const kxBBox& b);
} // namespace kxfuzz

#endif
