#include "MeshSource.h"

#include "Errors.h"
#include "Format.h"
#include "Interrupt.h"
#include "Progress.h"
#include "Scene.h"

#include <assimp/Importer.hpp>
#include <assimp/ProgressHandler.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

namespace kxbvh
{
namespace
{
InputError fileError(const std::string& path, const std::string& problem)
{
    return InputError("'" + path + "' " + problem);
}

void checkReadable(const std::string& path)
{
    struct stat info;
    if (stat(path.c_str(), &info) != 0)
        throw InputError("cannot open '" + path + "': " + std::strerror(errno));
    if (S_ISDIR(info.st_mode))
        throw fileError(path, "is a directory, not a mesh file");
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        throw InputError("cannot open '" + path + "': " + std::strerror(errno));
    std::fclose(file);
    if (info.st_size == 0)
        throw fileError(path, "is empty");
}

/// Assimp's PLY reader never returns from some malformed headers, so a PLY header is
/// checked here first: every line up to end_header must start with a known keyword.
void checkPlyHeader(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string line;
    if (!std::getline(file, line) || line.compare(0, 3, "ply") != 0)
        return;
    static const char* const keywords[] = {"format", "comment", "obj_info", "element", "property"};
    constexpr int kMaxHeaderLines = 100000;
    for (int number = 2; number <= kMaxHeaderLines && std::getline(file, line); ++number)
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line == "end_header")
            return;
        const std::string word = line.substr(0, line.find(' '));
        if (std::find(std::begin(keywords), std::end(keywords), word) == std::end(keywords))
            throw fileError(path, "is not a valid PLY file: header line " + std::to_string(number) + " ('" +
                                      line.substr(0, 40) + "') is not a PLY header line");
    }
    throw fileError(path, "is not a valid PLY file: its header has no end_header line");
}

/// Assimp reads a binary PLY file that ends early to the end of its buffer and fills the
/// missing vertices with whatever follows, so a file whose first element, a vertex list of
/// plain properties, needs more bytes than the file holds is refused here.
void checkPlyVertexData(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string line;
    if (!std::getline(file, line) || line.compare(0, 3, "ply") != 0 || !std::getline(file, line) ||
        line.compare(0, 13, "format binary") != 0)
        return;
    uint64_t vertices = 0, recordSize = 0;
    bool inVertices = false, first = true;
    while (std::getline(file, line))
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::istringstream words(line);
        std::string word, type;
        words >> word;
        if (word == "end_header")
            break;
        if (word == "element")
        {
            std::string name;
            words >> name;
            inVertices = first && name == "vertex" && (words >> vertices);
            first = false;
        }
        else if (word == "property" && inVertices)
        {
            words >> type;
            static const std::pair<const char*, int> sizes[] = {
                {"char", 1},  {"uchar", 1},  {"int8", 1},   {"uint8", 1},  {"short", 2},  {"ushort", 2},
                {"int16", 2}, {"uint16", 2}, {"int", 4},    {"uint", 4},   {"float", 4},  {"int32", 4},
                {"uint32", 4}, {"float32", 4}, {"double", 8}, {"float64", 8}};
            const auto size = std::find_if(std::begin(sizes), std::end(sizes),
                                           [&](const auto& s) { return type == s.first; });
            if (size == std::end(sizes))
                return; // a list: records have no fixed size
            recordSize += uint64_t(size->second);
        }
    }
    if (!file || vertices == 0 || recordSize == 0)
        return;
    const std::streamoff start = file.tellg();
    file.seekg(0, std::ios::end);
    const uint64_t available = uint64_t(file.tellg() - start);
    if (available / recordSize < vertices)
        throw fileError(path, "is cut short or damaged: its header announces " + groupDigits(vertices) +
                                  " vertices of " + std::to_string(recordSize) + " bytes, its data holds " +
                                  groupDigits(available / recordSize));
}

/// Lets Ctrl-C stop assimp between its steps.
class InterruptibleImport : public Assimp::ProgressHandler
{
public:
    bool Update(float) override { return !interrupted(); }
};

bool finite(const aiVector3D& p)
{
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

struct Merged
{
    std::vector<aiVector3D> positions;
    std::vector<unsigned> indices;
    std::optional<aiVector3D> firstNonFinite;  // as written in the file
};

uint64_t countTriangles(const aiScene& scene, const aiNode& node)
{
    uint64_t triangles = 0;
    for (unsigned m = 0; m < node.mNumMeshes; ++m)
    {
        const aiMesh& mesh = *scene.mMeshes[node.mMeshes[m]];
        if (mesh.mPrimitiveTypes & aiPrimitiveType_TRIANGLE)
            triangles += mesh.mNumFaces;
    }
    for (unsigned c = 0; c < node.mNumChildren; ++c)
        triangles += countTriangles(scene, *node.mChildren[c]);
    return triangles;
}

/// A mesh placed by several nodes is copied once per placement.
void merge(const aiScene& scene, const aiNode& node, const aiMatrix4x4& parent, Merged& out)
{
    const aiMatrix4x4 transform = parent * node.mTransformation;
    for (unsigned m = 0; m < node.mNumMeshes; ++m)
    {
        const aiMesh& mesh = *scene.mMeshes[node.mMeshes[m]];
        if (!(mesh.mPrimitiveTypes & aiPrimitiveType_TRIANGLE))
            continue;
        const unsigned base = static_cast<unsigned>(out.positions.size());
        for (unsigned v = 0; v < mesh.mNumVertices; ++v)
        {
            if (!finite(mesh.mVertices[v]) && !out.firstNonFinite)
                out.firstNonFinite = mesh.mVertices[v];
            out.positions.push_back(transform * mesh.mVertices[v]);
        }
        for (unsigned f = 0; f < mesh.mNumFaces; ++f)
        {
            const aiFace& face = mesh.mFaces[f];
            if (face.mNumIndices != 3)
                continue;
            for (unsigned k = 0; k < 3; ++k)
                out.indices.push_back(base + face.mIndices[k]);
        }
    }
    for (unsigned c = 0; c < node.mNumChildren; ++c)
        merge(scene, *node.mChildren[c], transform, out);
}

std::string describePoint(const aiVector3D& p)
{
    return "(" + formatFloat(p.x) + ", " + formatFloat(p.y) + ", " + formatFloat(p.z) + ")";
}

Mesh toMesh(const Merged& merged)
{
    Mesh result;
    auto* vertices = new kx::kxVertexBuffer(static_cast<int>(merged.positions.size()));
    for (size_t i = 0; i < merged.positions.size(); ++i)
    {
        const aiVector3D& p = merged.positions[i];
        vertices->Position3(static_cast<int>(i)) = Wm4::Vector3<float>(p.x, p.y, p.z);
    }
    auto* indices = new kx::kxIndexBuffer(static_cast<int>(merged.indices.size()));
    std::copy(merged.indices.begin(), merged.indices.end(), indices->GetData());
    result.mesh = new kx::kxTriMesh(vertices, indices);
    return result;
}

void describe(Mesh& mesh)
{
    const kx::kxVertexBuffer& vertices = *mesh.mesh->GetVertexBuffer();
    mesh.vertices = static_cast<uint32_t>(vertices.GetVertexQuantity());
    mesh.triangles = static_cast<uint32_t>(mesh.mesh->GetIndexBuffer()->GetIndexQuantity() / 3);
    for (int v = 0; v < vertices.GetVertexQuantity(); ++v)
        mesh.bounds.extend(vertices.Position3(v));
}
} // namespace

Mesh loadMeshFile(const std::string& path)
{
    checkReadable(path);
    checkPlyHeader(path);
    Assimp::Importer importer;
    importer.SetProgressHandler(new InterruptibleImport);
    importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, aiPrimitiveType_POINT | aiPrimitiveType_LINE);
    const aiScene* scene = importer.ReadFile(path, aiProcess_Triangulate | aiProcess_JoinIdenticalVertices |
                                                       aiProcess_SortByPType | aiProcess_ValidateDataStructure);
    throwIfInterrupted("reading the mesh");
    if (!scene)
    {
        std::string reason = importer.GetErrorString();
        // Assimp refuses a file whose meshes are empty or all went away as points or lines.
        for (const char* noTriangles : {"no meshes", "No meshes", "contains no faces"})
            if (reason.find(noTriangles) != std::string::npos)
                throw fileError(path, "contains no triangles");
        while (!reason.empty() && (reason.back() == '\n' || reason.back() == '.'))
            reason.pop_back();
        throw InputError("cannot read '" + path + "' as a mesh: " + reason);
    }
    if (!scene->mRootNode)
        throw fileError(path, "contains no triangles");

    const uint64_t triangles = countTriangles(*scene, *scene->mRootNode);
    if (triangles == 0)
        throw fileError(path, "contains no triangles");
    if (triangles > kMaxTriangles)
        throw fileError(path, "has " + groupDigits(triangles) + " triangles; at most " + groupDigits(kMaxTriangles) +
                                  " fit in one hierarchy");

    Merged merged;
    merged.indices.reserve(3 * triangles);
    merge(*scene, *scene->mRootNode, aiMatrix4x4(), merged);
    if (merged.firstNonFinite)
        throw fileError(path, "has a vertex whose coordinates are not all finite numbers: " +
                                  describePoint(*merged.firstNonFinite));
    for (const aiVector3D& p : merged.positions)
        if (!finite(p))
            throw fileError(path, "has a vertex that its node transforms move beyond the range of floats: " +
                                      describePoint(p));
    Mesh mesh = toMesh(merged);
    mesh.name = path;
    describe(mesh);
    return mesh;
}

namespace
{
void collectPoints(const aiScene& scene, const aiNode& node, const aiMatrix4x4& parent, const std::string& path,
                   std::vector<Wm4::Vector3<float>>& out)
{
    const aiMatrix4x4 transform = parent * node.mTransformation;
    for (unsigned m = 0; m < node.mNumMeshes; ++m)
    {
        if (node.mMeshes[m] >= scene.mNumMeshes || !scene.mMeshes[node.mMeshes[m]])
            throw fileError(path, "is not a valid scene: a node names a mesh that does not exist");
        const aiMesh& mesh = *scene.mMeshes[node.mMeshes[m]];
        if (mesh.mNumVertices > 0 && !mesh.mVertices)
            throw fileError(path, "has a mesh without positions");
        if (out.size() + mesh.mNumVertices > kMaxPoints)
            throw fileError(path, "has more than " + groupDigits(kMaxPoints) + " points");
        for (unsigned v = 0; v < mesh.mNumVertices; ++v)
        {
            if (!finite(mesh.mVertices[v]))
                throw fileError(path, "has a vertex whose coordinates are not all finite numbers: " +
                                          describePoint(mesh.mVertices[v]));
            const aiVector3D p = transform * mesh.mVertices[v];
            if (!finite(p))
                throw fileError(path, "has a vertex that its node transforms move beyond the range of floats: " +
                                          describePoint(p));
            out.emplace_back(p.x, p.y, p.z);
        }
    }
    for (unsigned c = 0; c < node.mNumChildren; ++c)
        collectPoints(scene, *node.mChildren[c], transform, path, out);
}
} // namespace

std::vector<Wm4::Vector3<float>> loadPointFile(const std::string& path)
{
    checkReadable(path);
    checkPlyHeader(path);
    checkPlyVertexData(path);
    std::vector<Wm4::Vector3<float>> points;
    {
        Progress progress("reading " + path);
        Assimp::Importer importer;
        importer.SetProgressHandler(new InterruptibleImport);
        const aiScene* scene = importer.ReadFile(path, 0);
        // Faces repeat their corners once per face in some formats; a point cloud has no
        // faces, which the validation step would refuse.
        bool faces = scene && scene->mNumMeshes > 0;
        for (unsigned m = 0; faces && m < scene->mNumMeshes; ++m)
            faces = scene->mMeshes[m]->mNumFaces > 0;
        if (faces)
            scene = importer.ApplyPostProcessing(aiProcess_JoinIdenticalVertices | aiProcess_ValidateDataStructure);
        throwIfInterrupted("reading the points");
        if (!scene)
        {
            std::string reason = importer.GetErrorString();
            for (const char* noPoints : {"no meshes", "No meshes"})
                if (reason.find(noPoints) != std::string::npos)
                    throw fileError(path, "contains no points");
            while (!reason.empty() && (reason.back() == '\n' || reason.back() == '.'))
                reason.pop_back();
            throw InputError("cannot read '" + path + "' as points: " + reason);
        }
        if (scene->mRootNode)
            collectPoints(*scene, *scene->mRootNode, aiMatrix4x4(), path, points);
    }
    if (points.empty())
        throw fileError(path, "contains no points");
    return points;
}

Mesh openMesh(const MeshSource& source)
{
    const auto start = std::chrono::steady_clock::now();
    Mesh mesh;
    if (source.path.empty())
    {
        Progress progress("generating the built-in scene");
        mesh.mesh = makeScene(source.sceneTriangles);
        mesh.name = "built-in scene";
        describe(mesh);
    }
    else
    {
        Progress progress("reading " + source.path);
        mesh = loadMeshFile(source.path);
    }
    mesh.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return mesh;
}
} // namespace kxbvh
