#include "PyQBVH.h"

#include "Order.h"
#include "Parallel.h"

#include <Format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace kxpy
{
namespace
{
constexpr uint32_t kNoTriangle = 0xFFFFFFFFu;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
// Rays per block handed to a thread: large enough to hide the hand-out, small enough to
// balance the load of rays that cost very different amounts.
constexpr size_t kRayGrain = 1024;
constexpr size_t kPointGrain = 256;
constexpr size_t kHullGrain = 16;

kxQBVH::tIntersectionPolicy policyOf(const std::string& side)
{
    if (side == "all")
        return kxQBVH::eAllSides;
    if (side == "front")
        return kxQBVH::eFrontSide;
    if (side == "back")
        return kxQBVH::eBackSide;
    throw py::value_error("side must be 'all', 'front' or 'back', got '" + side + "'");
}

Wm4::Vector3<float> vector(const float* xyz)
{
    return Wm4::Vector3<float>(xyz[0], xyz[1], xyz[2]);
}

/// The output arrays of the ray queries, written by many threads at distinct rows.
struct HitArrays
{
    py::array_t<float> t;
    py::array_t<uint32_t> triangle;
    py::array_t<float> barycentric;
    float* tOut;
    uint32_t* triangleOut;
    float* barycentricOut;

    explicit HitArrays(const Shape& leading)
        : t(output<float>(leading)), triangle(output<uint32_t>(leading)), barycentric(output<float>(leading, {2})),
          tOut(t.mutable_data()), triangleOut(triangle.mutable_data()), barycentricOut(barycentric.mutable_data())
    {
    }

    __attribute__((always_inline)) void fetch(size_t i) const
    {
        fetchForWrite(tOut + i);
        fetchForWrite(triangleOut + i);
        fetchForWrite(barycentricOut + 2 * i);
    }

    void store(size_t i, bool hit, float distance, const Wm4::Vector2<float>& weights, unsigned index) const
    {
        tOut[i] = hit ? distance : kInfinity;
        triangleOut[i] = hit ? index : kNoTriangle;
        barycentricOut[2 * i] = hit ? weights[0] : 0.0f;
        barycentricOut[2 * i + 1] = hit ? weights[1] : 0.0f;
    }

    py::dict dict() const
    {
        using namespace pybind11::literals;
        return py::dict("t"_a = t, "triangle"_a = triangle, "barycentric"_a = barycentric);
    }
};

/// Nearest hits of every ray within (at most) tMax, by query(origin, direction, t, barycentric,
/// triangle), a nearest-hit query of the hierarchy with the given bounds; the batch split
/// across threads.
template <typename Query>
py::dict nearestHits(const RayBatch& rays, const kxBBox& bounds, float tMax, long long threads, const Query& query)
{
    const HitArrays hits(rays.leading);
    const unsigned workers = threadCount(threads);
    const QueryOrder order = QueryOrder::ofRays(rays, bounds, workers);
    forEachBlock(rays.count, workers, kRayGrain, [&](size_t begin, size_t end) {
        for (size_t k = begin; k < end; ++k)
        {
            const size_t i = order[k];
            size_t next;
            if (order.ahead(k, end, next))
                hits.fetch(next);
            float t = tMax;
            Wm4::Vector2<float> barycentric(0.0f, 0.0f);
            unsigned triangle = kNoTriangle;
            const bool hit = query(vector(order.input(k, rays.origins)), vector(order.input(k, rays.directions, 3)), t,
                                   barycentric, triangle);
            hits.store(i, hit, t, barycentric, triangle);
        }
    });
    return hits.dict();
}

// Rays handed to one batch call of the library, which walks them together (as packets, or
// interleaved where the walks wait on memory): gathered in query order into small arrays
// on the stack.
constexpr size_t kBatchRays = 64;

struct RayChunk
{
    Wm4::Vector3<float> origins[kBatchRays];
    Wm4::Vector3<float> directions[kBatchRays];
    float tMin[kBatchRays];
    float tMax[kBatchRays];
    size_t rows[kBatchRays];
    unsigned int count = 0;
};

/// Calls answer(chunk) for the queries begin .. end - 1 in chunks of kBatchRays, each with
/// the rows its answers belong to.
template <typename Answer>
void forEachChunk(const RayBatch& rays, const QueryOrder& order, size_t begin, size_t end, float tMin, float tMax,
                  const Answer& answer)
{
    RayChunk chunk;
    std::fill(chunk.tMin, chunk.tMin + kBatchRays, tMin);
    for (size_t k = begin; k < end; k += kBatchRays)
    {
        chunk.count = static_cast<unsigned int>(std::min(kBatchRays, end - k));
        for (unsigned int j = 0; j < chunk.count; ++j)
        {
            chunk.rows[j] = order[k + j];
            chunk.origins[j] = vector(order.input(k + j, rays.origins));
            chunk.directions[j] = vector(order.input(k + j, rays.directions, 3));
            chunk.tMax[j] = tMax;
        }
        answer(chunk);
    }
}

unsigned leafSize(long long leaf, BuilderKind builder)
{
    if (builder == BuilderKind::eSah)
    {
        if (leaf != 4)
            throw py::value_error("leaf applies to the linear and hq builders; the SAH builder sizes its leaves "
                                  "by cost");
        return 0;
    }
    if (leaf < 1 || leaf > 1024)
        throw py::value_error("leaf must be between 1 and 1024 triangles, got " + std::to_string(leaf));
    return static_cast<unsigned>(leaf);
}
} // namespace

PyQBVH::PyQBVH(const py::object& vertices, const py::object& triangles, const std::string& builder, long long leaf)
{
    const BuilderKind kind = builderKind(builder);
    const unsigned leafLimit = leafSize(leaf, kind);
    const kxbvh::Mesh mesh = meshFromArrays(vertices, triangles);
    mFigures = buildQBVH(mesh, kind, leafLimit, mQBVH);
}

py::dict PyQBVH::intersect(const py::object& origins, const py::object& directions, double tmin, double tmax,
                           const std::string& side, long long threads) const
{
    const float tMin = checkedLimit(tmin, "tmin");
    const float tMax = checkedLimit(tmax, "tmax");
    if (tMin > tMax)
        throw py::value_error("tmin must not exceed tmax, got tmin " + std::to_string(tmin) + " and tmax " +
                              std::to_string(tmax));
    const kxQBVH::tIntersectionPolicy policy = policyOf(side);
    const RayBatch rays = rayBatch(origins, directions);
    const HitArrays hits(rays.leading);
    const unsigned workers = threadCount(threads);
    const QueryOrder order = QueryOrder::ofRays(rays, mQBVH.getBBox(), workers);
    forEachBlock(rays.count, workers, kRayGrain, [&](size_t begin, size_t end) {
        Wm4::Vector2<float> barycentric[kBatchRays];
        unsigned int triangle[kBatchRays];
        bool hit[kBatchRays];
        forEachChunk(rays, order, begin, end, tMin, tMax, [&](RayChunk& c) {
            // The rows are written after the walks, by when these have arrived.
            for (unsigned int j = 0; j < c.count; ++j)
                hits.fetch(c.rows[j]);
            mQBVH.intersectRays(c.count, c.origins, c.directions, c.tMin, c.tMax, barycentric, triangle, hit, policy);
            for (unsigned int j = 0; j < c.count; ++j)
                hits.store(c.rows[j], hit[j], c.tMax[j], barycentric[j], triangle[j]);
        });
    });
    return hits.dict();
}

py::dict PyQBVH::intersectSymmetric(const py::object& origins, const py::object& directions, double tmax,
                                    long long threads) const
{
    const float tMax = checkedLimit(tmax, "tmax");
    if (tMax < 0.0f)
        throw py::value_error("tmax must not be negative, got " + std::to_string(tmax));
    const RayBatch rays = rayBatch(origins, directions);
    return nearestHits(rays, mQBVH.getBBox(), tMax, threads,
                       [&](const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction, float& t,
                           Wm4::Vector2<float>& barycentric, unsigned& triangle) {
                           return mQBVH.intersectRaySymmetric(origin, direction, t, barycentric, triangle);
                       });
}

py::array PyQBVH::occluded(const py::object& origins, const py::object& directions, double tmin, double tmax,
                           const std::string& side, long long threads) const
{
    const float tMin = checkedLimit(tmin, "tmin");
    const float tMax = checkedLimit(tmax, "tmax");
    if (tMin > tMax)
        throw py::value_error("tmin must not exceed tmax, got tmin " + std::to_string(tmin) + " and tmax " +
                              std::to_string(tmax));
    const kxQBVH::tIntersectionPolicy policy = policyOf(side);
    const RayBatch rays = rayBatch(origins, directions);
    py::array_t<bool> blocked = output<bool>(rays.leading);
    bool* blockedOut = blocked.mutable_data();
    const unsigned workers = threadCount(threads);
    const QueryOrder order = QueryOrder::ofRays(rays, mQBVH.getBBox(), workers);
    forEachBlock(rays.count, workers, kRayGrain, [&](size_t begin, size_t end) {
        bool answers[kBatchRays];
        forEachChunk(rays, order, begin, end, tMin, tMax, [&](const RayChunk& c) {
            for (unsigned int j = 0; j < c.count; ++j)
                fetchForWrite(blockedOut + c.rows[j]);
            mQBVH.intersectRaysAny(c.count, c.origins, c.directions, c.tMin, c.tMax, answers, policy);
            for (unsigned int j = 0; j < c.count; ++j)
                blockedOut[c.rows[j]] = answers[j];
        });
    });
    return blocked;
}

py::dict PyQBVH::closestPoints(const py::object& pointsObject, double maxDistance, long long threads) const
{
    const float limit = checkedLimit(maxDistance, "max_distance");
    if (limit < 0.0f)
        throw py::value_error("max_distance must not be negative, got " + std::to_string(maxDistance));
    const Rows points = rows(pointsObject, "points", 3);
    py::array_t<float> distance = output<float>(points.leading);
    py::array_t<float> closest = output<float>(points.leading, {3});
    py::array_t<uint32_t> triangle = output<uint32_t>(points.leading);
    py::array_t<float> barycentric = output<float>(points.leading, {2});
    float* distanceOut = distance.mutable_data();
    float* closestOut = closest.mutable_data();
    uint32_t* triangleOut = triangle.mutable_data();
    float* barycentricOut = barycentric.mutable_data();
    const unsigned workers = threadCount(threads);
    const QueryOrder order = QueryOrder::ofPoints(points, mQBVH.getBBox(), workers);
    forEachBlock(points.count, workers, kPointGrain, [&](size_t begin, size_t end) {
        for (size_t k = begin; k < end; ++k)
        {
            const size_t i = order[k];
            size_t next;
            if (order.ahead(k, end, next))
            {
                fetchForWrite(distanceOut + next);
                fetchForWrite(closestOut + 3 * next);
                fetchForWrite(triangleOut + next);
                fetchForWrite(barycentricOut + 2 * next);
            }
            float found = limit;
            Wm4::Vector3<float> nearest(0.0f, 0.0f, 0.0f);
            Wm4::Vector2<float> weights(0.0f, 0.0f);
            unsigned index = kNoTriangle;
            const bool hit = mQBVH.findClosestPoint(vector(order.input(k, points)), found, nearest, weights, index);
            distanceOut[i] = hit ? found : kInfinity;
            for (int k = 0; k < 3; ++k)
                closestOut[3 * i + k] = hit ? nearest[k] : kNaN;
            triangleOut[i] = hit ? index : kNoTriangle;
            barycentricOut[2 * i] = hit ? weights[0] : 0.0f;
            barycentricOut[2 * i + 1] = hit ? weights[1] : 0.0f;
        }
    });
    using namespace pybind11::literals;
    return py::dict("distance"_a = distance, "point"_a = closest, "triangle"_a = triangle,
                    "barycentric"_a = barycentric);
}

py::object PyQBVH::convexHull(const py::object& planesObject, long long threads) const
{
    const py::array planes = realArray(planesObject, "planes");
    if (planes.ndim() < 2 || planes.shape(planes.ndim() - 1) != 4)
        throw py::value_error("planes must have shape (K, 4), or (..., K, 4) for many sets of K planes, got " +
                              shapeText(planes));
    const py::array_t<float> values = contiguousFloats(planes);
    const size_t planeCount = static_cast<size_t>(planes.shape(planes.ndim() - 2));
    if (planeCount > 0xFFFFFFFFu)
        throw py::value_error("planes holds " + std::to_string(planeCount) + " planes per set; at most 4294967295");
    const float* data = values.data();
    for (py::ssize_t i = 0; i < values.size(); ++i)
        if (std::isnan(data[i]))
            throw py::value_error("planes must not hold NaN; planes[" +
                                  std::to_string(i / 4 % py::ssize_t(std::max<size_t>(planeCount, 1))) +
                                  "] of set " + std::to_string(i / 4 / py::ssize_t(std::max<size_t>(planeCount, 1))) +
                                  " does");

    const Shape leading(planes.shape(), planes.shape() + planes.ndim() - 2);
    size_t sets = 1;
    for (py::ssize_t extent : leading)
        sets *= static_cast<size_t>(extent);
    py::array_t<bool> inside = output<bool>(leading);
    bool* insideOut = inside.mutable_data();
    forEachBlock(sets, threadCount(threads), kHullGrain, [&](size_t begin, size_t end) {
        std::vector<Wm4::Vector4<float>> set(planeCount);
        std::vector<kxQBVH::tSOASinglePlaneEqn> soa(planeCount);
        for (size_t s = begin; s < end; ++s)
        {
            const float* plane = data + s * planeCount * 4;
            for (size_t k = 0; k < planeCount; ++k)
                set[k] = Wm4::Vector4<float>(plane[4 * k], plane[4 * k + 1], plane[4 * k + 2], plane[4 * k + 3]);
            kxQBVH::InitSOAPlaneEquationSet(set.data(), soa.data(), static_cast<unsigned>(planeCount));
            insideOut[s] = mQBVH.intersectConvexHull(soa.data(), static_cast<unsigned>(planeCount));
        }
    });
    if (leading.empty())
        return py::bool_(insideOut[0]);
    return inside;
}

py::dict PyQBVH::info() const
{
    return figuresDict(mFigures);
}

std::string PyQBVH::repr() const
{
    std::string text = "<kxbvh.QBVH: " + kxbvh::groupDigits(mFigures.triangles) + " triangles, " +
                       builderText(mFigures.builder) + " builder";
    if (mFigures.builder != BuilderKind::eSah)
        text += ", leaves of at most " + std::to_string(mFigures.leaf);
    return text + ">";
}
} // namespace kxpy
