// Builds end to end on one thread, beside Embree's in the same run: kxQBVH::buildFromMesh
// against Embree's fast (LOW) build, the binned-SAH road against its default (MEDIUM) one,
// and each of our phases alone. Every build is run --repeat times, interleaved; the first
// run (what an application that builds once sees, once the process has touched memory:
// see touchMemoryOnce) is shown beside the best. Beside the phases: what writing the
// arrays that buildFromMesh returns into fresh memory costs alone, the floor of any build
// that returns them. Peak memory is the heap a build adds on top of what was in use before
// it: ours counted at the C allocator, Embree's by its memory monitor.
//
//   kxBuildBench [--repeat N] [--no-sah] [MESH ...]
//
// Without meshes: the built-in scene of kxbvh (about a million triangles) and the meshes
// of Debian's assimp-testmodels with 100,000 triangles or more.
#include "MemoryMeter.h"
#include "Scene.h"
#include "kxBVHContainers.h"
#include "kxBenchMeshes.h"
#include "kxGenericBVHBuilder.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxLog.h"
#include "kxQBVH.h"

#include <embree3/rtcore.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <vector>

namespace
{
const char* const kTestModels[] = {"glTF2/draco/2CylinderEngine.gltf", "BLEND/yxa_1.blend",
                                   "glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb", "AC/sample_subdiv.ac",
                                   "BLEND/SuzanneSubdiv_252.blend"};
const char* const kTestModelFolder = "/usr/share/assimp/models/";

using Clock = std::chrono::steady_clock;

/// First run, best run and the largest peak of one build over the repeats.
struct Figure
{
    double first = 0.0;
    double best = std::numeric_limits<double>::infinity();
    uint64_t peakBytes = 0;
    bool peakCounted = true;
    bool ran = false;

    void add(double seconds, uint64_t peak)
    {
        if (!ran)
            first = seconds;
        ran = true;
        best = std::min(best, seconds);
        peakBytes = std::max(peakBytes, peak);
    }
};

/// Times work on the calling thread and measures the heap it adds at its peak; what the
/// work leaves behind is released by `done`, untimed.
class OurBuild
{
public:
    Figure figure;

    void run(const std::function<void()>& work)
    {
        const kxbvh::HeapMeter* heap = kxbvh::programHeap();
        figure.peakCounted = heap != nullptr;
        const int64_t before = heap ? heap->inUse() : 0;
        if (heap)
            heap->restartPeak();
        const Clock::time_point start = Clock::now();
        work();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        const int64_t above = heap ? heap->peak() - before : 0;
        figure.add(seconds, above > 0 ? static_cast<uint64_t>(above) : 0u);
    }
};

/// One Embree device, one thread, at an ISA, counting its memory.
class EmbreeBuilder
{
public:
    EmbreeBuilder(const char* isa, RTCBuildQuality quality) : mQuality(quality)
    {
        const std::string config = std::string("threads=1") + (isa ? std::string(",isa=") + isa : std::string());
        mDevice = rtcNewDevice(config.c_str());
        if (!mDevice)
        {
            std::fprintf(stderr, "kxBuildBench: Embree refused the device \"%s\"\n", config.c_str());
            std::exit(2);
        }
        rtcSetDeviceMemoryMonitorFunction(mDevice, &EmbreeBuilder::count, this);
    }
    ~EmbreeBuilder() { rtcReleaseDevice(mDevice); }
    EmbreeBuilder(const EmbreeBuilder&) = delete;
    EmbreeBuilder& operator=(const EmbreeBuilder&) = delete;

    /// Scene and geometry over the mesh's own buffers, committed; released untimed.
    void run(const float* positions, size_t vertexCount, const unsigned* indices, size_t triangleCount)
    {
        const int64_t before = mLive;
        mPeak = before;
        const Clock::time_point start = Clock::now();
        RTCScene scene = rtcNewScene(mDevice);
        rtcSetSceneBuildQuality(scene, mQuality);
        RTCGeometry geometry = rtcNewGeometry(mDevice, RTC_GEOMETRY_TYPE_TRIANGLE);
        rtcSetGeometryBuildQuality(geometry, mQuality);
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, positions, 0,
                                   3 * sizeof(float), vertexCount);
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, indices, 0,
                                   3 * sizeof(unsigned), triangleCount);
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(scene);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        figure.add(seconds, static_cast<uint64_t>(std::max<int64_t>(0, mPeak - before)));
        rtcReleaseScene(scene);
    }

    Figure figure;

private:
    static bool count(void* user, ssize_t bytes, bool)
    {
        auto* self = static_cast<EmbreeBuilder*>(user);
        const int64_t now = self->mLive += bytes;
        int64_t peak = self->mPeak.load();
        while (now > peak && !self->mPeak.compare_exchange_weak(peak, now))
        {
        }
        return true;
    }

    RTCDevice mDevice = nullptr;
    RTCBuildQuality mQuality;
    std::atomic<int64_t> mLive{0};
    std::atomic<int64_t> mPeak{0};
};

struct MeshResult
{
    std::string name;
    uint32_t triangles = 0;
    Figure equations, both;             // buildFromMesh: equations only; vertices and equations
    Figure boxing, binary, collapseEquations, collapseBoth;  // the phases of buildFromMesh alone
    Figure freshOutput;                 // writing the arrays buildFromMesh returns (equations) into fresh memory
    Figure sah;                         // container, binned SAH, collapse with equations
    Figure embreeLow[2], embreeMedium[2];  // SSE4.2, native
};

const kxQBVH::tQBVHDataFlags kEquations = kxQBVH::eTrianglesEquations;
const kxQBVH::tQBVHDataFlags kBoth = kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations);

// A process's first touch of memory is far slower on a virtual machine than touching
// memory it has freed before, and would be charged to whichever build runs first. Memory
// for twice the largest build is touched and given back before any build is timed, so
// that both sides' first runs start alike.
void touchMemoryOnce(uint32_t triangles)
{
    constexpr size_t kBytesPerTriangle = 320;
    const size_t bytes = kBytesPerTriangle * std::max<size_t>(triangles, 1u);
    void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED)
        return;
    // Small and huge pages alike, as both sides' builds take both.
    madvise(block, bytes / 2, MADV_HUGEPAGE);
    std::memset(block, 1, bytes);
    munmap(block, bytes);
}

// The least that returning bytes of new arrays costs, whatever computes them: memory
// taken from the allocator as the library takes its large arrays (aligned and advised
// for huge pages) and written once. Most of it is the kernel's zeroing of fresh pages.
void writeFreshMemory(size_t bytes)
{
    constexpr size_t kHugePage = size_t{1} << 21;
    void* block = aligned_alloc(kHugePage, (std::max<size_t>(bytes, 1u) + kHugePage - 1) & ~(kHugePage - 1));
    if (!block)
        return;
    madvise(block, bytes, MADV_HUGEPAGE);
    std::memset(block, 1, bytes);
    // Kept from being optimised away with the free below.
    asm volatile("" : : "r"(block) : "memory");
    std::free(block);
}

MeshResult measure(const std::string& name, const kx::kxTriMesh& mesh, unsigned repeat, bool withSah)
{
    MeshResult result;
    result.name = name;
    result.triangles = kxBench::triangleCount(mesh);
    const std::vector<float> positions = kxBench::paddedPositions(mesh);
    const size_t vertexCount = static_cast<size_t>(mesh.GetVertexBuffer()->GetVertexQuantity());
    const unsigned* indices = mesh.GetIndexBuffer()->GetData();
    const char* const isas[2] = {"sse4.2", nullptr};

    OurBuild equations, both, boxing, binary, collapseEquations, collapseBoth, sah, freshOutput;
    size_t outputBytes = 0;
    std::unique_ptr<EmbreeBuilder> low[2], medium[2];
    for (int i = 0; i < 2; ++i)
    {
        low[i] = std::make_unique<EmbreeBuilder>(isas[i], RTC_BUILD_QUALITY_LOW);
        medium[i] = std::make_unique<EmbreeBuilder>(isas[i], RTC_BUILD_QUALITY_MEDIUM);
    }
    touchMemoryOnce(result.triangles);
    for (unsigned r = 0; r < repeat; ++r)
    {
        std::fprintf(stderr, "\r%s: run %u of %u ", name.c_str(), r + 1, repeat);
        for (auto [build, flags] : {std::pair{&equations, kEquations}, {&both, kBoth}})
        {
            std::unique_ptr<kxQBVH> qbvh = std::make_unique<kxQBVH>();
            build->run([&] { qbvh->buildFromMesh(flags, mesh, 4); });
            if (flags == kEquations)
                outputBytes = qbvh->getNodeCount() * sizeof(kxQBVH::tQBVHNode) +
                              qbvh->getGroupCount() *
                                  (sizeof(kxQBVH::tSOATriangleEquations) + sizeof(kxQBVH::tSOATriangleIndices));
        }
        freshOutput.run([&] { writeFreshMemory(outputBytes); });
        // The same steps as buildFromMesh, one at a time.
        {
            std::unique_ptr<kxBVHTriangleContainer> container;
            boxing.run([&] { container = std::make_unique<kxBVHTriangleContainer>(mesh); });
            kxGenericBVH bvh;
            binary.run([&] {
                kxLinearGenericBVHBuilder builder;
                builder.setMaxPrimitivesPerLeaf(4);
                builder.build(*container, bvh, nullptr, 20);
            });
            container.reset();
            for (auto [build, flags] : {std::pair{&collapseEquations, kEquations}, {&collapseBoth, kBoth}})
            {
                std::unique_ptr<kxQBVH> qbvh = std::make_unique<kxQBVH>();
                build->run([&] { qbvh->buildFromBVH(flags, bvh, mesh); });
            }
        }
        for (int i = 0; i < 2; ++i)
            low[i]->run(positions.data(), vertexCount, indices, result.triangles);
        if (!withSah)
            continue;
        {
            std::unique_ptr<kxQBVH> qbvh = std::make_unique<kxQBVH>();
            sah.run([&] {
                kxGenericBVH bvh;
                {
                    const kxBVHTriangleContainer container(mesh);
                    kxGenericBVHBuilder builder;
                    builder.build(container, bvh);
                }
                qbvh->buildFromBVH(kEquations, bvh, mesh);
            });
        }
        for (int i = 0; i < 2; ++i)
            medium[i]->run(positions.data(), vertexCount, indices, result.triangles);
    }
    std::fprintf(stderr, "\r%*s\r", static_cast<int>(name.size()) + 24, "");
    result.equations = equations.figure;
    result.both = both.figure;
    result.boxing = boxing.figure;
    result.binary = binary.figure;
    result.collapseEquations = collapseEquations.figure;
    result.collapseBoth = collapseBoth.figure;
    result.sah = sah.figure;
    result.freshOutput = freshOutput.figure;
    for (int i = 0; i < 2; ++i)
    {
        result.embreeLow[i] = low[i]->figure;
        result.embreeMedium[i] = medium[i]->figure;
    }
    return result;
}

std::string ms(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", seconds * 1e3);
    return text;
}

std::string mib(const Figure& f)
{
    if (!f.peakCounted)
        return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", static_cast<double>(f.peakBytes) / (1024.0 * 1024.0));
    return text;
}

std::string rate(uint32_t triangles, const Figure& f)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", triangles / f.best / 1e6);
    return text;
}

std::string ratio(const Figure& theirs, const Figure& ours)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2fx", theirs.best / ours.best);
    return text;
}

void printTables(const std::vector<MeshResult>& results, bool withSah)
{
    std::printf("\nbuildFromMesh beside Embree LOW, one thread; times in ms (first run / best), peak heap in MiB\n\n");
    std::printf("| mesh | triangles | equations | vertices + equations | Embree LOW SSE4.2 | Embree LOW native | "
                "speed vs SSE4.2 (eq / both) | vs native (eq / both) | peak MiB (eq / both / Embree SSE4.2) |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const MeshResult& r : results)
        std::printf("| %s | %u | %s / %s | %s / %s | %s / %s | %s / %s | %s / %s | %s / %s | %s / %s / %s |\n",
                    r.name.c_str(), r.triangles, ms(r.equations.first).c_str(), ms(r.equations.best).c_str(),
                    ms(r.both.first).c_str(), ms(r.both.best).c_str(), ms(r.embreeLow[0].first).c_str(),
                    ms(r.embreeLow[0].best).c_str(), ms(r.embreeLow[1].first).c_str(), ms(r.embreeLow[1].best).c_str(),
                    ratio(r.embreeLow[0], r.equations).c_str(), ratio(r.embreeLow[0], r.both).c_str(),
                    ratio(r.embreeLow[1], r.equations).c_str(), ratio(r.embreeLow[1], r.both).c_str(),
                    mib(r.equations).c_str(), mib(r.both).c_str(), mib(r.embreeLow[0]).c_str());

    std::printf("\nPhases of buildFromMesh alone, best run: ms (M triangles/s), peak heap MiB\n\n");
    std::printf("| mesh | boxing | linear binary build | collapse, equations | collapse, vertices + equations | "
                "its returned arrays (equations) written into fresh memory |\n");
    std::printf("|---|---:|---:|---:|---:|---:|\n");
    for (const MeshResult& r : results)
        std::printf("| %s | %s (%s) | %s (%s), %s MiB | %s (%s), %s MiB | %s (%s), %s MiB | %s, %s MiB |\n",
                    r.name.c_str(), ms(r.boxing.best).c_str(), rate(r.triangles, r.boxing).c_str(),
                    ms(r.binary.best).c_str(), rate(r.triangles, r.binary).c_str(), mib(r.binary).c_str(),
                    ms(r.collapseEquations.best).c_str(), rate(r.triangles, r.collapseEquations).c_str(),
                    mib(r.collapseEquations).c_str(), ms(r.collapseBoth.best).c_str(),
                    rate(r.triangles, r.collapseBoth).c_str(), mib(r.collapseBoth).c_str(),
                    ms(r.freshOutput.best).c_str(), mib(r.freshOutput).c_str());

    if (!withSah)
        return;
    std::printf("\nBinned-SAH road (container, SAH builder, collapse with equations) beside Embree MEDIUM, one "
                "thread: ms (first run / best), peak heap MiB\n\n");
    std::printf("| mesh | SAH road | Embree MEDIUM SSE4.2 | Embree MEDIUM native | speed vs SSE4.2 | vs native | "
                "peak MiB (ours / Embree SSE4.2) |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|\n");
    for (const MeshResult& r : results)
        std::printf("| %s | %s / %s | %s / %s | %s / %s | %s | %s | %s / %s |\n", r.name.c_str(),
                    ms(r.sah.first).c_str(), ms(r.sah.best).c_str(), ms(r.embreeMedium[0].first).c_str(),
                    ms(r.embreeMedium[0].best).c_str(), ms(r.embreeMedium[1].first).c_str(),
                    ms(r.embreeMedium[1].best).c_str(), ratio(r.embreeMedium[0], r.sah).c_str(),
                    ratio(r.embreeMedium[1], r.sah).c_str(), mib(r.sah).c_str(), mib(r.embreeMedium[0]).c_str());
}

bool exists(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

[[noreturn]] void usage(const char* problem)
{
    std::fprintf(stderr, "kxBuildBench: %s\nusage: kxBuildBench [--repeat N] [--no-sah] [MESH ...]\n", problem);
    std::exit(2);
}
} // namespace

int main(int argc, char** argv)
{
    unsigned repeat = 3;
    bool withSah = true;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (arg == "--repeat")
        {
            char* end = nullptr;
            const long n = i + 1 < argc ? std::strtol(argv[++i], &end, 10) : 0;
            if (!end || *end || n < 1 || n > 1000)
                usage("--repeat wants a number from 1 to 1000");
            repeat = static_cast<unsigned>(n);
        }
        else if (arg == "--no-sah")
            withSah = false;
        else if (!arg.empty() && arg[0] == '-')
            usage(("unknown option " + arg).c_str());
        else
            files.push_back(arg);
    }

    // The builders' memory lines go to a log whose info level is off, as in an application.
    kx::kxLog log;
    log.setLevelEnabled(1, false);
    kx::kxLog::msInstance = &log;

    std::vector<MeshResult> results;
    if (files.empty())
    {
        results.push_back(measure("built-in scene", *kxbvh::makeScene(kxbvh::kDefaultSceneTriangles), repeat, withSah));
        for (const char* model : kTestModels)
            if (exists(kTestModelFolder + std::string(model)))
                files.push_back(kTestModelFolder + std::string(model));
    }
    for (const std::string& file : files)
    {
#ifdef KX_BENCH_WITH_ASSIMP
        const kx::kxPointer<kx::kxTriMesh> mesh = kxBench::loadMeshFile(file);
#else
        const kx::kxPointer<kx::kxTriMesh> mesh;
        std::fprintf(stderr, "kxBuildBench: built without assimp, cannot read %s\n", file.c_str());
#endif
        if (!mesh)
            return 2;
        const size_t slash = file.find_last_of('/');
        results.push_back(measure(slash == std::string::npos ? file : file.substr(slash + 1), *mesh, repeat, withSah));
    }
    std::printf("kxBuildBench: Embree %s; first run and best of %u, interleaved%s\n", RTC_VERSION_STRING, repeat,
                kxbvh::programHeap() ? "" : "; peak heap not counted in sanitizer builds");
    printTables(results, withSah);
    kx::kxLog::msInstance = nullptr;
    return 0;
}
