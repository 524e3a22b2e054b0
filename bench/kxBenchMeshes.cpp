#include "kxBenchMeshes.h"

#include <algorithm>
#include <cstdio>
#ifdef KX_BENCH_WITH_ASSIMP
#include <assimp/cimport.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#endif
#include <cmath>

namespace kxBench
{
namespace
{
constexpr double kPi = 3.14159265358979323846;

struct MeshData
{
    std::vector<Wm4::Vector3<float>> positions;
    std::vector<unsigned int> indices;
};

// rows x columns quads of two triangles each, in row order. point(i, j) gives the vertex of
// row i and column j. A closed grid reuses its first row and column as its last ones.
template <typename Point>
void addGrid(MeshData& mesh, uint32_t rows, uint32_t columns, bool closed, Point&& point)
{
    const uint32_t base = static_cast<uint32_t>(mesh.positions.size());
    const uint32_t vertexRows = closed ? rows : rows + 1, vertexColumns = closed ? columns : columns + 1;
    for (uint32_t i = 0; i < vertexRows; ++i)
        for (uint32_t j = 0; j < vertexColumns; ++j)
            mesh.positions.push_back(point(i, j));
    const auto vertex = [&](uint32_t i, uint32_t j) { return base + (i % vertexRows) * vertexColumns + j % vertexColumns; };
    for (uint32_t i = 0; i < rows; ++i)
        for (uint32_t j = 0; j < columns; ++j)
        {
            const uint32_t a = vertex(i, j), b = vertex(i, j + 1), c = vertex(i + 1, j + 1), d = vertex(i + 1, j);
            mesh.indices.insert(mesh.indices.end(), {a, b, c, a, c, d});
        }
}

kx::kxPointer<kx::kxTriMesh> toTriMesh(const MeshData& mesh)
{
    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(static_cast<int>(mesh.positions.size()));
    for (size_t i = 0; i < mesh.positions.size(); ++i)
        vertices->Position3(static_cast<int>(i)) = mesh.positions[i];
    kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(static_cast<int>(mesh.indices.size()));
    std::copy(mesh.indices.begin(), mesh.indices.end(), indices->GetData());
    return new kx::kxTriMesh(vertices, indices);
}
} // namespace

kx::kxPointer<kx::kxTriMesh> makeBumpyTorus(uint32_t triangles)
{
    const uint32_t rows = std::max(2u, static_cast<uint32_t>(std::sqrt(triangles / 4.0)));
    const uint32_t columns = std::max(3u, triangles / (2u * rows));
    const double major = 1.0, minor = 0.35;
    MeshData mesh;
    addGrid(mesh, rows, columns, true, [&](uint32_t i, uint32_t j) {
        const double v = 2.0 * kPi * i / rows, u = 2.0 * kPi * j / columns;
        const double bump = 0.06 * std::sin(7.0 * u) * std::cos(5.0 * v) + 0.02 * std::sin(23.0 * u + 11.0 * v) +
                            0.005 * std::sin(97.0 * u) * std::sin(61.0 * v);
        const double r = minor * (1.0 + bump);
        return Wm4::Vector3<float>(static_cast<float>((major + r * std::cos(v)) * std::cos(u)),
                                   static_cast<float>((major + r * std::cos(v)) * std::sin(u)),
                                   static_cast<float>(r * std::sin(v)));
    });
    return toTriMesh(mesh);
}

kx::kxPointer<kx::kxTriMesh> makeLandscape(uint32_t triangles)
{
    MeshData mesh;
    const uint32_t groundSide = std::max(1u, static_cast<uint32_t>(std::sqrt(triangles / 4.0)));
    addGrid(mesh, groundSide, groundSide, false, [&](uint32_t i, uint32_t j) {
        const double x = (static_cast<double>(i) / groundSide - 0.5) * 100.0;
        const double z = (static_cast<double>(j) / groundSide - 0.5) * 100.0;
        return Wm4::Vector3<float>(static_cast<float>(x), static_cast<float>(2.0 * std::sin(0.21 * x) * std::cos(0.17 * z)),
                                   static_cast<float>(z));
    });
    const uint32_t sphereSide = std::max(2u, static_cast<uint32_t>(std::sqrt(triangles / 64.0)));
    for (int s = 0; s < 16; ++s)
    {
        const double cx = -37.5 + 25.0 * (s % 4), cz = -37.5 + 25.0 * (s / 4);
        const double radius = 4.0 + s % 3;
        addGrid(mesh, sphereSide, sphereSide, false, [&](uint32_t i, uint32_t j) {
            const double theta = kPi * i / sphereSide, phi = 2.0 * kPi * j / sphereSide;
            const double r = radius * (1.0 + 0.08 * std::sin(9.0 * theta) * std::sin(7.0 * phi));
            return Wm4::Vector3<float>(static_cast<float>(cx + r * std::sin(theta) * std::cos(phi)),
                                       static_cast<float>(radius + 1.0 + r * std::cos(theta)),
                                       static_cast<float>(cz + r * std::sin(theta) * std::sin(phi)));
        });
    }
    return toTriMesh(mesh);
}

uint32_t triangleCount(const kx::kxTriMesh& mesh)
{
    return static_cast<uint32_t>(mesh.GetIndexBuffer()->GetIndexQuantity() / 3);
}

std::vector<float> paddedPositions(const kx::kxTriMesh& mesh)
{
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    std::vector<float> positions(3 * static_cast<size_t>(vertices.GetVertexQuantity()) + 4);
    for (int i = 0; i < vertices.GetVertexQuantity(); ++i)
        for (int a = 0; a < 3; ++a)
            positions[3 * static_cast<size_t>(i) + a] = vertices.Position3(i)[a];
    return positions;
}

#ifdef KX_BENCH_WITH_ASSIMP
kx::kxPointer<kx::kxTriMesh> loadMeshFile(const std::string& path)
{
    const aiScene* scene = aiImportFile(path.c_str(), aiProcess_Triangulate | aiProcess_JoinIdenticalVertices |
                                                          aiProcess_PreTransformVertices);
    if (!scene)
    {
        std::fprintf(stderr, "cannot read %s: %s\n", path.c_str(), aiGetErrorString());
        return nullptr;
    }
    std::vector<Wm4::Vector3<float>> positions;
    std::vector<unsigned int> indices;
    for (unsigned int i = 0; i < scene->mNumMeshes; ++i)
    {
        const aiMesh* mesh = scene->mMeshes[i];
        const unsigned int base = static_cast<unsigned int>(positions.size());
        for (unsigned int v = 0; v < mesh->mNumVertices; ++v)
            positions.emplace_back(mesh->mVertices[v].x, mesh->mVertices[v].y, mesh->mVertices[v].z);
        for (unsigned int f = 0; f < mesh->mNumFaces; ++f)
            if (mesh->mFaces[f].mNumIndices == 3)
                for (int c = 0; c < 3; ++c)
                    indices.push_back(base + mesh->mFaces[f].mIndices[c]);
    }
    aiReleaseImport(scene);
    if (indices.empty())
        return nullptr;
    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(static_cast<int>(positions.size()));
    std::copy(positions.begin(), positions.end(), &vertices->Position3(0));
    kx::kxPointer<kx::kxIndexBuffer> index = new kx::kxIndexBuffer(static_cast<int>(indices.size()));
    std::copy(indices.begin(), indices.end(), index->GetData());
    return new kx::kxTriMesh(vertices, index);
}
#endif

bool addMeshFiles(int argc, char** argv, NamedMeshes& meshes)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::string path = argv[i];
#ifdef KX_BENCH_WITH_ASSIMP
        const kx::kxPointer<kx::kxTriMesh> mesh = loadMeshFile(path);
#else
        const kx::kxPointer<kx::kxTriMesh> mesh;
        std::fprintf(stderr, "built without assimp: %s is not read\n", path.c_str());
#endif
        if (!mesh)
            return false;
        meshes.emplace_back(path.substr(path.find_last_of('/') + 1), mesh);
    }
    return true;
}
} // namespace kxBench
