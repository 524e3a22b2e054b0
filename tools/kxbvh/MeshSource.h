// Where the triangles come from: a mesh file read by assimp, or the built-in scene.
#ifndef KXBVH_MESHSOURCE_H
#define KXBVH_MESHSOURCE_H

#include <kxBBox.h>
#include <kxPointer.h>
#include <kxTriMesh.h>

#include <assimp/mesh.h>
#include <assimp/postprocess.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kxbvh
{
/// Node indices of the binary hierarchy have 28 bits and a builder may need two records
/// per triangle.
constexpr uint64_t kMaxTriangles = (uint64_t(1) << 27) - 1;

/// How a file is read.
struct ReadOptions
{
    bool verbose = false;  // show assimp's own messages on standard error
    /// Memory assimp may take to read the file: empty for automaticReadMemory, 0 for no limit.
    std::optional<uint64_t> memory;
};

/// Points of one distance query run are held with their answers in memory.
constexpr uint64_t kMaxPoints = uint64_t(1) << 28;

struct MeshSource
{
    std::string path;                   // empty: the built-in scene
    uint64_t sceneTriangles = 1000000;  // its size
    ReadOptions read;
};

/// What assimp may take to read a file of this size unless told otherwise: 1 GiB, or 64
/// times the file for larger ones. Files whose data lie in other files (glTF with .bin
/// buffers) may need more.
constexpr uint64_t automaticReadMemory(uint64_t fileSize)
{
    constexpr uint64_t kFloor = uint64_t(1) << 30, kPerByte = 64;
    return fileSize > kFloor / kPerByte ? fileSize * kPerByte : kFloor;
}

/// How assimp is asked to read: triangulated, identical vertices joined, the scene
/// validated, and points and lines (kDroppedPrimitives) dropped.
constexpr unsigned kImportFlags = aiProcess_Triangulate | aiProcess_JoinIdenticalVertices | aiProcess_SortByPType |
                                  aiProcess_ValidateDataStructure;
constexpr int kDroppedPrimitives = aiPrimitiveType_POINT | aiPrimitiveType_LINE;

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
/// is missing, unreadable, not understood, declares more than it holds, needs more memory
/// to read than allowed, has no triangles, is too large, or has a coordinate that is not
/// a finite number; Cancelled on Ctrl-C.
Mesh loadMeshFile(const std::string& path, const ReadOptions& options = ReadOptions());

/// The file, or the built-in scene when no path is given, with a spinner while it loads.
Mesh openMesh(const MeshSource& source);

/// The vertices of every mesh of a file (point clouds included), with node transforms
/// applied; vertices shared by faces count once. Throws InputError naming the file as
/// loadMeshFile does, and when it holds no vertex; Cancelled on Ctrl-C.
std::vector<Wm4::Vector3<float>> loadPointFile(const std::string& path, const ReadOptions& options = ReadOptions());
} // namespace kxbvh

#endif
