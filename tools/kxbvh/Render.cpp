#include "Render.h"

#include "Format.h"
#include "Interrupt.h"
#include "Parallel.h"
#include "Progress.h"
#include "Stopwatch.h"

#include <algorithm>
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

/// Ambient occlusion: the share of cosine-weighted directions over the facing side of a
/// hit point that leave it unblocked within a radius of a tenth of the scene's diagonal.
/// Every pixel draws its directions from a hash of its position and sample number, so the
/// picture does not depend on threads or on the order of work.
class OcclusionShader
{
public:
    OcclusionShader(const kxQBVH& qbvh, const Mesh& mesh, unsigned samples)
        : mQbvh(qbvh), mMesh(mesh), mSamples(samples)
    {
        const kxBBox& b = mesh.bounds;
        const float diagonal = Vec3(b.max[0] - b.min[0], b.max[1] - b.min[1], b.max[2] - b.min[2]).Length();
        mRadius = 0.1f * diagonal;
        mOffset = 1e-5f * diagonal;
    }

    unsigned samples() const { return mSamples; }

    Rgba operator()(const Vec3& eye, const Vec3& direction, float t, unsigned triangle, int x, int y) const
    {
        const unsigned* index = mMesh.mesh->GetIndexBuffer()->GetData() + 3 * size_t(triangle);
        const kx::kxVertexBuffer& vertices = *mMesh.mesh->GetVertexBuffer();
        const Vec3& a = vertices.Position3(static_cast<int>(index[0]));
        Vec3 n = (vertices.Position3(static_cast<int>(index[1])) - a).Cross(vertices.Position3(static_cast<int>(index[2])) - a);
        n.Normalize();
        if (n.Dot(direction) > 0.0f)
            n = -n;
        // Off the surface along the normal, so that the rays do not start behind it.
        const Vec3 origin = eye + direction * t + n * mOffset;
        // An orthonormal frame around n (Duff et al. 2017).
        const float sign = std::copysign(1.0f, n[2]);
        const float p = -1.0f / (sign + n[2]), q = n[0] * n[1] * p;
        const Vec3 u(1.0f + sign * n[0] * n[0] * p, sign * q, -sign * n[0]), v(q, sign + n[1] * n[1] * p, -n[1]);
        // The rays of a pixel leave one point: asked as one batch, they share their walks.
        constexpr unsigned kBatch = 64;
        Vec3 origins[kBatch], directions[kBatch];
        float tMin[kBatch], tMax[kBatch];
        bool blocked[kBatch];
        std::fill(origins, origins + kBatch, origin);
        std::fill(tMin, tMin + kBatch, 0.0f);
        std::fill(tMax, tMax + kBatch, mRadius);
        unsigned open = 0;
        for (unsigned first = 0; first < mSamples; first += kBatch)
        {
            const unsigned count = std::min(kBatch, mSamples - first);
            for (unsigned k = 0; k < count; ++k)
            {
                const unsigned s = first + k;
                const uint32_t h =
                        hash(uint32_t(x) * 0x9E3779B1u ^ hash(uint32_t(y) * 0x85EBCA77u ^ hash(s + 0x27D4EB2Fu)));
                // Stratified over the samples in the first coordinate, hashed in the second.
                const float r1 = (float(s) + float(h >> 8) * (1.0f / 16777216.0f)) / float(mSamples);
                const float r2 = float(hash(h) >> 8) * (1.0f / 16777216.0f);
                const float radius = std::sqrt(r1), angle = 6.28318531f * r2;
                directions[k] =
                        u * (radius * std::cos(angle)) + v * (radius * std::sin(angle)) + n * std::sqrt(1.0f - r1);
            }
            mQbvh.intersectRaysAny(count, origins, directions, tMin, tMax, blocked, kxQBVH::eAllSides);
            for (unsigned k = 0; k < count; ++k)
                open += !blocked[k];
        }
        const uint8_t grey = toByte(float(open) / float(mSamples));
        return Rgba{grey, grey, grey, 255};
    }

private:
    static uint32_t hash(uint32_t x)
    {
        x ^= x >> 16;
        x *= 0x7FEB352Du;
        x ^= x >> 15;
        x *= 0x846CA68Bu;
        x ^= x >> 16;
        return x;
    }

    const kxQBVH& mQbvh;
    const Mesh& mMesh;
    unsigned mSamples;
    float mRadius;
    float mOffset;
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
                      kxQBVH::tIntersectionPolicy side, unsigned threads, unsigned samples)
{
    Rendering result{Image(camera.width(), camera.height())};
    const NormalShader shadeNormal(mesh);
    const OcclusionShader shadeOcclusion(qbvh, mesh, samples);
    std::vector<double> rowOcclusionSeconds(static_cast<size_t>(camera.height()), 0.0);
    std::vector<float> distances(shade == Shade::eDepth ? size_t(camera.width()) * camera.height() : 0,
                                 std::numeric_limits<float>::infinity());
    std::vector<uint32_t> rowHits(static_cast<size_t>(camera.height()), 0);
    Progress progress("rendering " + std::to_string(camera.width()) + "x" + std::to_string(camera.height()),
                      static_cast<uint64_t>(camera.height()));
    Stopwatch clock;
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
            else if (shade == Shade::eAO)
            {
                Stopwatch shading;
                result.image.at(x, y) = shadeOcclusion(camera.eye(), direction, t, triangle, x, y);
                rowOcclusionSeconds[row] += shading.lap();
            }
            else
                result.image.at(x, y) = shadeNormal(direction, triangle);
        }
        progress.advance();
    });
    if (shade == Shade::eDepth)
        shadeDepth(result.image, distances);
    result.seconds = clock.lap();
    throwIfInterrupted("rendering");
    for (uint32_t hits : rowHits)
        result.hits += hits;
    if (shade == Shade::eAO)
    {
        result.occlusionRays = result.hits * samples;
        for (double seconds : rowOcclusionSeconds)
            result.occlusionSeconds += seconds;
    }
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
    const Rendering rendering = renderImage(shot.hierarchy.qbvh, shot.mesh, camera, options.shade, options.side,
                                            shot.threads, options.samples);
    writePng(rendering.image, options.output);

    const uint64_t rays = uint64_t(camera.width()) * camera.height();
    char figures[512];
    int length = std::snprintf(figures, sizeof figures,
                               "rendered %dx%d: %s rays in %s on %u thread%s = %s rays/s, %.1f%% hit", camera.width(),
                               camera.height(), groupDigits(rays).c_str(), formatSeconds(rendering.seconds).c_str(),
                               shot.threads, shot.threads == 1 ? "" : "s", formatRate(rays / rendering.seconds).c_str(),
                               100.0 * double(rendering.hits) / double(rays));
    if (options.shade == Shade::eAO && rendering.occlusionRays > 0)
    {
        // Per thread: the occlusion time is summed over the threads that spent it.
        const double perThread = double(rendering.occlusionRays) / rendering.occlusionSeconds;
        std::snprintf(figures + length, sizeof figures - size_t(length),
                      "\nambient occlusion: %u samples per hit, %s occlusion rays at %s rays/s per thread, %s rays/s "
                      "on %u thread%s",
                      options.samples, groupDigits(rendering.occlusionRays).c_str(), formatRate(perThread).c_str(),
                      formatRate(perThread * shot.threads).c_str(), shot.threads, shot.threads == 1 ? "" : "s");
    }
    reportShot(shot, figures, options.output);
}
} // namespace kxbvh
