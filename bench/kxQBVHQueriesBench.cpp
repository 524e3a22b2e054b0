// Occlusion and closest-point queries of kxQBVH beside Embree 3 on the same triangles, in
// one process: intersectRayAny against rtcOccluded1 (and against our own intersectRay on
// the same rays), findClosestPoint against rtcPointQuery with the closest-point callback
// of Embree's own tutorial. Shadow rays run from the visible points of a camera view
// towards a light above the scene, incoherent rays from random points in random
// directions; closest points are asked for points near the surface and for points spread
// over the bounding box. Ours run over QBVHs from the linear, the SAH and the high-quality
// builder; Embree (medium quality, an SAH build) natively and held to SSE4.2, whose
// four-wide BVH has our shape. Everything runs on one thread and on every core. Extra
// arguments name mesh files (anything assimp reads). The tables at the end hold the ratios.
#include "kxBVHContainers.h"
#include "EmbreeClosestPoint.h"
#include "kxBenchEmbree.h"
#include "kxBenchMeshes.h"
#include "kxBenchRates.h"
#include "kxGenericBVHBuilder.h"
#include "kxHighQualityBVHBuilder.h"
#include "kxLog.h"
#include "kxQBVH.h"

#include <benchmark/benchmark.h>
#include <embree3/rtcore.h>

#include <algorithm>
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
using V3 = Wm4::Vector3<float>;
constexpr float kInf = std::numeric_limits<float>::infinity();

struct Ray
{
    V3 origin, direction;
    float tMin, tMax;
};

const char* const kRaySets[] = {"shadow", "incoherent"};
const char* const kPointSets[] = {"near", "spread"};
const char* const kTrees[] = {"linear", "sah", "hq"};
constexpr int kTreeCount = 3;
const char* const kEmbrees[] = {"embree", "embree_sse42"};

struct Workload
{
    std::string name;
    kx::kxPointer<kx::kxTriMesh> mesh;
    std::vector<float> positions; // Embree's padded copy
    kxQBVH trees[kTreeCount];
    RTCScene scenes[2] = {};
    std::vector<Ray> rays[2];
    std::vector<V3> points[2];
    // The rays again as the batch calls take them: ours as arrays, Embree's as its records.
    struct Arrays
    {
        std::vector<V3> origins, directions;
        std::vector<float> tMin, tMax;
        std::vector<RTCRayHit> embree;
    } arrays[2];
};

void makeArrays(Workload& w)
{
    for (int set = 0; set < 2; ++set)
    {
        Workload::Arrays& a = w.arrays[set];
        for (const Ray& r : w.rays[set])
        {
            a.origins.push_back(r.origin);
            a.directions.push_back(r.direction);
            a.tMin.push_back(r.tMin);
            a.tMax.push_back(r.tMax);
            RTCRayHit e{};
            e.ray.org_x = r.origin[0], e.ray.org_y = r.origin[1], e.ray.org_z = r.origin[2];
            e.ray.dir_x = r.direction[0], e.ray.dir_y = r.direction[1], e.ray.dir_z = r.direction[2];
            e.ray.tnear = r.tMin;
            e.ray.tfar = r.tMax;
            e.ray.mask = 0xFFFFFFFFu;
            e.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            a.embree.push_back(e);
        }
    }
}

RTCDevice gDevices[2] = {};
std::vector<std::unique_ptr<Workload>> gWorkloads;

V3 corner(const kx::kxTriMesh& mesh, unsigned triangle, int k)
{
    return mesh.GetVertexBuffer()->Position3(static_cast<int>(mesh.GetIndexBuffer()->GetData()[3 * triangle + k]));
}

// Shadow rays: a 512 x 512 camera view from above and in front; every visible point sends
// a ray to a light high over one corner, starting a little off the surface. Incoherent
// rays: as many from random points of the box in random directions, unbounded.
void makeRays(Workload& w)
{
    const kxQBVH& q = w.trees[1];
    const kxBBox& box = q.getBBox();
    const V3 centre = box.getCenter();
    const V3 extent(box.max[0] - box.min[0], box.max[1] - box.min[1], box.max[2] - box.min[2]);
    const float size = extent.Length();
    const V3 eye = centre + V3(0.3f * extent[0], 0.8f * size, 0.9f * size);
    const V3 light = centre + V3(-0.6f * extent[0], 1.5f * size, -0.4f * extent[2]);
    V3 forward = centre - eye;
    forward.Normalize();
    V3 right = forward.Cross(V3::UNIT_Y);
    right.Normalize();
    const V3 up = right.Cross(forward);
    const int side = 512;
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x)
        {
            V3 d = forward + right * ((2.0f * (x + 0.5f) / side - 1.0f) * 0.45f) +
                   up * ((1.0f - 2.0f * (y + 0.5f) / side) * 0.45f);
            d.Normalize();
            float t = kInf;
            Wm4::Vector2<float> barycentric;
            unsigned triangle;
            if (!q.intersectRay(eye, d, 0.0f, t, barycentric, triangle, kxQBVH::eAllSides))
                continue;
            const V3 p = eye + d * t;
            V3 toLight = light - p;
            const float distance = toLight.Normalize();
            w.rays[0].push_back({p, toLight, 1e-4f * size, distance});
        }
    std::mt19937 rng(4321);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    while (w.rays[1].size() < w.rays[0].size())
    {
        V3 o, d(signedUnit(rng), signedUnit(rng), signedUnit(rng));
        for (int a = 0; a < 3; ++a)
            o[a] = box.min[a] + unit(rng) * extent[a];
        if (d.Length() < 0.1f)
            continue;
        d.Normalize();
        w.rays[1].push_back({o, d, 0.0f, kInf});
    }
}

// Near: random points of random triangles moved off the surface by up to 1% of the box's
// diagonal. Spread: uniform over the box.
void makePoints(Workload& w)
{
    const kxBBox& box = w.trees[0].getBBox();
    const V3 extent(box.max[0] - box.min[0], box.max[1] - box.min[1], box.max[2] - box.min[2]);
    const float offset = 0.01f * extent.Length();
    const unsigned triangles = kxBench::triangleCount(*w.mesh);
    std::mt19937 rng(8765);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    for (int i = 0; i < 200000; ++i)
    {
        const unsigned t = rng() % triangles;
        float u = unit(rng), v = unit(rng);
        if (u + v > 1.0f)
            u = 1.0f - u, v = 1.0f - v;
        const V3 a = corner(*w.mesh, t, 0);
        w.points[0].push_back(a + (corner(*w.mesh, t, 1) - a) * u + (corner(*w.mesh, t, 2) - a) * v +
                              V3(signedUnit(rng), signedUnit(rng), signedUnit(rng)) * offset);
        V3 p;
        for (int k = 0; k < 3; ++k)
            p[k] = box.min[k] + unit(rng) * extent[k];
        w.points[1].push_back(p);
    }
}

bool ourOcclusion(const kxQBVH& q, const Ray& r)
{
    return q.intersectRayAny(r.origin, r.direction, r.tMin, r.tMax, kxQBVH::eAllSides);
}

bool ourNearestHit(const kxQBVH& q, const Ray& r)
{
    float t = r.tMax;
    Wm4::Vector2<float> barycentric;
    unsigned triangle;
    return q.intersectRay(r.origin, r.direction, r.tMin, t, barycentric, triangle, kxQBVH::eAllSides);
}

bool embreeOcclusion(RTCScene scene, const Ray& r)
{
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRay ray;
    ray.org_x = r.origin[0], ray.org_y = r.origin[1], ray.org_z = r.origin[2];
    ray.dir_x = r.direction[0], ray.dir_y = r.direction[1], ray.dir_z = r.direction[2];
    ray.tnear = r.tMin;
    ray.tfar = r.tMax;
    ray.mask = 0xFFFFFFFFu;
    ray.flags = 0;
    ray.time = 0.0f;
    rtcOccluded1(scene, &context, &ray);
    return ray.tfar < 0.0f;
}

float ourClosest(const kxQBVH& q, const V3& p)
{
    float distance = kInf;
    V3 closest;
    Wm4::Vector2<float> barycentric;
    unsigned triangle;
    q.findClosestPoint(p, distance, closest, barycentric, triangle);
    return distance;
}

using kxbvh::closestPointTriangle;

struct EmbreeClosest
{
    const kx::kxTriMesh* mesh;
    float distance;
    unsigned triangle;
};

bool closestPointCallback(RTCPointQueryFunctionArguments* args)
{
    auto* result = static_cast<EmbreeClosest*>(args->userPtr);
    const V3 p(args->query->x, args->query->y, args->query->z);
    const unsigned t = args->primID;
    const V3 q = closestPointTriangle(p, corner(*result->mesh, t, 0), corner(*result->mesh, t, 1),
                                      corner(*result->mesh, t, 2));
    const float d = (q - p).Length();
    if (d >= args->query->radius)
        return false;
    args->query->radius = d;
    result->distance = d;
    result->triangle = t;
    return true;
}

float embreeClosest(RTCScene scene, const kx::kxTriMesh& mesh, const V3& p)
{
    RTCPointQueryContext context;
    rtcInitPointQueryContext(&context);
    RTCPointQuery query;
    query.x = p[0], query.y = p[1], query.z = p[2];
    query.radius = kInf;
    query.time = 0.0f;
    EmbreeClosest result{&mesh, kInf, RTC_INVALID_GEOMETRY_ID};
    rtcPointQuery(scene, &query, &context, closestPointCallback, &result);
    return result.distance;
}

// How often the answers agree with Embree's: the same occlusion, or distances within a few
// float steps of the mesh's size (Embree's tutorial computes them in floats).
void describe(const Workload& w)
{
    std::printf("%s: %u triangles, %zu shadow rays, %zu points per set\n", w.name.c_str(),
                kxBench::triangleCount(*w.mesh), w.rays[0].size(), w.points[0].size());
    for (int set = 0; set < 2; ++set)
    {
        size_t occluded = 0, agree = 0, nearestAgrees = 0;
        for (const Ray& r : w.rays[set])
        {
            const bool ours = ourOcclusion(w.trees[2], r);
            occluded += ours;
            agree += ours == embreeOcclusion(w.scenes[0], r);
            nearestAgrees += ours == ourNearestHit(w.trees[2], r);
        }
        const double n = static_cast<double>(w.rays[set].size());
        std::printf("  %-10s rays: %5.1f%% occluded, agrees with Embree %8.4f%%, with intersectRay %8.4f%%\n",
                    kRaySets[set], 100.0 * occluded / n, 100.0 * agree / n, 100.0 * nearestAgrees / n);
    }
    const kxBBox& box = w.trees[0].getBBox();
    const float tolerance = 4e-6f * V3(box.max[0] - box.min[0], box.max[1] - box.min[1], box.max[2] - box.min[2]).Length();
    for (int set = 0; set < 2; ++set)
    {
        size_t agree = 0;
        double mean = 0.0;
        const size_t n = std::min<size_t>(w.points[set].size(), 20000);
        for (size_t i = 0; i < n; ++i)
        {
            const float a = ourClosest(w.trees[0], w.points[set][i]);
            const float b = embreeClosest(w.scenes[0], *w.mesh, w.points[set][i]);
            agree += std::fabs(a - b) <= tolerance;
            mean += a;
        }
        std::printf("  %-10s points: mean distance %.4g, agrees with Embree %8.4f%%\n", kPointSets[set], mean / n,
                    100.0 * agree / n);
    }
}

template <typename Query, typename Item>
void loop(benchmark::State& state, const std::vector<Item>* items, Query query)
{
    // Each thread starts at its own stretch of the items.
    const size_t n = items->size();
    size_t i = n * static_cast<size_t>(state.thread_index()) / static_cast<size_t>(state.threads());
    double sink = 0.0;
    for (auto _ : state)
    {
        sink += query((*items)[i]);
        if (++i == n)
            i = 0;
    }
    benchmark::DoNotOptimize(sink);
    state.SetItemsProcessed(state.iterations());
}

// Batches of rays per call, as a caller with many rays makes them: each call takes the
// next kBatch rays and first resets what the previous pass wrote.
constexpr size_t kBatch = 256;

template <typename Call>
void batchLoop(benchmark::State& state, size_t n, Call call)
{
    size_t i = n * static_cast<size_t>(state.thread_index()) / static_cast<size_t>(state.threads());
    size_t done = 0;
    for (auto _ : state)
    {
        const size_t count = std::min(kBatch, n - i);
        call(i, count);
        done += count;
        i += count;
        if (i == n)
            i = 0;
    }
    state.SetItemsProcessed(static_cast<int64_t>(done));
}

std::string key(const std::string& what, const Workload& w, const char* set)
{
    return what + "/" + w.name + "/" + set;
}

using kxBench::RateReporter;

void registerAll(const std::vector<int>& threadCounts)
{
    // One thread is timed by its processor time, which a busy machine disturbs least;
    // several by the wall clock, which shows what the extra cores bring.
    const auto add = [&](const std::string& name, auto body) {
        for (int threads : threadCounts)
        {
            auto* b = benchmark::RegisterBenchmark(name.c_str(), body)->Threads(threads);
            if (threads > 1)
                b->UseRealTime();
        }
    };
    for (const auto& w : gWorkloads)
    {
        for (int set = 0; set < 2; ++set)
        {
            const std::vector<Ray>* rays = &w->rays[set];
            // Interleaved, so that a change in the machine's load touches every column alike.
            for (int i = 0; i < kTreeCount; ++i)
            {
                const kxQBVH* q = &w->trees[i];
                add(key(std::string("any_") + kTrees[i], *w, kRaySets[set]), [=](benchmark::State& s) {
                    loop(s, rays, [q](const Ray& r) { return ourOcclusion(*q, r); });
                });
                add(key(std::string("nearest_") + kTrees[i], *w, kRaySets[set]), [=](benchmark::State& s) {
                    loop(s, rays, [q](const Ray& r) { return ourNearestHit(*q, r); });
                });
            }
            for (int e = 0; e < 2; ++e)
            {
                RTCScene scene = w->scenes[e];
                add(key(std::string("occluded_") + kEmbrees[e], *w, kRaySets[set]), [=](benchmark::State& s) {
                    loop(s, rays, [scene](const Ray& r) { return embreeOcclusion(scene, r); });
                });
            }
            const Workload::Arrays* a = &w->arrays[set];
            const kxQBVH* hq = &w->trees[2];
            add(key("anybatch_hq", *w, kRaySets[set]), [=](benchmark::State& s) {
                std::unique_ptr<bool[]> occluded(new bool[kBatch]);
                batchLoop(s, a->origins.size(), [&](size_t i, size_t count) {
                    hq->intersectRaysAny(static_cast<unsigned>(count), &a->origins[i], &a->directions[i], &a->tMin[i],
                                         &a->tMax[i], occluded.get(), kxQBVH::eAllSides);
                });
            });
            add(key("nearestbatch_hq", *w, kRaySets[set]), [=](benchmark::State& s) {
                std::vector<float> t(kBatch);
                std::vector<Wm4::Vector2<float>> barycentric(kBatch);
                std::vector<unsigned int> triangle(kBatch);
                std::unique_ptr<bool[]> hit(new bool[kBatch]);
                batchLoop(s, a->origins.size(), [&](size_t i, size_t count) {
                    std::copy_n(&a->tMax[i], count, t.data());
                    hq->intersectRays(static_cast<unsigned>(count), &a->origins[i], &a->directions[i], &a->tMin[i],
                                      t.data(), barycentric.data(), triangle.data(), hit.get(), kxQBVH::eAllSides);
                });
            });
            for (int e = 0; e < 2; ++e)
            {
                RTCScene scene = w->scenes[e];
                add(key(std::string("occluded1M_") + kEmbrees[e], *w, kRaySets[set]), [=](benchmark::State& s) {
                    std::vector<RTCRay> batch(kBatch);
                    batchLoop(s, a->embree.size(), [&](size_t i, size_t count) {
                        for (size_t k = 0; k < count; ++k)
                            batch[k] = a->embree[i + k].ray;
                        RTCIntersectContext context;
                        rtcInitIntersectContext(&context);
                        rtcOccluded1M(scene, &context, batch.data(), static_cast<unsigned>(count), sizeof(RTCRay));
                    });
                });
                add(key(std::string("intersect1M_") + kEmbrees[e], *w, kRaySets[set]), [=](benchmark::State& s) {
                    std::vector<RTCRayHit> batch(kBatch);
                    batchLoop(s, a->embree.size(), [&](size_t i, size_t count) {
                        std::copy_n(&a->embree[i], count, batch.data());
                        RTCIntersectContext context;
                        rtcInitIntersectContext(&context);
                        rtcIntersect1M(scene, &context, batch.data(), static_cast<unsigned>(count),
                                       sizeof(RTCRayHit));
                    });
                });
            }
        }
        for (int set = 0; set < 2; ++set)
        {
            const std::vector<V3>* points = &w->points[set];
            for (int i = 0; i < kTreeCount; ++i)
            {
                const kxQBVH* q = &w->trees[i];
                add(key(std::string("closest_") + kTrees[i], *w, kPointSets[set]), [=](benchmark::State& s) {
                    loop(s, points, [q](const V3& p) { return ourClosest(*q, p); });
                });
            }
            for (int e = 0; e < 2; ++e)
            {
                RTCScene scene = w->scenes[e];
                const kx::kxTriMesh* mesh = w->mesh;
                add(key(std::string("pointquery_") + kEmbrees[e], *w, kPointSets[set]), [=](benchmark::State& s) {
                    loop(s, points, [scene, mesh](const V3& p) { return embreeClosest(scene, *mesh, p); });
                });
            }
        }
    }
}

void printTables(const RateReporter& reporter, const std::vector<int>& threadCounts)
{
    const auto ratio = [](double a, double b) { return b > 0.0 ? a / b : 0.0; };
    for (int threads : threadCounts)
    {
        std::printf("\nMillion queries per second on %d thread%s; ratios ours (high-quality tree, and SAH tree) / "
                    "theirs\n",
                    threads, threads == 1 ? "" : "s");
        std::printf("%-32s %7s %7s %7s %7s %7s %7s | %7s %7s %7s %7s\n", "occlusion", "any", "any-sah", "any-hq",
                    "near-hq", "embree", "sse4.2", "hq/emb", "hq/sse", "/near", "sah/sse");
        for (const auto& w : gWorkloads)
            for (const char* set : kRaySets)
            {
                const double a = reporter.rate(key("any_linear", *w, set), threads);
                const double s = reporter.rate(key("any_sah", *w, set), threads);
                const double h = reporter.rate(key("any_hq", *w, set), threads);
                const double n = reporter.rate(key("nearest_hq", *w, set), threads);
                const double e = reporter.rate(key("occluded_embree", *w, set), threads);
                const double e4 = reporter.rate(key("occluded_embree_sse42", *w, set), threads);
                std::printf("%-32s %7.2f %7.2f %7.2f %7.2f %7.2f %7.2f | %7.2f %7.2f %7.2f %7.2f\n",
                            (w->name + "/" + set).c_str(), a * 1e-6, s * 1e-6, h * 1e-6, n * 1e-6, e * 1e-6,
                            e4 * 1e-6, ratio(h, e), ratio(h, e4), ratio(h, n), ratio(s, e4));
            }
        std::printf("%-32s %7s %7s %7s %7s %7s %7s | %7s %7s %7s %7s %7s\n", "batches of 256 (hq tree)", "any",
                    "anyB", "occ1M", "sse-1M", "nearB", "int1M", "B/sse", "B/sse1M", "B/emb1M", "nB/sse1M", "nB/emb1M");
        for (const auto& w : gWorkloads)
            for (const char* set : kRaySets)
            {
                const double h = reporter.rate(key("any_hq", *w, set), threads);
                const double b = reporter.rate(key("anybatch_hq", *w, set), threads);
                const double e4 = reporter.rate(key("occluded_embree_sse42", *w, set), threads);
                const double m = reporter.rate(key("occluded1M_embree", *w, set), threads);
                const double m4 = reporter.rate(key("occluded1M_embree_sse42", *w, set), threads);
                const double n = reporter.rate(key("nearestbatch_hq", *w, set), threads);
                const double i = reporter.rate(key("intersect1M_embree", *w, set), threads);
                const double i4 = reporter.rate(key("intersect1M_embree_sse42", *w, set), threads);
                std::printf("%-32s %7.2f %7.2f %7.2f %7.2f %7.2f %7.2f | %7.2f %7.2f %7.2f %7.2f %7.2f\n",
                            (w->name + "/" + set).c_str(), h * 1e-6, b * 1e-6, m * 1e-6, m4 * 1e-6, n * 1e-6,
                            i * 1e-6, ratio(b, e4), ratio(b, m4), ratio(b, m), ratio(n, i4), ratio(n, i));
            }
        std::printf("%-32s %7s %7s %7s %7s %7s %7s | %7s %7s\n", "closest point", "ours", "sah", "hq", "", "embree",
                    "sse4.2", "hq/emb", "hq/sse");
        for (const auto& w : gWorkloads)
            for (const char* set : kPointSets)
            {
                const double a = reporter.rate(key("closest_linear", *w, set), threads);
                const double s = reporter.rate(key("closest_sah", *w, set), threads);
                const double h = reporter.rate(key("closest_hq", *w, set), threads);
                const double e = reporter.rate(key("pointquery_embree", *w, set), threads);
                const double e4 = reporter.rate(key("pointquery_embree_sse42", *w, set), threads);
                std::printf("%-32s %7.3f %7.3f %7.3f %7s %7.3f %7.3f | %7.2f %7.2f\n", (w->name + "/" + set).c_str(),
                            a * 1e-6, s * 1e-6, h * 1e-6, "", e * 1e-6, e4 * 1e-6, ratio(h, e), ratio(h, e4));
            }
    }
}
} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    kx::kxLog log;
    log.setLevelEnabled(1, false);
    kx::kxLog::msInstance = &log;
    gDevices[0] = rtcNewDevice("threads=1");
    gDevices[1] = rtcNewDevice("threads=1,isa=sse4.2");

    kxBench::NamedMeshes meshes = {
        {"land1M", kxBench::makeLandscape(1000000)}};
    if (!kxBench::addMeshFiles(argc, argv, meshes))
        return 2;
    const auto flags = kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations);
    for (auto& [name, mesh] : meshes)
    {
        auto w = std::make_unique<Workload>();
        w->name = name;
        w->mesh = mesh;
        w->positions = kxBench::paddedPositions(*mesh);
        w->trees[0].buildFromMesh(flags, *mesh, 4);
        {
            const kxBVHTriangleContainer container(*mesh);
            kxGenericBVH bvh;
            kxGenericBVHBuilder().build(container, bvh);
            w->trees[1].buildFromBVH(flags, bvh, *mesh);
        }
        {
            kxGenericBVH bvh;
            kxHighQualityBVHBuilder().build(*mesh, bvh);
            w->trees[2].buildFromBVH(flags, bvh, *mesh);
        }
        for (int e = 0; e < 2; ++e)
            w->scenes[e] = kxBench::embreeScene(gDevices[e], *w->mesh, w->positions);
        makeRays(*w);
        makeArrays(*w);
        makePoints(*w);
        describe(*w);
        gWorkloads.push_back(std::move(w));
    }

    std::vector<int> threadCounts = {1};
    const int cores = static_cast<int>(std::thread::hardware_concurrency());
    if (cores > 1)
        threadCounts.push_back(cores);
    registerAll(threadCounts);
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printTables(reporter, threadCounts);

    kxBench::releaseEmbree(gWorkloads, gDevices);
    kx::kxLog::msInstance = nullptr;
    benchmark::Shutdown();
    return 0;
}
