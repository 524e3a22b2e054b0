#include "MeshSource.h"

#include "Errors.h"
#include "Format.h"
#include "HeaderChecks.h"
#include "ImportGuards.h"
#include "Interrupt.h"
#include "Progress.h"
#include "Scene.h"
#include "Stopwatch.h"

#include <assimp/Importer.hpp>
#include <assimp/ProgressHandler.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
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

/// The file's size.
uint64_t checkReadable(const std::string& path)
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
    return static_cast<uint64_t>(info.st_size);
}

/// Assimp's messages may span lines; ours take one.
std::string oneLine(std::string text)
{
    for (char& c : text)
        if (c == '\n' || c == '\r' || c == '\t')
            c = ' ';
    while (!text.empty() && (text.back() == ' ' || text.back() == '.'))
        text.pop_back();
    return text;
}

InputError tooLargeToRead(const std::string& path, uint64_t budget, bool chosen)
{
    return fileError(path, "needs more than " + formatBytes(budget) + " of memory to read (" +
                               (chosen ? "--read-memory" : "the limit for a file of its size; --read-memory raises it") +
                               ")");
}

/// Runs read with assimp's output routed as asked and the process's memory bounded;
/// running out of that memory becomes one line naming the file.
template <typename Read>
const aiScene* readGuarded(Assimp::Importer& importer, const std::string& path, uint64_t fileSize,
                           const ReadOptions& options, const char* activity, Read read)
{
    const uint64_t budget = options.memory ? *options.memory : automaticReadMemory(fileSize);
    const aiScene* scene = nullptr;
    bool outOfMemory = false;
    {
        const ReaderOutput output(options.verbose);
        const ReadMemoryLimit limit(budget);
        try
        {
            scene = read();
        }
        catch (const std::bad_alloc&)
        {
            if (!limit.active())
                throw;
            outOfMemory = true;
        }
        outOfMemory = outOfMemory || (!scene && limit.active() &&
                                      std::string(importer.GetErrorString()).find("bad_alloc") != std::string::npos);
    }
    throwIfInterrupted(activity);
    if (outOfMemory)
        throw tooLargeToRead(path, budget, options.memory.has_value());
    return scene;
}

/// Lets Ctrl-C stop assimp between its steps.
class InterruptibleImport : public Assimp::ProgressHandler
{
public:
    bool Update(float) override { return !interrupted(); }
};

/// Assimp's triangulation stops the process with an assertion on a face without corners
/// (its PLY reader makes them) and on a mesh that declares polygons it does not hold, so
/// such faces are dropped and the face kinds set from the faces before the steps run.
const aiScene* readScene(Assimp::Importer& importer, const std::string& path)
{
    const aiScene* scene = importer.ReadFile(path, aiProcess_ValidateDataStructure);
    if (!scene)
        return nullptr;
    static const unsigned kindOf[4] = {0u, aiPrimitiveType_POINT, aiPrimitiveType_LINE, aiPrimitiveType_TRIANGLE};
    for (unsigned m = 0; m < scene->mNumMeshes; ++m)
    {
        aiMesh& mesh = *scene->mMeshes[m];
        unsigned kinds = 0, kept = 0;
        for (unsigned f = 0; f < mesh.mNumFaces; ++f)
        {
            const unsigned corners = mesh.mFaces[f].mNumIndices;
            if (corners == 0)
                continue;
            // The dropped faces move behind the kept ones, where the mesh still frees them.
            if (kept != f)
                std::swap(mesh.mFaces[kept], mesh.mFaces[f]);
            ++kept;
            kinds |= corners < 4 ? kindOf[corners] : unsigned(aiPrimitiveType_POLYGON);
        }
        mesh.mNumFaces = kept;
        mesh.mPrimitiveTypes = kinds;
    }
    return importer.ApplyPostProcessing(kImportFlags);
}

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

Mesh loadMeshFile(const std::string& path, const ReadOptions& options)
{
    const uint64_t fileSize = checkReadable(path);
    checkPlyHeader(path, fileSize);
    checkOffHeader(path, fileSize);
    checkGlbHeader(path, fileSize);
    Assimp::Importer importer;
    importer.SetProgressHandler(new InterruptibleImport);
    importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, kDroppedPrimitives);
    const aiScene* scene = readGuarded(importer, path, fileSize, options, "reading the mesh",
                                       [&] { return readScene(importer, path); });
    if (!scene)
    {
        const std::string reason = oneLine(importer.GetErrorString());
        // Assimp refuses a file whose meshes are empty or all went away as points or lines.
        for (const char* noTriangles : {"no meshes", "No meshes", "contains no faces"})
            if (reason.find(noTriangles) != std::string::npos)
                throw fileError(path, "contains no triangles");
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

std::vector<Wm4::Vector3<float>> loadPointFile(const std::string& path, const ReadOptions& options)
{
    const uint64_t fileSize = checkReadable(path);
    checkPlyHeader(path, fileSize);
    checkOffHeader(path, fileSize);
    checkGlbHeader(path, fileSize);
    std::vector<Wm4::Vector3<float>> points;
    {
        Progress progress("reading " + path);
        Assimp::Importer importer;
        importer.SetProgressHandler(new InterruptibleImport);
        const aiScene* scene = readGuarded(importer, path, fileSize, options, "reading the points", [&] {
            const aiScene* read = importer.ReadFile(path, 0);
            // Faces repeat their corners once per face in some formats; a point cloud has no
            // faces, which the validation step would refuse.
            bool faces = read && read->mNumMeshes > 0;
            for (unsigned m = 0; faces && m < read->mNumMeshes; ++m)
                faces = read->mMeshes[m]->mNumFaces > 0;
            return faces ? importer.ApplyPostProcessing(aiProcess_JoinIdenticalVertices | aiProcess_ValidateDataStructure)
                         : read;
        });
        if (!scene)
        {
            const std::string reason = oneLine(importer.GetErrorString());
            for (const char* noPoints : {"no meshes", "No meshes"})
                if (reason.find(noPoints) != std::string::npos)
                    throw fileError(path, "contains no points");
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
    Stopwatch clock;
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
        mesh = loadMeshFile(source.path, source.read);
    }
    mesh.seconds = clock.lap();
    return mesh;
}
} // namespace kxbvh
