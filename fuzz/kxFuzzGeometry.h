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
    eSAH,
    eHighQuality
};
constexpr Builder kBuilders[] = {Builder::eLinear, Builder::eSAH, Builder::eHighQuality};
const char* builderName(Builder builder);

struct BuildSettings
{
    unsigned int leafSize = 4;  // linear builder
    unsigned int mortonBits = 20;
    unsigned int binCount = 16;  // SAH builder
    unsigned int maxLeaf = 4;    // high-quality builder
    bool spatialSplits = true;
};

/// Whether the builder's trees may hold a triangle in several leaves, each bounding only
/// the clipped part of it.
bool clipsTriangles(Builder builder, const BuildSettings& settings);

/// The high-quality builder reads the mesh; the others the container made from it.
void buildBinary(Builder builder, const BuildSettings& settings, const Mesh& mesh,
                 const kxBVHTriangleContainer& container, kxGenericBVH& bvh);

/// A binary hierarchy reached from the root: each record once, pairs of consecutive
/// children with adjacent runs covering the index array, every box holding its children.
/// Every primitive exactly once, every leaf box holding its primitives' boxes; where the
/// builder clips triangles, instead every primitive at least once, at most N + N / 4
/// references, every leaf box overlapping its primitives' boxes and lying within their
/// union. The high-quality builder's leaf limit holds. Stops the run on the first violation.
void checkBinary(const kxGenericBVH& bvh, const kxBVHTriangleContainer& container, Builder builder,
                 const BuildSettings& settings);

/// A four-wide hierarchy collapsed from a build over mesh: every node reached once,
/// references in range, every slot's box holding what lies below it, every triangle in
/// exactly one lane, padding lanes empty, vertex blocks equal to the mesh's corners,
/// the root box holding every slot of the root. A clipped tree (see clipsTriangles) holds
/// a triangle in one lane or more, at most N + N / 4 lanes in all, under a slot box that
/// overlaps the triangle's box.
void checkFourWide(const kxQBVH& qbvh, const Mesh& mesh, const char* builder, bool clipped = false);

/// For each triangle, its group and lane (one of them in a clipped tree, where every
/// lane of a triangle holds the same data).
struct Placement
{
    uint32_t group = 0xFFFFFFFFu;
    int lane = 0;
};
std::vector<Placement> placeTriangles(const kxQBVH& qbvh, uint32_t triangles);

/// a holds b on every axis; NaN faces hold anything, the checks leave them to the
/// sanitizers.
bool holds(const kxBBox& a, const kxBBox& b);

/// a and b share a point on every axis, faces touching included; NaN faces overlap
/// anything, as for holds, and so does b on an axis where it is empty (a triangle whose
/// corners are all NaN there).
bool overlaps(const kxBBox& a, const kxBBox& b);
} // namespace kxfuzz

#endif
