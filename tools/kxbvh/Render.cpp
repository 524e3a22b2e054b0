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

/// The hit triangle's normal, turned towards the eye, as a colour.
class NormalShader
{
public:
    explicit NormalShader(const Mesh& mesh) : mMesh(mesh) {}

    Rgba operator()(const Vec3& direction, unsigned triangle) const
    {
        const unsigned* index = mMesh.mesh->GetIndexBuffer()->GetData() + 3 * size_t(triangle);
        const kx::kxVertexBuffer& vertices = *mMesh.mesh->GetVertexBuffer();
        const Vec3& a = vertices.Position3(static_cast<int>(index[0]));
        Vec3 normal = (vertices.Position3(static_cast<int>(index[1])) - a)
                          .Cross(vertices.Position3(static_cast<int>(index[2])) - a);
        normal.Normalize();
        const float facing = normal.Dot(direction);
        if (facing > 0.0f)
            normal = -normal;
        // A light at the eye gives relief to surfaces whose normals share one colour.
        const float light = 0.55f + 0.45f * std::fabs(facing);
        return Rgba{toByte(light * (0.5f + 0.5f * normal[0])), toByte(light * (0.5f + 0.5f * normal[1])),
                    toByte(light * (0.5f + 0.5f * normal[2])), 255};
    }

private:
    const Mesh& mMesh;
};

/// Greys from the nearest hit (bright) to the farthest (dark) of the whole picture.
void shadeDepth(Image& image, const std::vector<float>& distances)
{
    float nearest = std::numeric_limits<float>::infinity(), farthest = 0.0f;
    for (float t : distances)
        if (t < std::numeric_limits<float>::infinity())
        {
            nearest = std::min(nearest, t);
            farthest = std::max(farthest, t);
        }
    const float range = std::max(farthest - nearest, 1e-20f);
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
        {
            const float t = distances[size_t(y) * image.width() + x];
            if (t < std::numeric_limits<float>::infinity())
            {
                const uint8_t grey = toByte(1.0f - 0.85f * (t - nearest) / range);
                image.at(x, y) = Rgba{grey, grey, grey, 255};
            }
        }
}
} // namespace

Rendering renderImage(const kxQBVH& qbvh, const Mesh& mesh, const Camera& camera, Shade shade,
                      kxQBVH::tIntersectionPolicy side, unsigned threads)
{
    Rendering result{Image(camera.width(), camera.height())};
    const NormalShader shadeNormal(mesh);
    std::vector<float> distances(shade == Shade::eDepth ? size_t(camera.width()) * camera.height() : 0,
                                 std::numeric_limits<float>::infinity());
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
            if (!qbvh.intersectRay(camera.eye(), direction, 0.0f, t, barycentric, triangle, side))
                continue;
            ++rowHits[row];
            if (shade == Shade::eDepth)
                distances[row * camera.width() + x] = t;
            else
                result.image.at(x, y) = shadeNormal(direction, triangle);
        }
        progress.advance();
    });
    if (shade == Shade::eDepth)
        shadeDepth(result.image, distances);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    throwIfInterrupted("rendering");
    for (uint32_t hits : rowHits)
        result.hits += hits;
    return result;
}

void prepareShot(Shot& shot, const std::string& output, const MeshSource& source, const BuildOptions& build,
                 const CameraOptions& camera, unsigned threads)
{
    checkWritable(output);
    shot.mesh = openMesh(source);
    buildHierarchy(shot.mesh, build, shot.hierarchy);
    shot.camera.emplace(camera, shot.mesh.bounds, shot.mesh.mesh->GetVertexBuffer());
    shot.threads = resolveThreads(threads);
}

void reportShot(const Shot& shot, const std::string& figures, const std::string& output)
{
    auto triple = [](const Vec3& v) {
        return formatFloat(v[0]) + "," + formatFloat(v[1]) + "," + formatFloat(v[2]);
    };
    std::printf("%s: %s triangles, BVH built in %s\n%s\ncamera: --view %s --at %s\nwrote %s\n", shot.mesh.name.c_str(),
                groupDigits(shot.mesh.triangles).c_str(), formatSeconds(shot.hierarchy.times.total()).c_str(),
                figures.c_str(), triple(shot.camera->eye()).c_str(), triple(shot.camera->target()).c_str(),
                output.c_str());
}

void runRender(const RenderOptions& options)
{
    Shot shot;
    prepareShot(shot, options.output, options.source, options.build, options.camera, options.threads);
    const Camera& camera = *shot.camera;
    const Rendering rendering =
        renderImage(shot.hierarchy.qbvh, shot.mesh, camera, options.shade, options.side, shot.threads);
    writePng(rendering.image, options.output);

    const uint64_t rays = uint64_t(camera.width()) * camera.height();
    char figures[256];
    std::snprintf(figures, sizeof figures, "rendered %dx%d: %s rays in %s on %u thread%s = %s rays/s, %.1f%% hit",
                  camera.width(), camera.height(), groupDigits(rays).c_str(), formatSeconds(rendering.seconds).c_str(),
                  shot.threads, shot.threads == 1 ? "" : "s", formatRate(rays / rendering.seconds).c_str(),
                  100.0 * double(rendering.hits) / double(rays));
    reportShot(shot, figures, options.output);
}
} // namespace kxbvh
