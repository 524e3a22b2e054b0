// SAH build throughput (triangles per second, CPU time: the machine may be shared)
// beside Embree's single-threaded medium-quality builds, with the ratios printed at the
// end of the run.
#include "kxBenchMeshes.h"

#include <kxBVHContainers.h>
#include <kxGenericBVHBuilder.h>

#include <benchmark/benchmark.h>

#ifdef KX_BENCH_WITH_EMBREE
#include <embree3/rtcore.h>
#endif

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{
const std::vector<int64_t> kSizes = {100000, 1000000, 4000000};

const kx::kxTriMesh& meshOf(int64_t triangles)
{
    static std::map<int64_t, kx::kxPointer<kx::kxTriMesh>> meshes;
    auto& mesh = meshes[triangles];
    if (!mesh)
        mesh = kxBench::makeBumpyTorus(static_cast<uint32_t>(triangles));
    return *mesh;
}

int64_t triangleCount(const kx::kxTriMesh& mesh)
{
    return kxBench::triangleCount(mesh);
}

void SAHBuild(benchmark::State& state)
{
    const kx::kxTriMesh& mesh = meshOf(state.range(0));
    const kxBVHTriangleContainer container(mesh);
    kxGenericBVHBuilder builder;
    for (auto _ : state)
    {
        kxGenericBVH bvh;
        builder.build(container, bvh);
        benchmark::DoNotOptimize(bvh.mNodes.data());
    }
    state.SetItemsProcessed(state.iterations() * triangleCount(mesh));
}

// Includes computing the triangle boxes, as a scene commit does.
void SAHBuildFromMesh(benchmark::State& state)
{
    const kx::kxTriMesh& mesh = meshOf(state.range(0));
    kxGenericBVHBuilder builder;
    for (auto _ : state)
    {
        const kxBVHTriangleContainer container(mesh);
        kxGenericBVH bvh;
        builder.build(container, bvh);
        benchmark::DoNotOptimize(bvh.mNodes.data());
    }
    state.SetItemsProcessed(state.iterations() * triangleCount(mesh));
}

#ifdef KX_BENCH_WITH_EMBREE
RTCDevice device()
{
    static RTCDevice d = rtcNewDevice("threads=1");
    return d;
}

// A binary tree of the same shape of information as a kxGenericBVH.
struct EmbreeNode
{
    RTCBounds bounds[2];
    void* children[2];
};
struct EmbreeLeaf
{
    unsigned int first;
    unsigned int count;
};

void* createNode(RTCThreadLocalAllocator alloc, unsigned int, void*)
{
    return rtcThreadLocalAlloc(alloc, sizeof(EmbreeNode), 16);
}
void setNodeChildren(void* node, void** children, unsigned int count, void*)
{
    for (unsigned int i = 0; i < count; ++i)
        static_cast<EmbreeNode*>(node)->children[i] = children[i];
}
void setNodeBounds(void* node, const RTCBounds** bounds, unsigned int count, void*)
{
    for (unsigned int i = 0; i < count; ++i)
        static_cast<EmbreeNode*>(node)->bounds[i] = *bounds[i];
}
void* createLeaf(RTCThreadLocalAllocator alloc, const RTCBuildPrimitive* prims, size_t count, void*)
{
    auto* leaf = static_cast<EmbreeLeaf*>(rtcThreadLocalAlloc(alloc, sizeof(EmbreeLeaf), 16));
    leaf->first = prims[0].primID;
    leaf->count = static_cast<unsigned int>(count);
    return leaf;
}

// rtcBuildBVH from primitive boxes: the same input and output as the SAH builder.
void EmbreeBuildBVH(benchmark::State& state)
{
    const kx::kxTriMesh& mesh = meshOf(state.range(0));
    const kxBVHTriangleContainer container(mesh);
    std::vector<RTCBuildPrimitive> source(container.getQuantity());
    for (unsigned int i = 0; i < container.getQuantity(); ++i)
    {
        const kxBBox& b = container.getBBox(i);
        source[i] = {b.min[0], b.min[1], b.min[2], 0u, b.max[0], b.max[1], b.max[2], i};
    }
    std::vector<RTCBuildPrimitive> prims;
    RTCBVH bvh = rtcNewBVH(device());
    for (auto _ : state)
    {
        state.PauseTiming();
        prims = source;
        state.ResumeTiming();
        RTCBuildArguments args = rtcDefaultBuildArguments();
        args.buildQuality = RTC_BUILD_QUALITY_MEDIUM;
        args.maxBranchingFactor = 2;
        args.maxDepth = 32;
        args.maxLeafSize = 16;
        args.traversalCost = 4.0f;
        args.intersectionCost = 1.0f;
        args.bvh = bvh;
        args.primitives = prims.data();
        args.primitiveCount = prims.size();
        args.primitiveArrayCapacity = prims.size();
        args.createNode = createNode;
        args.setNodeChildren = setNodeChildren;
        args.setNodeBounds = setNodeBounds;
        args.createLeaf = createLeaf;
        benchmark::DoNotOptimize(rtcBuildBVH(&args));
    }
    rtcReleaseBVH(bvh);
    state.SetItemsProcessed(state.iterations() * triangleCount(mesh));
}

// A triangle scene committed from the mesh's own buffers.
void EmbreeSceneCommit(benchmark::State& state)
{
    const kx::kxTriMesh& mesh = meshOf(state.range(0));
    const auto* vertices = mesh.GetVertexBuffer();
    const auto* indices = mesh.GetIndexBuffer();
    for (auto _ : state)
    {
        RTCScene scene = rtcNewScene(device());
        rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
        RTCGeometry geometry = rtcNewGeometry(device(), RTC_GEOMETRY_TYPE_TRIANGLE);
        rtcSetGeometryBuildQuality(geometry, RTC_BUILD_QUALITY_MEDIUM);
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, &vertices->Position3(0), 0,
                                   sizeof(Wm4::Vector3<float>), size_t(vertices->GetVertexQuantity()));
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, indices->GetData(), 0,
                                   3 * sizeof(unsigned int), size_t(triangleCount(mesh)));
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(scene);
        rtcReleaseScene(scene);
    }
    state.SetItemsProcessed(state.iterations() * triangleCount(mesh));
}
#endif

// Console output as usual, plus the throughput of every run kept for the ratio table.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
        {
            const auto it = run.counters.find("items_per_second");
            if (it != run.counters.end() && run.run_type == Run::RT_Iteration)
            {
                // The best of any repetitions.
                double& rate = mRate[run.run_name.function_name + "/" + run.run_name.args];
                rate = std::max(rate, it->second.value);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printRatio(const char* ours, const char* theirs) const
    {
        std::printf("\n%-18s vs %-18s  (million triangles per second)\n", ours, theirs);
        for (int64_t n : kSizes)
        {
            const std::string suffix = "/" + std::to_string(n);
            const auto a = mRate.find(ours + suffix);
            const auto b = mRate.find(theirs + suffix);
            if (a == mRate.end() || b == mRate.end())
                continue;
            std::printf("  %8lld triangles: %8.2f vs %8.2f   ratio %.2fx\n", static_cast<long long>(n),
                        a->second / 1e6, b->second / 1e6, a->second / b->second);
        }
    }

private:
    std::map<std::string, double> mRate;
};
} // namespace

int main(int argc, char** argv)
{
    for (auto* bench : {benchmark::RegisterBenchmark("SAHBuild", SAHBuild),
                        benchmark::RegisterBenchmark("SAHBuildFromMesh", SAHBuildFromMesh)})
        for (int64_t n : kSizes)
            bench->Arg(n)->Unit(benchmark::kMillisecond);
#ifdef KX_BENCH_WITH_EMBREE
    for (auto* bench : {benchmark::RegisterBenchmark("EmbreeBuildBVH", EmbreeBuildBVH),
                        benchmark::RegisterBenchmark("EmbreeSceneCommit", EmbreeSceneCommit)})
        for (int64_t n : kSizes)
            bench->Arg(n)->Unit(benchmark::kMillisecond);
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
#ifdef KX_BENCH_WITH_EMBREE
    reporter.printRatio("SAHBuild", "EmbreeBuildBVH");
    reporter.printRatio("SAHBuildFromMesh", "EmbreeSceneCommit");
#else
    std::printf("\nEmbree not found: no ratios.\n");
#endif
    benchmark::Shutdown();
    return 0;
}
