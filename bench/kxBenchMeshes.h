// Deterministic procedural meshes for the benchmarks, all made of parametric grids in grid
// order (neighbouring triangles have neighbouring numbers, as in scanned or tessellated
// models). The same arguments give the same mesh on every call.
#ifndef KXBENCHMESHES_H
#define KXBENCHMESHES_H

#include "kxPointer.h"
#include "kxTriMesh.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kxBench
{
/// A torus with a bumpy surface: one closed grid. About the requested number of triangles,
/// at least 12.
kx::kxPointer<kx::kxTriMesh> makeBumpyTorus(uint32_t triangles);

/// A rolling height field with 16 bumpy spheres standing on it, half of the triangles in
/// each, so that rays meet open ground, dense clusters and empty space. About the
/// requested number of triangles.
kx::kxPointer<kx::kxTriMesh> makeLandscape(uint32_t triangles);

uint32_t triangleCount(const kx::kxTriMesh& mesh);

/// x, y, z of every vertex, with room after the last for readers that load 16 bytes at a
/// time (Embree).
std::vector<float> paddedPositions(const kx::kxTriMesh& mesh);

#ifdef KX_BENCH_WITH_ASSIMP
/// Every mesh of a file assimp reads, merged with node transforms; null (with a message on
/// standard error) when it cannot be read or holds no triangles.
kx::kxPointer<kx::kxTriMesh> loadMeshFile(const std::string& path);
#endif

/// Meshes under the names the tables show.
using NamedMeshes = std::vector<std::pair<std::string, kx::kxPointer<kx::kxTriMesh>>>;

/// Adds the meshes named by argv[1..argc), each under its file name. False, after a line
/// on standard error, when one cannot be read (or the benchmarks were built without assimp).
bool addMeshFiles(int argc, char** argv, NamedMeshes& meshes);
} // namespace kxBench

#endif
