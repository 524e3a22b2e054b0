// Linear BVH builds over procedural meshes, beside Embree's single-threaded low-quality
// build of the same meshes in the same process.
#include "kxBVHContainers.h"
#include "kxBenchMeshes.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLog.h"

#include <benchmark/benchmark.h>
#ifdef KX_BENCH_WITH_EMBREE
#include <embree3/rtcore.h>
#endif

#include <malloc.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace
{
struct Size
{
    uint32_t triangles;
    const char* label;
};
const Size kSizes[] = {{100000, "100k"}, {1000000, "1M"}, {4000000, "4M"}};

const kx::kxTriMesh& meshOf(uint32_t triangles)
{
    static std::map<uint32_t, kx::kxPointer<kx::kxTriMesh>> meshes;
    kx::kxPointer<kx::kxTriMesh>& mesh = meshes[triangles];
    if (!mesh)
        mesh = kxBench::makeBumpyTorus(triangles);
    return *mesh;
}

uint32_t triangleCount(const kx::kxTriMesh& mesh)
{
    return static_cast<uint32_t>(mesh.GetIndexBuffer()->GetIndexQuantity() / 3);
}

// Resident memory figures of this process in KiB ("VmRSS", "VmHWM").
double statusKiB(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, field.size() + 1, field + ":") == 0)
            return std::stod(line.substr(field.size() + 1));
    return 0.0;
}

// Peak resident memory that one call adds, in MiB. Large blocks are mapped and unmapped
// (see main), so memory a build frees does not linger in the heap.
template <typename Build>
double peakMiB(Build&& build)
{
    std::ofstream("/proc/self/clear_refs") << "5";
    const double before = statusKiB("VmRSS");
    build();
    return (statusKiB("VmHWM") - before) / 1024.0;
}

void linearBuild(benchmark::State& state, uint32_t triangles, bool fromMesh)
{
    const kx::kxTriMesh& mesh = meshOf(triangles);
    const kxBVHTriangleContainer prepared(mesh);
    const auto build = [&] {
        kxLinearGenericBVHBuilder builder;
        kxGenericBVH bvh;
        if (fromMesh)
        {
            const kxBVHTriangleContainer container(mesh);
            builder.build(container, bvh, nullptr, 20);
        }
        else
        {
            builder.build(prepared, bvh, nullptr, 20);
        }
        benchmark::DoNotOptimize(bvh.mNodes.data());
    };
    state.counters["peak_MiB"] = peakMiB(build);
    for (auto _ : state)
        build();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * triangleCount(mesh));
}

#ifdef KX_BENCH_WITH_EMBREE
void embreeLowBuild(benchmark::State& state, uint32_t triangles)
{
    const kx::kxTriMesh& mesh = meshOf(triangles);
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    // Embree reads vertices with 16-byte loads: pad the copy.
    std::vector<float> positions(3 * static_cast<size_t>(vertices.GetVertexQuantity()) + 4);
    for (int i = 0; i < vertices.GetVertexQuantity(); ++i)
        for (int a = 0; a < 3; ++a)
            positions[3 * static_cast<size_t>(i) + a] = vertices.Position3(i)[a];
    const unsigned int* indices = mesh.GetIndexBuffer()->GetData();

    RTCDevice device = rtcNewDevice("threads=1");
    const auto build = [&] {
        RTCScene scene = rtcNewScene(device);
        rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_LOW);
        RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        rtcSetGeometryBuildQuality(geometry, RTC_BUILD_QUALITY_LOW);
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, positions.data(), 0,
                                   3 * sizeof(float), static_cast<size_t>(vertices.GetVertexQuantity()));
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, indices, 0,
                                   3 * sizeof(unsigned int), triangleCount(mesh));
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(scene);
        rtcReleaseScene(scene);
    };
    state.counters["peak_MiB"] = peakMiB(build);
    for (auto _ : state)
        build();
    rtcReleaseDevice(device);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * triangleCount(mesh));
}
#endif

// Prints, after the usual table, how our builds compare with Embree's measured in this run.
// CPU time: the builds are single-threaded, and the machine may be shared.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
            if (!run.error_occurred && run.run_type == Run::RT_Iteration)
                mMilliseconds[run.benchmark_name()] = run.GetAdjustedCPUTime();
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        std::printf("\n%-6s %14s %14s %14s %22s %22s\n", "mesh", "build ms", "mesh+build ms", "Embree ms",
                    "Embree/build speedup", "Embree/mesh+build");
        for (const Size& size : kSizes)
        {
            const double build = time("linear_build/", size), fromMesh = time("linear_from_mesh/", size);
            const double embree = time("embree_low/", size);
            if (build <= 0.0)
                continue;
            std::printf("%-6s %14.2f %14.2f %14.2f", size.label, build, fromMesh, embree);
            if (embree > 0.0)
                std::printf(" %21.2fx %21.2fx", embree / build, embree / fromMesh);
            std::printf("\n");
        }
    }

private:
    double time(const std::string& prefix, const Size& size) const
    {
        const auto found = mMilliseconds.find(prefix + size.label);
        return found == mMilliseconds.end() ? 0.0 : found->second;
    }

    std::map<std::string, double> mMilliseconds;
};
} // namespace

int main(int argc, char** argv)
{
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    // The builder's memory report goes to a log whose info level is off, as in an application.
    kx::kxLog log;
    log.setLevelEnabled(1, false);
    kx::kxLog::msInstance = &log;

    for (const Size& size : kSizes)
    {
        const uint32_t triangles = size.triangles;
        benchmark::RegisterBenchmark((std::string("linear_build/") + size.label).c_str(),
                                     [triangles](benchmark::State& state) { linearBuild(state, triangles, false); })
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("linear_from_mesh/") + size.label).c_str(),
                                     [triangles](benchmark::State& state) { linearBuild(state, triangles, true); })
            ->Unit(benchmark::kMillisecond);
#ifdef KX_BENCH_WITH_EMBREE
        benchmark::RegisterBenchmark((std::string("embree_low/") + size.label).c_str(),
                                     [triangles](benchmark::State& state) { embreeLowBuild(state, triangles); })
            ->Unit(benchmark::kMillisecond);
#endif
    }
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    kx::kxLog::msInstance = nullptr;
    return 0;
}
