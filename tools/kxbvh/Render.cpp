#include "Render.h"

#include "Format.h"
#include "Interrupt.h"
#include "Parallel.h"
#include "Progress.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>

namespace kxbvh
{
namespace
{
uint8_t toByte(float unit)
{
    return static_cast<uint8_t>(std::lround(std::clamp(unit, 0.0f, 1.0f) * 255.0f));
}

class Shader
{
public:
    Shader(const Mesh& mesh, const Camera& camera, Shade shade) : mMesh(mesh), mShade(shade)
    {
        const Vec3 center(mesh.bounds.getCenter());
        const Vec3 diagonal(mesh.bounds.max[0] - mesh.bounds.min[0], mesh.bounds.max[1] - mesh.bounds.min[1],
                            mesh.bounds.max[2] - mesh.bounds.min[2]);
        const float distance = (center - camera.eye()).Length();
        const float radius = 0.5f * diagonal.Length();
        mNear = std::max(0.0f, distance - radius);
        mFar = std::max(mNear + 1e-6f, distance + radius);
    }

    Rgba operator()(const Vec3& direction, float t, unsigned triangle) const
    {
        if (mShade == Shade::eDepth)
        {
            const float closeness = 1.0f - (t - mNear) / (mFar - mNear);
            const uint8_t grey = toByte(0.12f + 0.88f * closeness);
            return Rgba{grey, grey, grey, 255};
        }
        Vec3 normal = faceNormal(triangle);
        if (normal.Dot(direction) > 0.0f)
            normal = -normal;
        return Rgba{toByte(0.5f + 0.5f * normal[0]), toByte(0.5f + 0.5f * normal[1]), toByte(0.5f + 0.5f * normal[2]),
                    255};
    }

private:
    Vec3 faceNormal(unsigned triangle) const
    {
        const unsigned* index = mMesh.mesh->GetIndexBuffer()->GetData() + 3 * size_t(triangle);
        const kx::kxVertexBuffer& vertices = *mMesh.mesh->GetVertexBuffer();
        const Vec3& a = vertices.Position3(static_cast<int>(index[0]));
        const Vec3& b = vertices.Position3(static_cast<int>(index[1]));
        const Vec3& c = vertices.Position3(static_cast<int>(index[2]));
        Vec3 normal = (b - a).Cross(c - a);
        normal.Normalize();
        return normal;
    }

    const Mesh& mMesh;
    Shade mShade;
    float mNear;
    float mFar;
};
} // namespace

Rendering renderImage(const kxQBVH& qbvh, const Mesh& mesh, const Camera& camera, Shade shade,
                      kxQBVH::tIntersectionPolicy side, unsigned threads)
{
    Rendering result{Image(camera.width(), camera.height())};
    const Shader shader(mesh, camera, shade);
    std::vector<uint32_t> rowHits(static_cast<size_t>(camera.height()), 0);
    Progress progress("rendering " + std::to_string(camera.width()) + "x" + std::to_string(camera.height()),
                      static_cast<uint64_t>(camera.height()));
    const auto start = std::chrono::steady_clock::now();
    parallelFor(threads, static_cast<size_t>(camera.height()), [&](size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < camera.width(); ++x)
        {
            const Vec3 direction = camera.direction(x + 0.5f, y + 0.5f);
            float t = std::numeric_limits<float>::infinity();
            Wm4::Vector2<float> barycentric;
            unsigned triangle = 0xFFFFFFFFu;
            if (qbvh.intersectRay(camera.eye(), direction, 0.0f, t, barycentric, triangle, side))
            {
                result.image.at(x, y) = shader(direction, t, triangle);
                ++rowHits[row];
            }
        }
        progress.advance();
    });
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    throwIfInterrupted("rendering");
    for (uint32_t hits : rowHits)
        result.hits += hits;
    return result;
}

std::string cameraArguments(const Camera& camera)
{
    auto triple = [](const Vec3& v) {
        return formatFloat(v[0]) + "," + formatFloat(v[1]) + "," + formatFloat(v[2]);
    };
    return "--view " + triple(camera.eye()) + " --at " + triple(camera.target());
}

void runRender(const RenderOptions& options)
{
    checkWritable(options.output);
    const Mesh mesh = openMesh(options.source);
    Hierarchy hierarchy;
    buildHierarchy(mesh, options.build, hierarchy);
    const Camera camera(options.camera, mesh.bounds);
    const unsigned threads = resolveThreads(options.threads);
    const Rendering rendering = renderImage(hierarchy.qbvh, mesh, camera, options.shade, options.side, threads);
    writePng(rendering.image, options.output);

    const uint64_t rays = uint64_t(camera.width()) * camera.height();
    std::printf("%s: %s triangles, BVH built in %s\n", mesh.name.c_str(), groupDigits(mesh.triangles).c_str(),
                formatSeconds(hierarchy.times.total()).c_str());
    std::printf("rendered %dx%d: %s rays in %s on %u thread%s = %s rays/s, %.1f%% hit\n", camera.width(),
                camera.height(), groupDigits(rays).c_str(), formatSeconds(rendering.seconds).c_str(), threads,
                threads == 1 ? "" : "s", formatRate(rays / rendering.seconds).c_str(),
                100.0 * double(rendering.hits) / double(rays));
    std::printf("camera: %s\n", cameraArguments(camera).c_str());
    std::printf("wrote %s\n", options.output.c_str());
}
} // namespace kxbvh
