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

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <vector>

// Heap bytes in use and their high-water mark: our builds allocate through operator new,
// Embree reports its allocations to a memory monitor.
namespace
{
int64_t gBytesInUse = 0;
int64_t gPeakBytes = 0;

void account(int64_t bytes)
{
    gBytesInUse += bytes;
    gPeakBytes = std::max(gPeakBytes, gBytesInUse);
}

void* countedAllocation(void* memory)
{
    if (!memory)
        throw std::bad_alloc();
    account(static_cast<int64_t>(malloc_usable_size(memory)));
    return memory;
}

void countedRelease(void* memory)
{
    if (memory)
        account(-static_cast<int64_t>(malloc_usable_size(memory)));
    std::free(memory);
}
} // namespace

void* operator new(std::size_t size)
{
    return countedAllocation(std::malloc(size ? size : 1));
}

void* operator new(std::size_t size, std::align_val_t alignment)
{
    const size_t align = static_cast<size_t>(alignment);
    return countedAllocation(std::aligned_alloc(align, (size + align - 1) / align * align));
}

// The replacements are malloc and free underneath, which the compiler cannot see.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void operator delete(void* memory) noexcept
{
    countedRelease(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    countedRelease(memory);
}

void operator delete(void* memory, std::align_val_t) noexcept
{
    countedRelease(memory);
}

void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    countedRelease(memory);
}

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

// Peak heap memory that one call adds, in MiB.
template <typename Build>
double peakMiB(Build&& build)
{
    const int64_t before = gBytesInUse;
    gPeakBytes = before;
    build();
    return static_cast<double>(gPeakBytes - before) / (1024.0 * 1024.0);
}

void linearBuild(benchmark::State& state, uint32_t triangles, bool fromMesh)
{
    const kx::kxTriMesh& mesh = meshOf(triangles);
    const kxBVHTriangleContainer prepared(mesh);
    const auto build = [&]
    {
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
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kxBench::triangleCount(mesh));
}

#ifdef KX_BENCH_WITH_EMBREE
void embreeLowBuild(benchmark::State& state, uint32_t triangles)
{
    const kx::kxTriMesh& mesh = meshOf(triangles);
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const std::vector<float> positions = kxBench::paddedPositions(mesh);
    const unsigned int* indices = mesh.GetIndexBuffer()->GetData();

    RTCDevice device = rtcNewDevice("threads=1");
    rtcSetDeviceMemoryMonitorFunction(
        device,
        [](void*, ssize_t bytes, bool)
        {
            account(bytes);
            return true;
        },
        nullptr);
    const auto build = [&]
    {
        RTCScene scene = rtcNewScene(device);
        rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_LOW);
        RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        rtcSetGeometryBuildQuality(geometry, RTC_BUILD_QUALITY_LOW);
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, positions.data(), 0,
                                   3 * sizeof(float), static_cast<size_t>(vertices.GetVertexQuantity()));
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, indices, 0,
                                   3 * sizeof(unsigned int), kxBench::triangleCount(mesh));
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
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kxBench::triangleCount(mesh));
}
#endif

// Prints, after the usual table, how our builds compare with Embree's measured in this run:
// the fastest repetition of each, in CPU time, since the builds are single-threaded and
// the machine may be shared.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
        {
            const bool single = run.run_type == Run::RT_Iteration;
            const bool fastest = run.run_type == Run::RT_Aggregate && run.aggregate_name == "min";
            if (run.error_occurred || !(single || fastest))
                continue;
            Result& result = mResults[run.run_name.str()];
            result.milliseconds = std::min(result.milliseconds, run.GetAdjustedCPUTime());
            const auto peak = run.counters.find("peak_MiB");
            if (peak != run.counters.end())
                result.peakMiB = peak->second.value;
        }
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        std::printf("\n%-5s | %-26s | %-26s | %-26s | %s\n", "mesh", "build (ms, Mtri/s, MiB)",
                    "mesh+build (ms, Mtri/s, MiB)", "Embree (ms, Mtri/s, MiB)", "Embree time / ours");
        for (const Size& size : kSizes)
        {
            const Result* build = find("linear_build/", size);
            const Result* fromMesh = find("linear_from_mesh/", size);
            const Result* embree = find("embree_low/", size);
            if (!build || !fromMesh)
                continue;
            const double triangles = kxBench::triangleCount(meshOf(size.triangles));
            std::printf("%-5s | %s | %s | %s |", size.label, describe(*build, triangles).c_str(),
                        describe(*fromMesh, triangles).c_str(), embree ? describe(*embree, triangles).c_str() : "-");
            if (embree)
                std::printf(" build %.2fx, mesh+build %.2fx", embree->milliseconds / build->milliseconds,
                            embree->milliseconds / fromMesh->milliseconds);
            std::printf("\n");
        }
    }

private:
    struct Result
    {
        double milliseconds = 1e300;
        double peakMiB = 0.0;
    };

    const Result* find(const std::string& prefix, const Size& size) const
    {
        const auto found = mResults.find(prefix + size.label);
        return found == mResults.end() ? nullptr : &found->second;
    }

    static std::string describe(const Result& result, double triangles)
    {
        char text[64];
        std::snprintf(text, sizeof(text), "%8.2f %6.2f %8.1f", result.milliseconds,
                      triangles / result.milliseconds / 1000.0, result.peakMiB);
        return text;
    }

    std::map<std::string, Result> mResults;
};
} // namespace

int main(int argc, char** argv)
{
    // The builder's memory report goes to a log whose info level is off, as in an application.
    kx::kxLog log;
    log.setLevelEnabled(1, false);
    kx::kxLog::msInstance = &log;

    for (const Size& size : kSizes)
    {
        const uint32_t triangles = size.triangles;
        benchmark::RegisterBenchmark((std::string("linear_build/") + size.label).c_str(),
                                     [triangles](benchmark::State& state) { linearBuild(state, triangles, false); })
            ->Unit(benchmark::kMillisecond)
            ->ComputeStatistics("min",
                                [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); });
        benchmark::RegisterBenchmark((std::string("linear_from_mesh/") + size.label).c_str(),
                                     [triangles](benchmark::State& state) { linearBuild(state, triangles, true); })
            ->Unit(benchmark::kMillisecond)
            ->ComputeStatistics("min",
                                [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); });
#ifdef KX_BENCH_WITH_EMBREE
        benchmark::RegisterBenchmark((std::string("embree_low/") + size.label).c_str(),
                                     [triangles](benchmark::State& state) { embreeLowBuild(state, triangles); })
            ->Unit(benchmark::kMillisecond)
            ->ComputeStatistics("min",
                                [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); });
#endif
    }
    std::vector<char*> arguments(argv, argv + argc);
    std::string repetitions = "--benchmark_repetitions=5";
    std::string onlyAggregates = "--benchmark_report_aggregates_only=true";
    arguments.insert(arguments.begin() + 1, {&repetitions[0], &onlyAggregates[0]});
    argc = static_cast<int>(arguments.size());
    argv = arguments.data();
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    kx::kxLog::msInstance = nullptr;
    return 0;
}
