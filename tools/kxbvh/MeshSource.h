// Where the triangles come from: a mesh file read by assimp, or the built-in scene.
#ifndef KXBVH_MESHSOURCE_H
#define KXBVH_MESHSOURCE_H

#include <kxBBox.h>
#include <kxPointer.h>
#include <kxTriMesh.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kxbvh
{
/// Node indices of the binary hierarchy have 28 bits and a builder may need two records
/// per triangle.
constexpr uint64_t kMaxTriangles = (uint64_t(1) << 27) - 1;

/// Points of one distance query run are held with their answers in memory.
constexpr uint64_t kMaxPoints = uint64_t(1) << 28;

struct MeshSource
{
    std::string path;                   // empty: the built-in scene
    uint64_t sceneTriangles = 1000000;  // its size
};

struct Mesh
{
    kx::kxPointer<kx::kxTriMesh> mesh;
    std::string name;  // the path, or "built-in scene"
    uint32_t triangles = 0;
    uint32_t vertices = 0;
    kxBBox bounds;
    double seconds = 0.0;  // to read or generate it
};

/// Reads every mesh of a file (any format assimp knows), triangulated, with node
/// transforms applied, merged into one mesh. Throws InputError naming the file when it
/// is missing, unreadable, not understood, has no triangles, is too large, or has a
/// coordinate that is not a finite number; Cancelled on Ctrl-C.
Mesh loadMeshFile(const std::string& path);

/// The file, or the built-in scene when no path is given, with a spinner while it loads.
Mesh openMesh(const MeshSource& source);

/// The vertices of every mesh of a file (point clouds included), with node transforms
/// applied; vertices shared by faces count once. Throws InputError naming the file as
/// loadMeshFile does, and when it holds no vertex; Cancelled on Ctrl-C.
std::vector<Wm4::Vector3<float>> loadPointFile(const std::string& path);
} // namespace kxbvh

#endif
