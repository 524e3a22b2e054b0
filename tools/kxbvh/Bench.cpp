#include "Bench.h"

#include "Format.h"
#include "Hierarchy.h"
#include "Interrupt.h"
#include "Parallel.h"
#include "Progress.h"
#include "Stats.h"
#ifdef KXBVH_WITH_EMBREE
#include "EmbreeScene.h"
#endif

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <vector>

namespace kxbvh
{
namespace
{
constexpr unsigned kNoHit = 0xFFFFFFFFu;

double secondsOf(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct BuildFigure
{
    std::string name;
    unsigned threads;
    double seconds;
    double bytesPerTriangle;  // the hierarchy as ray queries need it
};

struct TraceFigure
{
    std::string name;
    unsigned threads;
    double raysPerSecond;
    uint64_t hits;
};

/// A ray query as a function of the ray's number; answers the hit triangle or kNoHit.
using Tracer = std::function<unsigned(size_t)>;

class Bench
{
public:
    explicit Bench(const BenchOptions& options)
        : mOptions(options), mThreads(resolveThreads(options.threads)), mMesh(openMesh(options.source)),
          mCamera(options.camera, mMesh.bounds, mMesh.mesh->GetVertexBuffer())
    {
        mThreadCounts.push_back(1);
        if (mThreads > 1)
            mThreadCounts.push_back(mThreads);
        for (int y = 0; y < mCamera.height(); ++y)
            for (int x = 0; x < mCamera.width(); ++x)
                mDirections.push_back(mCamera.direction(x + 0.5f, y + 0.5f));
    }

    void run()
    {
        Hierarchy linear, sah, hq;
        buildBest("kxbvh linear + QBVH", Builder::eLinear, linear);
        buildBest("kxbvh SAH + QBVH", Builder::eSah, sah);
        buildBest("kxbvh hq + QBVH", Builder::eHq, hq);
        std::vector<unsigned> linearHits;
        traceBest("kxbvh (linear BVH)", kxTracer(linear.qbvh), &linearHits);
        traceBest("kxbvh (SAH BVH)", kxTracer(sah.qbvh), nullptr);
        traceBest("kxbvh (hq BVH)", kxTracer(hq.qbvh), nullptr);
#ifdef KXBVH_WITH_EMBREE
        for (bool high : {false, true})
        {
            const std::string name = std::string("Embree ") + EmbreeScene::version() + (high ? " high" : "");
            std::unique_ptr<EmbreeScene> embree;
            for (unsigned threads : mThreadCounts)
            {
                BuildFigure figure{name, threads, std::numeric_limits<double>::infinity(), 0.0};
                for (unsigned r = 0; r < mOptions.repeat; ++r)
                {
                    Progress progress("bench: " + name + " build, " + std::to_string(threads) + " thread(s), run " +
                                      std::to_string(r + 1) + " of " + std::to_string(mOptions.repeat));
                    embree.reset();
                    embree = std::make_unique<EmbreeScene>(*mMesh.mesh, threads, high);
                    figure.seconds = std::min(figure.seconds, embree->buildSeconds());
                    figure.bytesPerTriangle = double(embree->hierarchyBytes()) / mMesh.triangles;
                    throwIfInterrupted("benchmarking");
                }
                mBuilds.push_back(figure);
            }
            std::vector<unsigned> embreeHits;
            const EmbreeScene& scene = *embree;
            traceBest(name,
                      [&](size_t i) {
                          float t = std::numeric_limits<float>::infinity();
                          unsigned triangle = kNoHit;
                          scene.intersect(mCamera.eye(), mDirections[i], t, triangle);
                          return triangle;
                      },
                      &embreeHits);
            mEmbreeNames.push_back(name);
            if (!high)
                mAgreement = compare(linearHits, embreeHits);
        }
#endif
    }

    void print() const { mOptions.json ? printJson() : printText(); }

private:
    struct Agreement
    {
        uint64_t rays = 0;
        uint64_t same = 0;
    };

    Tracer kxTracer(const kxQBVH& qbvh) const
    {
        return [this, &qbvh](size_t i) {
            float t = std::numeric_limits<float>::infinity();
            Wm4::Vector2<float> barycentric;
            unsigned triangle = kNoHit;
            qbvh.intersectRay(mCamera.eye(), mDirections[i], 0.0f, t, barycentric, triangle, kxQBVH::eAllSides);
            return triangle;
        };
    }

    void buildBest(const std::string& name, Builder builder, Hierarchy& out)
    {
        BuildFigure figure{name, 1, std::numeric_limits<double>::infinity(), 0.0};
        const BuildOptions options{builder, mOptions.leafSize};
        for (unsigned r = 0; r < mOptions.repeat; ++r)
        {
            const Progress progress("bench: " + name + " build, run " + std::to_string(r + 1) + " of " +
                                    std::to_string(mOptions.repeat));
            buildHierarchy(mMesh, options, out, &progress);
            figure.seconds = std::min(figure.seconds, out.times.total());
        }
        figure.bytesPerTriangle = double(qbvhStats(out.qbvh).equationBytes) / mMesh.triangles;
        mBuilds.push_back(figure);
    }

    /// Best of the repeats for every thread count; keeps the answers of the last run.
    void traceBest(const std::string& name, const Tracer& trace, std::vector<unsigned>* answers)
    {
        std::vector<unsigned> hits(mDirections.size(), kNoHit);
        for (unsigned threads : mThreadCounts)
        {
            TraceFigure figure{name, threads, 0.0, 0};
            for (unsigned r = 0; r < mOptions.repeat; ++r)
            {
                Progress progress("bench: " + name + " rays, " + std::to_string(threads) + " thread(s), run " +
                                      std::to_string(r + 1) + " of " + std::to_string(mOptions.repeat),
                                  mDirections.size() / kRaysPerTask);
                const double seconds = secondsOf([&] {
                    parallelFor(threads, (mDirections.size() + kRaysPerTask - 1) / kRaysPerTask, [&](size_t task) {
                        const size_t end = std::min(mDirections.size(), (task + 1) * kRaysPerTask);
                        for (size_t i = task * kRaysPerTask; i < end; ++i)
                            hits[i] = trace(i);
                        progress.advance();
                    });
                });
                throwIfInterrupted("benchmarking");
                figure.raysPerSecond = std::max(figure.raysPerSecond, mDirections.size() / seconds);
            }
            figure.hits = uint64_t(std::count_if(hits.begin(), hits.end(), [](unsigned h) { return h != kNoHit; }));
            mTraces.push_back(figure);
        }
        if (answers)
            *answers = std::move(hits);
    }

    static Agreement compare(const std::vector<unsigned>& a, const std::vector<unsigned>& b)
    {
        Agreement agreement;
        agreement.rays = a.size();
        for (size_t i = 0; i < a.size(); ++i)
            agreement.same += a[i] == b[i];
        return agreement;
    }

    void printText() const
    {
        std::printf("%s: %s triangles; %s primary rays (%dx%d); best of %u runs\n\n", mMesh.name.c_str(),
                    groupDigits(mMesh.triangles).c_str(), groupDigits(mDirections.size()).c_str(), mCamera.width(),
                    mCamera.height(), mOptions.repeat);
        const BuildFigure* reference = embreeBuild(1);
        std::printf("%-34s %10s %14s %8s%s\n", "build", "time", "triangles/s", "B/tri",
                    reference ? "   speed vs Embree, 1 thread" : "");
        for (const BuildFigure& b : mBuilds)
        {
            const std::string label = b.name + (b.name.rfind("Embree", 0) == 0
                                                    ? ", " + std::to_string(b.threads) + " thread" +
                                                          (b.threads == 1 ? "" : "s")
                                                    : "");
            std::string ratio;
            if (reference && b.name.rfind("Embree", 0) != 0)
            {
                char text[32];
                std::snprintf(text, sizeof text, "%.2fx", reference->seconds / b.seconds);
                ratio = text;
            }
            std::printf("  %-32s %10s %14s %8.1f   %s\n", label.c_str(), formatSeconds(b.seconds).c_str(),
                        formatRate(mMesh.triangles / b.seconds).c_str(), b.bytesPerTriangle, ratio.c_str());
        }

        std::printf("\n%-34s", "rays/s");
        for (unsigned threads : mThreadCounts)
            std::printf(" %12s", (std::to_string(threads) + (threads == 1 ? " thread" : " threads")).c_str());
        std::printf("\n");
        std::vector<std::string> names;
        for (const TraceFigure& t : mTraces)
            if (std::find(names.begin(), names.end(), t.name) == names.end())
                names.push_back(t.name);
        for (const std::string& name : names)
        {
            std::printf("  %-32s", name.c_str());
            for (unsigned threads : mThreadCounts)
                std::printf(" %12s", formatRate(trace(name, threads)->raysPerSecond).c_str());
            std::printf("\n");
        }
        if (mAgreement.rays)
        {
            for (const std::string& embree : mEmbreeNames)
                for (const std::string& name : names)
                {
                    if (name.rfind("Embree", 0) == 0)
                        continue;
                    const bool high = embree != mEmbreeNames.front();
                    std::printf("  %-32s", (name + (high ? " / Embree high" : " / Embree")).c_str());
                    for (unsigned threads : mThreadCounts)
                        std::printf(" %11.2fx",
                                    trace(name, threads)->raysPerSecond / trace(embree, threads)->raysPerSecond);
                    std::printf("\n");
                }
            std::printf("\nnearest triangle agrees with Embree on %.3f%% of the rays (%s differ)\n",
                        100.0 * double(mAgreement.same) / double(mAgreement.rays),
                        groupDigits(mAgreement.rays - mAgreement.same).c_str());
        }
        else
            std::printf("\n(this kxbvh was built without Embree: no comparison)\n");
    }

    void printJson() const
    {
        nlohmann::ordered_json out;
        out["mesh"] = {{"source", mMesh.name}, {"triangles", mMesh.triangles}};
        out["rays"] = mDirections.size();
        out["repeat"] = mOptions.repeat;
        out["build"] = nlohmann::ordered_json::array();
        for (const BuildFigure& b : mBuilds)
            out["build"].push_back({{"name", b.name},
                                    {"threads", b.threads},
                                    {"seconds", b.seconds},
                                    {"bytes_per_triangle", b.bytesPerTriangle}});
        out["trace"] = nlohmann::ordered_json::array();
        for (const TraceFigure& t : mTraces)
            out["trace"].push_back(
                {{"name", t.name}, {"threads", t.threads}, {"rays_per_second", t.raysPerSecond}, {"hits", t.hits}});
        if (mAgreement.rays)
            out["embree_agreement"] = {{"rays", mAgreement.rays},
                                       {"same_triangle", mAgreement.same},
                                       {"fraction", double(mAgreement.same) / double(mAgreement.rays)}};
        else
            out["embree_agreement"] = nullptr;
        std::cout << out.dump(2) << std::endl;
    }

    const BuildFigure* embreeBuild(unsigned threads) const
    {
        for (const BuildFigure& b : mBuilds)
            if (b.name.rfind("Embree", 0) == 0 && b.threads == threads)
                return &b;
        return nullptr;
    }

    const TraceFigure* trace(const std::string& name, unsigned threads) const
    {
        for (const TraceFigure& t : mTraces)
            if (t.name == name && t.threads == threads)
                return &t;
        return nullptr;
    }

    static constexpr size_t kRaysPerTask = 4096;

    const BenchOptions& mOptions;
    unsigned mThreads;
    std::vector<unsigned> mThreadCounts;
    Mesh mMesh;
    Camera mCamera;
    std::vector<Vec3> mDirections;
    std::vector<BuildFigure> mBuilds;
    std::vector<TraceFigure> mTraces;
    std::vector<std::string> mEmbreeNames;  // default quality first
    Agreement mAgreement;
};
} // namespace

void runBench(const BenchOptions& options)
{
    Bench bench(options);
    bench.run();
    bench.print();
}
} // namespace kxbvh
