// Single-ray throughput of kxQBVH beside Embree 3 (rtcIntersect1) on the same triangles
// and rays, in one process and one thread: primary camera rays and random rays from
// inside the bounds, over a QBVH from the main road (buildFromMesh: linear builder, leaves
// of at most 4), one collapsed from an SAH tree and one from the high-quality builder.
// Embree builds at its default (medium) and its high quality, each with the widest
// instruction set it picks on this machine and held to SSE4.2, whose four-wide BVH is the
// same shape as ours. Our queries then run from 1, 2 and all cores. The meshes are kxbvh's
// built-in scene and the procedural terrains, or the built-in scene and the mesh files
// given as arguments (anything assimp reads). The tables at the end hold build times, SAH costs of the
// four-wide trees, bytes per triangle and the ratios of rays per second.
#include "kxBVHContainers.h"
#include "kxBenchEmbree.h"
#include "kxBenchMeshes.h"
#include "kxBenchRates.h"
#include "kxGenericBVHBuilder.h"
#include "kxLog.h"
#include "kxQBVH.h"
#include "kxHighQualityBVHBuilder.h"
#include "kxQBVHReference.h"
#include "kxQBVHStatistics.h"
#include "Scene.h"

#include <benchmark/benchmark.h>
#include <embree3/rtcore.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{
struct Ray
{
    Wm4::Vector3<float> origin, direction;
};

const char* const kRayKinds[] = {"primary", "random"};
constexpr int kTreeCount = 4, kSceneCount = 4;
// hq builds with its default leaves of at most 4 triangles, hq8 with at most 8.
const char* const kTrees[kTreeCount] = {"linear", "sah", "hq", "hq8"};
// Embree's devices: native and SSE4.2, and its build qualities: medium and high.
const char* const kEmbrees[kSceneCount] = {"embree", "embree_sse42", "embree_high", "embree_high_sse42"};

struct Workload
{
    std::string name;
    kx::kxPointer<kx::kxTriMesh> mesh;
    std::vector<float> positions;       // Embree's padded copy
    kxQBVH trees[kTreeCount];
    double treeSeconds[kTreeCount] = {};
    RTCScene scenes[kSceneCount] = {};
    double sceneSeconds[kSceneCount] = {};
    uint64_t sceneBytes[kSceneCount] = {};  // the committed hierarchy, by the memory monitor
    std::vector<Ray> rays[2];           // primary, random
    double hqReferences[2] = {};        // per triangle, hq and hq8
};

RTCDevice gDevices[2] = {};
int64_t gEmbreeBytes[2] = {};  // live bytes of each device

bool countBytes(void* user, ssize_t bytes, bool)
{
    *static_cast<int64_t*>(user) += bytes;
    return true;
}
std::vector<std::unique_ptr<Workload>> gWorkloads;

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void makeRays(Workload& w)
{
    const kxBBox& box = w.trees[0].getBBox();
    const Wm4::Vector3<float> centre = box.getCenter();
    const Wm4::Vector3<float> extent(box.max[0] - box.min[0], box.max[1] - box.min[1], box.max[2] - box.min[2]);
    // A camera above and in front of the scene, looking at its centre, seeing all of it.
    const Wm4::Vector3<float> eye =
        centre + Wm4::Vector3<float>(0.3f * extent[0], 0.8f * extent.Length(), 0.9f * extent.Length());
    Wm4::Vector3<float> forward = centre - eye;
    forward.Normalize();
    Wm4::Vector3<float> right = forward.Cross(Wm4::Vector3<float>::UNIT_Y);
    right.Normalize();
    const Wm4::Vector3<float> up = right.Cross(forward);
    const int side = 512;
    const float halfWidth = 0.45f;
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x)
        {
            const float sx = (2.0f * (static_cast<float>(x) + 0.5f) / side - 1.0f) * halfWidth;
            const float sy = (1.0f - 2.0f * (static_cast<float>(y) + 0.5f) / side) * halfWidth;
            Wm4::Vector3<float> d = forward + right * sx + up * sy;
            d.Normalize();
            w.rays[0].push_back({eye, d});
        }
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    while (w.rays[1].size() < w.rays[0].size())
    {
        Wm4::Vector3<float> o, d(signedUnit(rng), signedUnit(rng), signedUnit(rng));
        for (int a = 0; a < 3; ++a)
            o[a] = box.min[a] + unit(rng) * extent[a];
        if (d.Length() < 0.1f)
            continue;
        d.Normalize();
        w.rays[1].push_back({o, d});
    }
}

bool ourHit(const kxQBVH& q, const Ray& r, float& t)
{
    t = std::numeric_limits<float>::infinity();
    Wm4::Vector2<float> bary;
    unsigned int triangle;
    return q.intersectRay(r.origin, r.direction, 0.0f, t, bary, triangle, kxQBVH::eAllSides);
}

bool embreeHit(RTCScene scene, const Ray& r, float& t)
{
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRayHit rh;
    rh.ray.org_x = r.origin[0], rh.ray.org_y = r.origin[1], rh.ray.org_z = r.origin[2];
    rh.ray.dir_x = r.direction[0], rh.ray.dir_y = r.direction[1], rh.ray.dir_z = r.direction[2];
    rh.ray.tnear = 0.0f;
    rh.ray.tfar = std::numeric_limits<float>::infinity();
    rh.ray.mask = 0xFFFFFFFFu;
    rh.ray.flags = 0;
    rh.ray.time = 0.0f;
    rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    rtcIntersect1(scene, &context, &rh);
    t = rh.ray.tfar;
    return rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
}

// What ray queries need: nodes, equation and index blocks.
double bytesPerTriangle(const Workload& w, int tree)
{
    const kxQBVH& q = w.trees[tree];
    return (double(q.getNodeCount()) * sizeof(kxQBVH::tQBVHNode) +
            double(q.getGroupCount()) * (sizeof(kxQBVH::tSOATriangleEquations) + sizeof(kxQBVH::tSOATriangleIndices))) /
           kxBench::triangleCount(*w.mesh);
}

// Hit rate, agreement with Embree (same hit or miss, distances within a relative 1e-4),
// and the work per ray counted by the scalar twin of the query, which must give the same
// answers bit for bit.
void describeTree(const Workload& w, int tree)
{
    const kxQBVH& q = w.trees[tree];
    std::printf("  %-6s %7u nodes %8u groups, built in %6.3f s, four-wide SAH cost %7.2f, %5.1f bytes per triangle\n",
                kTrees[tree], q.getNodeCount(), q.getGroupCount(), w.treeSeconds[tree], kxComputeQBVHSAHCost(q),
                bytesPerTriangle(w, tree));
    for (int kind = 0; kind < 2; ++kind)
    {
        const std::vector<Ray>& rays = w.rays[kind];
        size_t hits = 0, agree = 0, twinDiffers = 0;
        kxQBVHReference::RayWork work;
        for (const Ray& r : rays)
        {
            float a, b;
            const bool ha = ourHit(q, r, a), hb = embreeHit(w.scenes[0], r, b);
            hits += ha;
            agree += ha == hb && (!ha || std::fabs(a - b) <= 1e-4f * std::max(std::fabs(a), std::fabs(b)));
            float t = std::numeric_limits<float>::infinity();
            Wm4::Vector2<float> bary;
            unsigned int triangle;
            const bool hr = kxQBVHReference::intersectRay(q, r.origin, r.direction, 0.0f, t, bary, triangle,
                                                          kxQBVH::eAllSides, &work);
            twinDiffers += hr != ha || (ha && t != a);
        }
        const double n = static_cast<double>(rays.size());
        std::printf("    %-8s hit %5.1f%%, agrees with Embree %8.4f%%, per ray %5.2f nodes %5.2f leaves %5.2f groups%s\n",
                    kRayKinds[kind], 100.0 * hits / n, 100.0 * agree / n, work.nodes / n, work.leaves / n,
                    work.groups / n, twinDiffers ? " SCALAR TWIN DISAGREES" : "");
    }
}

void ours(benchmark::State& state, const kxQBVH* q, const std::vector<Ray>* rays)
{
    // Each thread starts at its own stretch of the rays.
    const size_t n = rays->size();
    size_t i = n * static_cast<size_t>(state.thread_index()) / static_cast<size_t>(state.threads()), hits = 0;
    for (auto _ : state)
    {
        float t;
        hits += ourHit(*q, (*rays)[i], t);
        if (++i == n)
            i = 0;
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations());
}

void embree(benchmark::State& state, RTCScene scene, const std::vector<Ray>* rays)
{
    size_t i = 0, hits = 0;
    for (auto _ : state)
    {
        float t;
        hits += embreeHit(scene, (*rays)[i], t);
        if (++i == rays->size())
            i = 0;
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations());
}

std::string key(const std::string& what, const Workload& w, int kind)
{
    return what + "/" + w.name + "/" + kRayKinds[kind];
}

using kxBench::RateReporter;

void printTables(const RateReporter& reporter, const std::vector<int>& threadCounts)
{
    const auto ratio = [](double a, double b) { return b > 0.0 ? a / b : 0.0; };
    std::printf("\nBuilds, one thread (Embree held to SSE4.2): seconds; four-wide SAH cost (node visits and group "
                "tests per ray\nthrough the root box); bytes per triangle of what rays need; references per triangle\n");
    std::printf("%-20s %7s %7s %7s %7s %7s %7s | %6s %6s %6s | %6s %6s %6s %6s | %5s\n", "workload", "linear", "sah",
                "hq", "hq8", "emb", "high", "sah", "hq", "hq8", "hq", "hq8", "emb", "high", "refs");
    for (const auto& w : gWorkloads)
    {
        const double n = kxBench::triangleCount(*w->mesh);
        std::printf("%-20s %7.3f %7.3f %7.3f %7.3f %7.3f %7.3f | %6.2f %6.2f %6.2f | %6.1f %6.1f %6.1f %6.1f | %5.3f\n",
                    w->name.c_str(), w->treeSeconds[0], w->treeSeconds[1], w->treeSeconds[2], w->treeSeconds[3],
                    w->sceneSeconds[1], w->sceneSeconds[3], kxComputeQBVHSAHCost(w->trees[1]),
                    kxComputeQBVHSAHCost(w->trees[2]), kxComputeQBVHSAHCost(w->trees[3]), bytesPerTriangle(*w, 2),
                    bytesPerTriangle(*w, 3), double(w->sceneBytes[1]) / n, double(w->sceneBytes[3]) / n,
                    w->hqReferences[0]);
    }
    std::printf("\nMillion rays per second, one thread, and ours / Embree in this process (sse: Embree held to "
                "SSE4.2;\nhigh: its high quality; native: the widest instruction set it picks here)\n");
    std::printf("%-28s %5s %5s %5s %5s %5s %5s %5s %5s | %6s %6s %6s %6s | %6s %6s\n", "workload", "lin", "sah", "hq",
                "hq8", "emb", "sse", "high", "hisse", "hq/sse", "hq/hse", "8/sse", "8/hse", "hq/emb", "hq/hi");
    for (const auto& w : gWorkloads)
        for (int kind = 0; kind < 2; ++kind)
        {
            double r[kTreeCount + kSceneCount];
            for (int i = 0; i < kTreeCount; ++i)
                r[i] = reporter.rate(key(kTrees[i], *w, kind));
            for (int i = 0; i < kSceneCount; ++i)
                r[kTreeCount + i] = reporter.rate(key(kEmbrees[i], *w, kind));
            std::printf("%-28s %5.2f %5.2f %5.2f %5.2f %5.2f %5.2f %5.2f %5.2f | %6.2f %6.2f %6.2f %6.2f | %6.2f %6.2f\n",
                        (w->name + "/" + kRayKinds[kind]).c_str(), r[0] * 1e-6, r[1] * 1e-6, r[2] * 1e-6, r[3] * 1e-6,
                        r[4] * 1e-6, r[5] * 1e-6, r[6] * 1e-6, r[7] * 1e-6, ratio(r[2], r[5]), ratio(r[2], r[7]),
                        ratio(r[3], r[5]), ratio(r[3], r[7]), ratio(r[2], r[4]), ratio(r[2], r[6]));
        }
    // A filter that leaves out the threaded runs leaves nothing to show there.
    const bool threaded = std::any_of(gWorkloads.begin(), gWorkloads.end(), [&](const auto& w) {
        return reporter.rate(key("threads", *w, 0), 1) > 0.0 || reporter.rate(key("threads", *w, 1), 1) > 0.0;
    });
    if (!threaded)
        return;
    std::printf("\nOur linear-built QBVH from several threads: million rays per second (speed-up)\n%-20s", "workload");
    for (int threads : threadCounts)
        std::printf("   %2d thread%s      ", threads, threads == 1 ? " " : "s");
    std::printf("\n");
    for (const auto& w : gWorkloads)
        for (int kind = 0; kind < 2; ++kind)
        {
            const std::string name = key("threads", *w, kind);
            const double single = reporter.rate(name, 1);
            std::printf("%-20s", (w->name + "/" + kRayKinds[kind]).c_str());
            for (int threads : threadCounts)
            {
                const double rate = reporter.rate(name, threads);
                std::printf("   %7.2f (%4.2fx)", rate * 1e-6, single > 0.0 ? rate / single : 0.0);
            }
            std::printf("\n");
        }
}
} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    // The builder's memory report goes to a log whose info level is off, as in an application.
    kx::kxLog log;
    log.setLevelEnabled(1, false);
    kx::kxLog::msInstance = &log;
    gDevices[0] = rtcNewDevice("threads=1");
    gDevices[1] = rtcNewDevice("threads=1,isa=sse4.2");
    for (int d = 0; d < 2; ++d)
        rtcSetDeviceMemoryMonitorFunction(gDevices[d], countBytes, &gEmbreeBytes[d]);

    kxBench::NamedMeshes meshes = {
        {"scene1M", kxbvh::makeScene(kxbvh::kDefaultSceneTriangles)}};
    if (argc == 1)
        meshes.insert(meshes.end(), {{"land100k", kxBench::makeLandscape(100000)},
                                     {"land1M", kxBench::makeLandscape(1000000)}});
    if (!kxBench::addMeshFiles(argc, argv, meshes))
        return 2;
    for (auto& [name, mesh] : meshes)
    {
        auto w = std::make_unique<Workload>();
        w->name = name;
        w->mesh = mesh;
        w->positions = kxBench::paddedPositions(*mesh);
        auto start = std::chrono::steady_clock::now();
        w->trees[0].buildFromMesh(kxQBVH::eTrianglesEquations, *mesh, 4);
        w->treeSeconds[0] = secondsSince(start);
        start = std::chrono::steady_clock::now();
        {
            const kxBVHTriangleContainer container(*mesh);
            kxGenericBVH bvh;
            kxGenericBVHBuilder().build(container, bvh);
            w->trees[1].buildFromBVH(kxQBVH::eTrianglesEquations, bvh, *mesh);
        }
        w->treeSeconds[1] = secondsSince(start);
        for (int hq = 0; hq < 2; ++hq)
        {
            start = std::chrono::steady_clock::now();
            kxGenericBVH bvh;
            kxHighQualityBVHBuilder builder;
            builder.setMaxPrimitivesPerLeaf(hq ? 8 : 4);
            builder.build(*mesh, bvh);
            w->trees[2 + hq].buildFromBVH(kxQBVH::eTrianglesEquations, bvh, *mesh);
            w->treeSeconds[2 + hq] = secondsSince(start);
            w->hqReferences[hq] = double(bvh.mPrimitiveIndices.size()) / kxBench::triangleCount(*mesh);
        }
        for (int e = 0; e < kSceneCount; ++e)
        {
            const int device = e % 2;
            const int64_t before = gEmbreeBytes[device];
            start = std::chrono::steady_clock::now();
            w->scenes[e] = kxBench::embreeScene(gDevices[device], *w->mesh, w->positions,
                                                e >= 2 ? RTC_BUILD_QUALITY_HIGH : RTC_BUILD_QUALITY_MEDIUM);
            w->sceneSeconds[e] = secondsSince(start);
            w->sceneBytes[e] = uint64_t(std::max<int64_t>(0, gEmbreeBytes[device] - before));
        }
        makeRays(*w);
        std::printf("%s: %u triangles; Embree scenes committed in %.3f s (native), %.3f s (SSE4.2), high quality "
                    "%.3f s (native), %.3f s (SSE4.2)\n",
                    name.c_str(), kxBench::triangleCount(*mesh), w->sceneSeconds[0], w->sceneSeconds[1],
                    w->sceneSeconds[2], w->sceneSeconds[3]);
        for (int tree = 0; tree < kTreeCount; ++tree)
            describeTree(*w, tree);
        gWorkloads.push_back(std::move(w));
    }

    std::vector<int> threadCounts = {1, 2};
    const int cores = static_cast<int>(std::thread::hardware_concurrency());
    if (cores > 2)
        threadCounts.push_back(cores);
    for (const auto& w : gWorkloads)
        for (int kind = 0; kind < 2; ++kind)
        {
            const std::vector<Ray>* rays = &w->rays[kind];
            for (int i = 0; i < kTreeCount; ++i)
                benchmark::RegisterBenchmark(key(kTrees[i], *w, kind).c_str(), ours, &w->trees[i], rays);
            for (int i = 0; i < kSceneCount; ++i)
                benchmark::RegisterBenchmark(key(kEmbrees[i], *w, kind).c_str(), embree, w->scenes[i], rays);
            auto* threaded = benchmark::RegisterBenchmark(key("threads", *w, kind).c_str(), ours, &w->trees[0], rays);
            threaded->UseRealTime();
            for (int threads : threadCounts)
                threaded->Threads(threads);
        }
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printTables(reporter, threadCounts);

    kxBench::releaseEmbree(gWorkloads, gDevices);
    kx::kxLog::msInstance = nullptr;
    benchmark::Shutdown();
    return 0;
}
