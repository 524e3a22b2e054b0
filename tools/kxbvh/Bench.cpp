#include "Bench.h"

#include "Format.h"
#include "Hierarchy.h"
#include "Interrupt.h"
#include "MemoryMeter.h"
#include "Parallel.h"
#include "Progress.h"
#include "Stats.h"
#include "Stopwatch.h"
#ifdef KXBVH_WITH_EMBREE
#include "EmbreeScene.h"
#endif

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace kxbvh
{
namespace
{
constexpr unsigned kNoHit = 0xFFFFFFFFu;

double secondsOf(const std::function<void()>& work)
{
    Stopwatch clock;
    work();
    return clock.lap();
}

struct BuildFigure
{
    std::string name;
    unsigned threads = 1;
    double seconds = std::numeric_limits<double>::infinity();  // the best run
    double bytesPerTriangle = 0.0;                              // the hierarchy as ray queries need it
    double firstSeconds = 0.0;  // the first run, as an application that builds once sees it
    bool ours = false;          // then the phases of the best run are known
    BuildTimes phases;
    bool peakMeasured = false;
    uint64_t peakBytes = 0;  // heap on top of what was in use before the build
};

/// Query sets beside the primary rays.
enum QueryKind
{
    ePrimary,  // nearest hit of the camera's rays
    eShadow,   // occlusion of rays from the visible points towards a light
    eNear,     // closest point, points near the surface
    eSpread,   // closest point, points anywhere in the bounds
    eKinds
};

const char* const kKindNames[eKinds] = {"primary rays", "shadow rays (occlusion)", "closest points near the surface",
                                        "closest points in the bounds"};
const char* const kKindKeys[eKinds] = {"primary", "shadow", "near", "spread"};

struct TraceFigure
{
    std::string name;
    unsigned threads;
    double raysPerSecond;  // queries per second
    uint64_t hits;         // answers other than kNoHit
    QueryKind kind = ePrimary;
};

/// A query as a function of its number; answers the hit or nearest triangle, 0 for an
/// occluded ray, or kNoHit.
using Tracer = std::function<unsigned(size_t)>;

/// Queries begin .. end - 1 at once (at most kRaysPerTask), answers as a Tracer's.
using BatchTracer = std::function<void(size_t begin, size_t end, unsigned* answers)>;

struct ShadowRay
{
    Vec3 origin, direction;
    float tMin, tMax;
};

/// At most this many points per closest-point set, spread evenly over the candidates.
constexpr size_t kMaxPoints = 50000;

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
        traceBest("kxbvh batches (hq BVH)", kxBatchTracer(hq.qbvh), nullptr);
#ifdef KXBVH_WITH_EMBREE
        for (bool high : {false, true})
        {
            const std::string name = std::string("Embree ") + EmbreeScene::version() + (high ? " high" : "");
            std::unique_ptr<EmbreeScene> embree;
            for (unsigned threads : mThreadCounts)
            {
                BuildFigure figure;
                figure.name = name;
                figure.threads = threads;
                figure.peakMeasured = true;
                for (unsigned r = 0; r < mOptions.repeat; ++r)
                {
                    Progress progress("bench: " + name + " build, " + std::to_string(threads) + " thread(s), run " +
                                      std::to_string(r + 1) + " of " + std::to_string(mOptions.repeat));
                    embree.reset();
                    embree = std::make_unique<EmbreeScene>(*mMesh.mesh, threads, high);
                    if (r == 0)
                        figure.firstSeconds = embree->buildSeconds();
                    figure.peakBytes = std::max(figure.peakBytes, embree->peakBytes());
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
            if (!high)
                mAgreement = compare(linearHits, embreeHits);
        }
#endif
        makeQueries(sah.qbvh);
        benchQueries(linear.qbvh, sah.qbvh, hq.qbvh);
    }

    void print() const { mOptions.json ? printJson() : printText(); }

private:
    struct Agreement
    {
        uint64_t rays = 0;
        uint64_t same = 0;
    };

    /// Shadow rays from every visible point (seen through the SAH hierarchy) towards a
    /// light above the mesh's bounds (y up, as the default camera); closest-point queries
    /// at those points moved off the surface by up to 1% of the bounds' diagonal, and at
    /// points spread evenly through the bounds. All drawn from fixed seeds.
    void makeQueries(const kxQBVH& qbvh)
    {
        const kxBBox& b = mMesh.bounds;
        const Vec3 extent(b.max[0] - b.min[0], b.max[1] - b.min[1], b.max[2] - b.min[2]);
        const float size = extent.Length();
        const Vec3 light = b.getCenter() + Vec3(-0.3f * extent[0], 1.5f * size, -0.2f * extent[2]);
        std::vector<Vec3> visible;
        for (const Vec3& d : mDirections)
        {
            float t = std::numeric_limits<float>::infinity();
            Wm4::Vector2<float> barycentric;
            unsigned triangle;
            if (!qbvh.intersectRay(mCamera.eye(), d, 0.0f, t, barycentric, triangle, kxQBVH::eAllSides))
                continue;
            const Vec3 p = mCamera.eye() + d * t;
            Vec3 toLight = light - p;
            const float distance = toLight.Normalize();
            mShadowRays.push_back({p, toLight, 1e-4f * size, distance});
            mShadowOrigins.push_back(p);
            mShadowDirections.push_back(toLight);
            mShadowTMin.push_back(1e-4f * size);
            mShadowTMax.push_back(distance);
            visible.push_back(p);
        }
        std::mt19937 rng(2024);
        std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
        const size_t step = std::max<size_t>(1, visible.size() / kMaxPoints);
        for (size_t i = 0; i < visible.size() && mPoints[0].size() < kMaxPoints; i += step)
            mPoints[0].push_back(visible[i] +
                                 Vec3(signedUnit(rng), signedUnit(rng), signedUnit(rng)) * (0.01f * size));
        while (mPoints[1].size() < std::min(kMaxPoints, mPoints[0].size()))
            mPoints[1].push_back(Vec3(b.min[0] + unit(rng) * extent[0], b.min[1] + unit(rng) * extent[1],
                                      b.min[2] + unit(rng) * extent[2]));
    }

    void benchQueries(const kxQBVH& linear, const kxQBVH& sah, const kxQBVH& hq)
    {
        const auto occlusion = [this](const kxQBVH& qbvh) -> Tracer {
            return [this, &qbvh](size_t i) {
                const ShadowRay& r = mShadowRays[i];
                return qbvh.intersectRayAny(r.origin, r.direction, r.tMin, r.tMax, kxQBVH::eAllSides) ? 0u : kNoHit;
            };
        };
        const auto nearest = [this](const kxQBVH& qbvh, const std::vector<Vec3>& points) -> Tracer {
            return [&qbvh, &points](size_t i) {
                float distance = std::numeric_limits<float>::infinity();
                Vec3 closest;
                Wm4::Vector2<float> barycentric;
                unsigned triangle = kNoHit;
                qbvh.findClosestPoint(points[i], distance, closest, barycentric, triangle);
                return triangle;
            };
        };
        std::vector<unsigned> occluded, embreeOccluded;
        traceBest("kxbvh nearest hit (linear BVH)", shadowTracer(linear), nullptr, eShadow, mShadowRays.size());
        traceBest("kxbvh nearest hit (SAH BVH)", shadowTracer(sah), nullptr, eShadow, mShadowRays.size());
        traceBest("kxbvh any hit (linear BVH)", occlusion(linear), nullptr, eShadow, mShadowRays.size());
        traceBest("kxbvh any hit (SAH BVH)", occlusion(sah), &occluded, eShadow, mShadowRays.size());
        traceBest("kxbvh any hit (hq BVH)", occlusion(hq), nullptr, eShadow, mShadowRays.size());
        traceBest("kxbvh any hit, batches (hq BVH)", occlusionBatches(hq), nullptr, eShadow, mShadowRays.size());
        for (int set = 0; set < 2; ++set)
        {
            const QueryKind kind = set ? eSpread : eNear;
            traceBest("kxbvh (linear BVH)", nearest(linear, mPoints[set]), nullptr, kind, mPoints[set].size());
            traceBest("kxbvh (SAH BVH)", nearest(sah, mPoints[set]), nullptr, kind, mPoints[set].size());
            traceBest("kxbvh (hq BVH)", nearest(hq, mPoints[set]), nullptr, kind, mPoints[set].size());
        }
#ifdef KXBVH_WITH_EMBREE
        const EmbreeScene scene(*mMesh.mesh, 1);
        const std::string embree = std::string("Embree ") + EmbreeScene::version();
        traceBest(embree + " occluded",
                  [&](size_t i) {
                      const ShadowRay& r = mShadowRays[i];
                      return scene.occluded(r.origin, r.direction, r.tMin, r.tMax) ? 0u : kNoHit;
                  },
                  &embreeOccluded, eShadow, mShadowRays.size());
        for (int set = 0; set < 2; ++set)
        {
            const QueryKind kind = set ? eSpread : eNear;
            const std::vector<Vec3>& points = mPoints[set];
            traceBest(embree + " point query",
                      [&](size_t i) {
                          float distance = std::numeric_limits<float>::infinity();
                          unsigned triangle = kNoHit;
                          scene.closestPoint(points[i], distance, triangle);
                          return triangle;
                      },
                      nullptr, kind, points.size());
        }
        mQueryAgreement[eShadow] = compare(occluded, embreeOccluded);
        // Triangles that share the nearest vertex or edge tie, so distances are compared,
        // up to a few float steps of the mesh's size (Embree's tutorial computes in floats).
        const kxBBox& b = mMesh.bounds;
        const float tolerance = 4e-6f * Vec3(b.max[0] - b.min[0], b.max[1] - b.min[1], b.max[2] - b.min[2]).Length();
        for (int set = 0; set < 2; ++set)
        {
            Agreement& agreement = mQueryAgreement[set ? eSpread : eNear];
            for (const Vec3& p : mPoints[set])
            {
                float ours = std::numeric_limits<float>::infinity(), theirs = ours;
                Vec3 closest;
                Wm4::Vector2<float> barycentric;
                unsigned triangle;
                sah.findClosestPoint(p, ours, closest, barycentric, triangle);
                scene.closestPoint(p, theirs, triangle);
                ++agreement.rays;
                agreement.same += std::fabs(ours - theirs) <= tolerance;
            }
        }
#endif
    }

    /// The nearest-hit query on the shadow rays, which answers the same as the any-hit one.
    Tracer shadowTracer(const kxQBVH& qbvh) const
    {
        return [this, &qbvh](size_t i) {
            const ShadowRay& r = mShadowRays[i];
            float t = r.tMax;
            Wm4::Vector2<float> barycentric;
            unsigned triangle = kNoHit;
            return qbvh.intersectRay(r.origin, r.direction, r.tMin, t, barycentric, triangle, kxQBVH::eAllSides)
                       ? 0u
                       : kNoHit;
        };
    }

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

    // The batch queries over a task's rays; the library walks them together (packets or
    // interleaved walks) with the same answers as one call per ray. A task's arrays live on
    // the stack, so that the timed work allocates nothing, as the one-ray tracers do not.
    BatchTracer kxBatchTracer(const kxQBVH& qbvh) const
    {
        return [this, &qbvh](size_t begin, size_t end, unsigned* out) {
            const unsigned count = unsigned(end - begin);
            Vec3 origins[kRaysPerTask];
            float tMin[kRaysPerTask], t[kRaysPerTask];
            Wm4::Vector2<float> barycentric[kRaysPerTask];
            bool hit[kRaysPerTask];
            std::fill(origins, origins + count, mCamera.eye());
            std::fill(tMin, tMin + count, 0.0f);
            std::fill(t, t + count, std::numeric_limits<float>::infinity());
            qbvh.intersectRays(count, origins, mDirections.data() + begin, tMin, t, barycentric, out, hit,
                               kxQBVH::eAllSides);
        };
    }

    BatchTracer occlusionBatches(const kxQBVH& qbvh) const
    {
        return [this, &qbvh](size_t begin, size_t end, unsigned* out) {
            const unsigned count = unsigned(end - begin);
            bool blocked[kRaysPerTask];
            qbvh.intersectRaysAny(count, mShadowOrigins.data() + begin, mShadowDirections.data() + begin,
                                  mShadowTMin.data() + begin, mShadowTMax.data() + begin, blocked,
                                  kxQBVH::eAllSides);
            for (unsigned i = 0; i < count; ++i)
                out[i] = blocked[i] ? 0u : kNoHit;
        };
    }

    void buildBest(const std::string& name, Builder builder, Hierarchy& out)
    {
        BuildFigure figure;
        figure.name = name;
        figure.ours = true;
        const BuildOptions options{builder, mOptions.leafSize, programHeap()};
        for (unsigned r = 0; r < mOptions.repeat; ++r)
        {
            const Progress progress("bench: " + name + " build, run " + std::to_string(r + 1) + " of " +
                                    std::to_string(mOptions.repeat));
            buildHierarchy(mMesh, options, out, &progress);
            if (r == 0)
                figure.firstSeconds = out.times.total();
            figure.peakMeasured = out.times.peaksMeasured;
            figure.peakBytes = std::max(figure.peakBytes, out.times.peak());
            if (out.times.total() < figure.seconds)
            {
                figure.seconds = out.times.total();
                figure.phases = out.times;
            }
        }
        figure.bytesPerTriangle = double(qbvhStats(out.qbvh).equationBytes) / mMesh.triangles;
        mBuilds.push_back(figure);
    }

    /// Best of the repeats for every thread count; keeps the answers of the last run.
    void traceBest(const std::string& name, const Tracer& trace, std::vector<unsigned>* answers,
                   QueryKind kind = ePrimary, size_t count = 0)
    {
        traceBest(
                name,
                [&trace](size_t begin, size_t end, unsigned* out) {
                    for (size_t i = begin; i < end; ++i)
                        out[i - begin] = trace(i);
                },
                answers, kind, count);
    }

    void traceBest(const std::string& name, const BatchTracer& trace, std::vector<unsigned>* answers,
                   QueryKind kind = ePrimary, size_t count = 0)
    {
        if (kind == ePrimary)
            count = mDirections.size();
        std::vector<unsigned> hits(count, kNoHit);
        for (unsigned threads : mThreadCounts)
        {
            TraceFigure figure{name, threads, 0.0, 0, kind};
            for (unsigned r = 0; r < mOptions.repeat; ++r)
            {
                Progress progress("bench: " + name + " " + kKindNames[kind] + ", " + std::to_string(threads) +
                                      " thread(s), run " + std::to_string(r + 1) + " of " +
                                      std::to_string(mOptions.repeat),
                                  count / kRaysPerTask);
                const double seconds = secondsOf([&] {
                    parallelFor(threads, (count + kRaysPerTask - 1) / kRaysPerTask, [&](size_t task) {
                        const size_t begin = task * kRaysPerTask, end = std::min(count, begin + kRaysPerTask);
                        trace(begin, end, hits.data() + begin);
                        progress.advance();
                    });
                });
                throwIfInterrupted("benchmarking");
                figure.raysPerSecond = std::max(figure.raysPerSecond, count / std::max(seconds, 1e-9));
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
        std::printf("%-34s %10s %10s %12s %9s %9s %9s %11s %7s%s\n", "build", "first", "best", "triangles/s",
                    "boxing", "binary", "collapse", "peak memory", "B/tri", reference ? "   speed vs Embree, 1 thread" : "");
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
            const auto phase = [&b](double seconds) { return b.ours ? formatSeconds(seconds) : std::string("-"); };
            std::printf("  %-32s %10s %10s %12s %9s %9s %9s %11s %7.1f   %s\n", label.c_str(),
                        formatSeconds(b.firstSeconds).c_str(), formatSeconds(b.seconds).c_str(),
                        formatRate(mMesh.triangles / b.seconds).c_str(), phase(b.phases.container).c_str(),
                        phase(b.phases.binary).c_str(), phase(b.phases.collapse).c_str(),
                        b.peakMeasured ? formatBytes(b.peakBytes).c_str() : "-", b.bytesPerTriangle, ratio.c_str());
        }
        if (std::any_of(mBuilds.begin(), mBuilds.end(), [](const BuildFigure& b) { return !b.peakMeasured; }))
            std::printf("  (peak memory of our builds is not counted in sanitizer builds)\n");

        for (int kind = ePrimary; kind < eKinds; ++kind)
            printTraces(static_cast<QueryKind>(kind));
        if (mAgreement.rays)
        {
            std::printf("\nnearest triangle agrees with Embree on %.3f%% of the rays (%s differ)\n",
                        100.0 * double(mAgreement.same) / double(mAgreement.rays),
                        groupDigits(mAgreement.rays - mAgreement.same).c_str());
            const Agreement& shadow = mQueryAgreement[eShadow];
            std::printf("occlusion agrees with Embree on %.3f%% of the shadow rays (%s differ)\n",
                        100.0 * double(shadow.same) / double(std::max<uint64_t>(shadow.rays, 1)),
                        groupDigits(shadow.rays - shadow.same).c_str());
            for (QueryKind kind : {eNear, eSpread})
            {
                const Agreement& a = mQueryAgreement[kind];
                std::printf("distance agrees with Embree's on %.3f%% of the %s\n",
                            100.0 * double(a.same) / double(std::max<uint64_t>(a.rays, 1)), kKindNames[kind]);
            }
        }
        else
            std::printf("\n(this kxbvh was built without Embree: no comparison)\n");
    }

    /// One table per query set: queries per second by thread count, then each of ours
    /// against Embree's figure for the same set.
    void printTraces(QueryKind kind) const
    {
        std::vector<std::string> names;
        for (const TraceFigure& t : mTraces)
            if (t.kind == kind && std::find(names.begin(), names.end(), t.name) == names.end())
                names.push_back(t.name);
        if (names.empty())
            return;
        const size_t queries = kind == ePrimary ? mDirections.size()
                               : kind == eShadow ? mShadowRays.size()
                                                 : mPoints[kind == eSpread].size();
        std::printf("\n%s, %s, per second", kKindNames[kind], groupDigits(queries).c_str());
        std::printf("\n%-42s", "");
        for (unsigned threads : mThreadCounts)
            std::printf(" %12s", (std::to_string(threads) + (threads == 1 ? " thread" : " threads")).c_str());
        std::printf("\n");
        for (const std::string& name : names)
        {
            std::printf("  %-40s", name.c_str());
            for (unsigned threads : mThreadCounts)
                std::printf(" %12s", formatRate(trace(name, threads, kind)->raysPerSecond).c_str());
            std::printf("\n");
        }
        const auto isEmbree = [](const std::string& n) { return n.rfind("Embree", 0) == 0; };
        for (const std::string& embree : names)
        {
            if (!isEmbree(embree))
                continue;
            const bool high = embree.size() > 5 && embree.compare(embree.size() - 5, 5, " high") == 0;
            for (const std::string& name : names)
            {
                if (isEmbree(name))
                    continue;
                std::printf("  %-40s", (name + (high ? " / Embree high" : " / Embree")).c_str());
                for (unsigned threads : mThreadCounts)
                    std::printf(" %11.2fx", trace(name, threads, kind)->raysPerSecond /
                                                trace(embree, threads, kind)->raysPerSecond);
                std::printf("\n");
            }
        }
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
                                    {"first_seconds", b.firstSeconds},
                                    {"phase_seconds", b.ours ? nlohmann::ordered_json{{"container", b.phases.container},
                                                                                       {"binary", b.phases.binary},
                                                                                       {"qbvh", b.phases.collapse}}
                                                             : nlohmann::ordered_json()},
                                    {"peak_bytes", b.peakMeasured ? nlohmann::ordered_json(b.peakBytes)
                                                                  : nlohmann::ordered_json()},
                                    {"bytes_per_triangle", b.bytesPerTriangle}});
        out["trace"] = nlohmann::ordered_json::array();
        out["queries"] = nlohmann::ordered_json::array();
        for (const TraceFigure& t : mTraces)
            if (t.kind == ePrimary)
                out["trace"].push_back(
                    {{"name", t.name}, {"threads", t.threads}, {"rays_per_second", t.raysPerSecond}, {"hits", t.hits}});
            else
                out["queries"].push_back({{"set", kKindKeys[t.kind]},
                                          {"name", t.name},
                                          {"threads", t.threads},
                                          {"queries_per_second", t.raysPerSecond},
                                          {"answered", t.hits}});
        if (mAgreement.rays)
            out["embree_agreement"] = {{"rays", mAgreement.rays},
                                       {"same_triangle", mAgreement.same},
                                       {"fraction", double(mAgreement.same) / double(mAgreement.rays)}};
        else
            out["embree_agreement"] = nullptr;
        for (int kind = eShadow; kind < eKinds; ++kind)
        {
            const Agreement& a = mQueryAgreement[kind];
            out["queries_embree_agreement"][kKindKeys[kind]] =
                a.rays ? nlohmann::ordered_json{{"queries", a.rays}, {"same", a.same}} : nlohmann::ordered_json();
        }
        std::cout << out.dump(2) << std::endl;
    }

    const BuildFigure* embreeBuild(unsigned threads) const
    {
        for (const BuildFigure& b : mBuilds)
            if (b.name.rfind("Embree", 0) == 0 && b.threads == threads)
                return &b;
        return nullptr;
    }

    const TraceFigure* trace(const std::string& name, unsigned threads, QueryKind kind = ePrimary) const
    {
        for (const TraceFigure& t : mTraces)
            if (t.name == name && t.threads == threads && t.kind == kind)
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
    Agreement mAgreement;
    std::vector<ShadowRay> mShadowRays;
    // The shadow rays again as the batch query takes them.
    std::vector<Vec3> mShadowOrigins, mShadowDirections;
    std::vector<float> mShadowTMin, mShadowTMax;
    std::vector<Vec3> mPoints[2];  // near the surface, spread through the bounds
    Agreement mQueryAgreement[eKinds];
};
} // namespace

void runBench(const BenchOptions& options)
{
    Bench bench(options);
    bench.run();
    bench.print();
}
} // namespace kxbvh
