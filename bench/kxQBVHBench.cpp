// Single-ray throughput of kxQBVH beside Embree 3 on the same triangles and rays:
// primary camera rays and random rays from inside the bounds, then our queries from
// 1, 2 and all cores. Extra arguments name mesh files (anything assimp reads).
#include "kxMedianSplitBVH.h"
#include "kxQBVH.h"
#include "kxQBVHBenchMeshes.h"

#include <assimp/cimport.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#include <benchmark/benchmark.h>
#include <embree3/rtcore.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>

using namespace kxbench;

namespace
{
struct Ray
{
    Wm4::Vector3<float> origin, direction;
};

struct Workload
{
    std::string name;
    MeshData data;
    kx::kxPointer<kx::kxTriMesh> mesh;
    kxQBVH qbvh;
    RTCScene scene = nullptr;
    std::vector<Ray> primary, random;
    double buildSeconds = 0.0;
};

RTCDevice gDevice = nullptr;
std::vector<std::unique_ptr<Workload>> gWorkloads;

bool loadMeshFile(const std::string& path, MeshData& m)
{
    const aiScene* scene = aiImportFile(path.c_str(), aiProcess_Triangulate | aiProcess_JoinIdenticalVertices |
                                                          aiProcess_PreTransformVertices);
    if (!scene)
    {
        std::fprintf(stderr, "cannot read %s: %s\n", path.c_str(), aiGetErrorString());
        return false;
    }
    for (unsigned int i = 0; i < scene->mNumMeshes; ++i)
    {
        const aiMesh* mesh = scene->mMeshes[i];
        const unsigned int base = static_cast<unsigned int>(m.positions.size() / 3);
        for (unsigned int v = 0; v < mesh->mNumVertices; ++v)
            m.positions.insert(m.positions.end(), {mesh->mVertices[v].x, mesh->mVertices[v].y, mesh->mVertices[v].z});
        for (unsigned int f = 0; f < mesh->mNumFaces; ++f)
            if (mesh->mFaces[f].mNumIndices == 3)
                for (int c = 0; c < 3; ++c)
                    m.indices.push_back(base + mesh->mFaces[f].mIndices[c]);
    }
    aiReleaseImport(scene);
    return !m.indices.empty();
}

RTCScene embreeScene(const MeshData& m)
{
    RTCScene scene = rtcNewScene(gDevice);
    RTCGeometry geometry = rtcNewGeometry(gDevice, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* vertices = static_cast<float*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0,
                                                                 RTC_FORMAT_FLOAT3, 3 * sizeof(float),
                                                                 m.positions.size() / 3));
    std::copy(m.positions.begin(), m.positions.end(), vertices);
    auto* indices = static_cast<unsigned int*>(rtcSetNewGeometryBuffer(
        geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned int), m.indices.size() / 3));
    std::copy(m.indices.begin(), m.indices.end(), indices);
    rtcCommitGeometry(geometry);
    rtcAttachGeometry(scene, geometry);
    rtcReleaseGeometry(geometry);
    rtcCommitScene(scene);
    return scene;
}

void makeRays(Workload& w)
{
    const kxBBox& box = w.qbvh.getBBox();
    const Wm4::Vector3<float> centre = box.getCenter();
    const Wm4::Vector3<float> extent(box.max[0] - box.min[0], box.max[1] - box.min[1], box.max[2] - box.min[2]);
    // A camera above and in front of the scene, looking at its centre, seeing all of it.
    const Wm4::Vector3<float> eye = centre + Wm4::Vector3<float>(0.3f * extent[0], 0.8f * extent.Length(),
                                                                 0.9f * extent.Length());
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
            w.primary.push_back({eye, d});
        }
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    while (w.random.size() < w.primary.size())
    {
        Wm4::Vector3<float> o, d(signedUnit(rng), signedUnit(rng), signedUnit(rng));
        for (int a = 0; a < 3; ++a)
            o[a] = box.min[a] + unit(rng) * extent[a];
        if (d.Length() < 0.1f)
            continue;
        d.Normalize();
        w.random.push_back({o, d});
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

void agreement(const Workload& w, const std::vector<Ray>& rays, const char* kind)
{
    size_t agree = 0, hits = 0;
    for (const Ray& r : rays)
    {
        float a, b;
        const bool ha = ourHit(w.qbvh, r, a), hb = embreeHit(w.scene, r, b);
        hits += ha;
        agree += ha == hb && (!ha || std::fabs(a - b) <= 1e-4f * std::max(std::fabs(a), std::fabs(b)));
    }
    std::printf("%-12s %-8s hit rate %5.1f%%, agreement with Embree %.4f%%\n", w.name.c_str(), kind,
                100.0 * hits / rays.size(), 100.0 * agree / rays.size());
}

void ours(benchmark::State& state, const Workload* w, const std::vector<Ray>* rays)
{
    // Each thread takes its own stretch of the rays.
    const size_t n = rays->size(), first = n * state.thread_index() / state.threads();
    size_t i = first, hits = 0;
    for (auto _ : state)
    {
        float t;
        hits += ourHit(w->qbvh, (*rays)[i], t);
        if (++i == n)
            i = 0;
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations());
}

void embree(benchmark::State& state, const Workload* w, const std::vector<Ray>* rays)
{
    size_t i = 0, hits = 0;
    for (auto _ : state)
    {
        float t;
        hits += embreeHit(w->scene, (*rays)[i], t);
        if (++i == rays->size())
            i = 0;
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations());
}

class RateReporter : public benchmark::ConsoleReporter
{
public:
    std::map<std::string, double> rates;
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
        {
            const auto it = run.counters.find("items_per_second");
            if (it != run.counters.end())
                rates[run.benchmark_name()] = it->second;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};
} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    gDevice = rtcNewDevice("threads=1");
    std::vector<std::pair<std::string, MeshData>> meshes = {{"land100k", landscape(100000)},
                                                            {"land1M", landscape(1000000)}};
    for (int i = 1; i < argc; ++i)
    {
        MeshData m;
        if (loadMeshFile(argv[i], m))
            meshes.emplace_back(std::string(argv[i]).substr(std::string(argv[i]).find_last_of('/') + 1), std::move(m));
    }
    for (auto& [name, data] : meshes)
    {
        auto w = std::make_unique<Workload>();
        w->name = name;
        w->data = std::move(data);
        w->mesh = toTriMesh(w->data);
        const auto start = std::chrono::steady_clock::now();
        w->qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, kxtest::buildMedianSplitBVH(*w->mesh), *w->mesh);
        w->buildSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        w->scene = embreeScene(w->data);
        makeRays(*w);
        std::printf("%-12s %zu triangles, %u four-wide nodes, %u groups, built in %.2f s\n", name.c_str(),
                    w->data.indices.size() / 3, w->qbvh.getNodeCount(), w->qbvh.getGroupCount(), w->buildSeconds);
        agreement(*w, w->primary, "primary");
        agreement(*w, w->random, "random");
        gWorkloads.push_back(std::move(w));
    }
    const int cores = static_cast<int>(std::thread::hardware_concurrency());
    for (const auto& w : gWorkloads)
        for (const auto& [kind, rays] : {std::make_pair("primary", &w->primary), std::make_pair("random", &w->random)})
        {
            benchmark::RegisterBenchmark(("ours/" + w->name + "/" + kind).c_str(), ours, w.get(), rays);
            benchmark::RegisterBenchmark(("embree/" + w->name + "/" + kind).c_str(), embree, w.get(), rays);
            auto* threaded = benchmark::RegisterBenchmark(("ours_threads/" + w->name + "/" + kind).c_str(), ours,
                                                          w.get(), rays);
            threaded->UseRealTime()->Threads(1)->Threads(2);
            if (cores > 2)
                threaded->Threads(cores);
        }
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nours / Embree, single-threaded rays per second:\n");
    for (const auto& w : gWorkloads)
        for (const char* kind : {"primary", "random"})
        {
            const std::string suffix = w->name + "/" + kind;
            const double a = reporter.rates["ours/" + suffix], b = reporter.rates["embree/" + suffix];
            if (a > 0 && b > 0)
                std::printf("  %-22s %8.2f Mrays/s vs %8.2f Mrays/s: %.2f\n", suffix.c_str(), a * 1e-6, b * 1e-6,
                            a / b);
        }
    for (const auto& w : gWorkloads)
        rtcReleaseScene(w->scene);
    rtcReleaseDevice(gDevice);
    benchmark::Shutdown();
    return 0;
}
