// kxbvh's mesh reading (assimp behind loadMeshFile) on files written from the input. The
// first byte picks the file name extension, the rest is the file. A file is either
// refused with the tool's input error or gives a mesh whose indices are in range, whose
// coordinates are finite and whose figures match it; small meshes are then built into a
// hierarchy.
#include "kxFuzz.h"

#include "Errors.h"
#include "MeshSource.h"

#include "kxQBVH.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace
{
// The formats the tool's users name most; the others assimp knows stay out, as crashes
// inside assimp's rarer readers are not ours to fix.
const char* const kExtensions[] = {"obj", "ply", "stl", "off", "gltf", "glb"};
constexpr size_t kExtensionCount = sizeof kExtensions / sizeof kExtensions[0];
constexpr uint32_t kMaxBuiltTriangles = 20000;

/// A private folder for the input file, removed at exit.
const std::filesystem::path& folder()
{
    static const std::filesystem::path path = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "kxFuzzMeshReading.XXXXXX").string();
        if (!mkdtemp(pattern.data()))
        {
            std::perror("mkdtemp");
            std::abort();
        }
        std::atexit([] { std::filesystem::remove_all(folder()); });
        return std::filesystem::path(pattern);
    }();
    return path;
}

void check(const kxbvh::Mesh& m)
{
    const kx::kxVertexBuffer& vertices = *m.mesh->GetVertexBuffer();
    const kx::kxIndexBuffer& indices = *m.mesh->GetIndexBuffer();
    KX_FUZZ_CHECK(m.triangles > 0, "a mesh without triangles was accepted");
    KX_FUZZ_CHECK(uint64_t(indices.GetIndexQuantity()) == 3ull * m.triangles &&
                      uint64_t(vertices.GetVertexQuantity()) == m.vertices,
                  "figures %u triangles, %u vertices for %d indices, %d vertices", m.triangles, m.vertices,
                  indices.GetIndexQuantity(), vertices.GetVertexQuantity());
    for (int i = 0; i < indices.GetIndexQuantity(); ++i)
        KX_FUZZ_CHECK(indices.GetData()[i] < m.vertices, "index %u of %u vertices", indices.GetData()[i], m.vertices);
    kxBBox bounds;
    for (int v = 0; v < vertices.GetVertexQuantity(); ++v)
    {
        const Wm4::Vector3<float>& p = vertices.Position3(v);
        KX_FUZZ_CHECK(std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]),
                      "vertex %d is (%g, %g, %g)", v, p[0], p[1], p[2]);
        bounds.extend(p);
    }
    KX_FUZZ_CHECK(bounds == m.bounds, "the reported bounds are not the vertices' box");
    if (m.triangles <= kMaxBuiltTriangles)
    {
        kxQBVH qbvh;
        qbvh.buildFromMesh(kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations), *m.mesh,
                           4);
        KX_FUZZ_CHECK(qbvh.getGroupCount() >= (m.triangles + 3) / 4, "%u triangles in %u groups", m.triangles,
                      qbvh.getGroupCount());
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = (kxfuzz::silenceLog(), true);
    (void)quiet;
    kxfuzz::Input in(data, size);
    const std::filesystem::path path = folder() / (std::string("mesh.") + kExtensions[in.byte() % kExtensionCount]);
    {
        std::FILE* file = std::fopen(path.c_str(), "wb");
        KX_FUZZ_CHECK(file, "cannot write %s", path.c_str());
        std::fwrite(in.rest(), 1, in.remaining(), file);
        std::fclose(file);
    }
    try
    {
        check(kxbvh::loadMeshFile(path.string()));
    }
    catch (const kxbvh::InputError& error)
    {
        const std::string message = error.what();
        KX_FUZZ_CHECK(message.find(path.string()) != std::string::npos, "the error '%s' does not name the file",
                      message.c_str());
    }
    return 0;
}
