#include "EmbreeScene.h"

#include "EmbreeClosestPoint.h"
#include "Stopwatch.h"

#include <embree3/rtcore.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace kxbvh
{
struct EmbreeScene::Handles
{
    std::atomic<int64_t> liveBytes{0};  // counted by the device's memory monitor, from Embree's threads
    std::atomic<int64_t> peakBytes{0};  // the most of liveBytes
    RTCDevice device = nullptr;
    RTCScene scene = nullptr;
    const float* positions = nullptr;    // Embree's copies, alive as long as the scene
    const unsigned* triangles = nullptr;
    ~Handles()
    {
        if (scene)
            rtcReleaseScene(scene);
        if (device)
            rtcReleaseDevice(device);
    }
};

EmbreeScene::EmbreeScene(const kx::kxTriMesh& mesh, unsigned threads, bool highQuality)
    : mHandles(std::make_unique<Handles>())
{
    const std::string config = "threads=" + std::to_string(threads);
    mHandles->device = rtcNewDevice(config.c_str());
    if (!mHandles->device)
        throw std::runtime_error("Embree could not create a device");
    const auto countBytes = [](void* user, ssize_t bytes, bool) {
        auto* handles = static_cast<Handles*>(user);
        const int64_t now = handles->liveBytes += bytes;
        int64_t peak = handles->peakBytes.load();
        while (now > peak && !handles->peakBytes.compare_exchange_weak(peak, now))
        {
        }
        return true;
    };
    rtcSetDeviceMemoryMonitorFunction(mHandles->device, countBytes, mHandles.get());
    Stopwatch clock;
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const kx::kxIndexBuffer& indices = *mesh.GetIndexBuffer();
    const size_t vertexCount = static_cast<size_t>(vertices.GetVertexQuantity());
    const size_t triangleCount = static_cast<size_t>(indices.GetIndexQuantity() / 3);

    mHandles->scene = rtcNewScene(mHandles->device);
    if (highQuality)
        rtcSetSceneBuildQuality(mHandles->scene, RTC_BUILD_QUALITY_HIGH);
    RTCGeometry geometry = rtcNewGeometry(mHandles->device, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* positions = static_cast<float*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0,
                                                                 RTC_FORMAT_FLOAT3, 3 * sizeof(float), vertexCount));
    auto* triangles = static_cast<unsigned*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0,
                                                                    RTC_FORMAT_UINT3, 3 * sizeof(unsigned),
                                                                    triangleCount));
    if (!positions || !triangles)
    {
        rtcReleaseGeometry(geometry);
        throw std::bad_alloc();
    }
    for (size_t v = 0; v < vertexCount; ++v)
    {
        const Vec3& p = vertices.Position3(static_cast<int>(v));
        positions[3 * v] = p[0];
        positions[3 * v + 1] = p[1];
        positions[3 * v + 2] = p[2];
    }
    std::memcpy(triangles, indices.GetData(), 3 * triangleCount * sizeof(unsigned));
    mHandles->positions = positions;
    mHandles->triangles = triangles;
    rtcCommitGeometry(geometry);
    rtcAttachGeometry(mHandles->scene, geometry);
    rtcReleaseGeometry(geometry);
    const int64_t before = mHandles->liveBytes;
    mHandles->peakBytes = before;
    rtcCommitScene(mHandles->scene);
    mHierarchyBytes = static_cast<uint64_t>(std::max<int64_t>(0, mHandles->liveBytes - before));
    mPeakBytes = static_cast<uint64_t>(std::max<int64_t>(0, mHandles->peakBytes - before));
    mBuildSeconds = clock.lap();
}

EmbreeScene::~EmbreeScene() = default;

bool EmbreeScene::intersect(const Vec3& origin, const Vec3& direction, float& t, unsigned& triangle) const
{
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRayHit query;
    query.ray.org_x = origin[0];
    query.ray.org_y = origin[1];
    query.ray.org_z = origin[2];
    query.ray.dir_x = direction[0];
    query.ray.dir_y = direction[1];
    query.ray.dir_z = direction[2];
    query.ray.tnear = 0.0f;
    query.ray.tfar = t;
    query.ray.time = 0.0f;
    query.ray.mask = 0xFFFFFFFFu;
    query.ray.id = 0;
    query.ray.flags = 0;
    query.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    query.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    rtcIntersect1(mHandles->scene, &context, &query);
    if (query.hit.geomID == RTC_INVALID_GEOMETRY_ID)
        return false;
    t = query.ray.tfar;
    triangle = query.hit.primID;
    return true;
}

bool EmbreeScene::occluded(const Vec3& origin, const Vec3& direction, float tMin, float tMax) const
{
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRay ray;
    ray.org_x = origin[0];
    ray.org_y = origin[1];
    ray.org_z = origin[2];
    ray.dir_x = direction[0];
    ray.dir_y = direction[1];
    ray.dir_z = direction[2];
    ray.tnear = tMin;
    ray.tfar = tMax;
    ray.time = 0.0f;
    ray.mask = 0xFFFFFFFFu;
    ray.id = 0;
    ray.flags = 0;
    rtcOccluded1(mHandles->scene, &context, &ray);
    return ray.tfar < 0.0f;
}

namespace
{
struct ClosestPointQuery
{
    const float* positions;
    const unsigned* triangles;
    unsigned triangle;
};

bool closestPointCallback(RTCPointQueryFunctionArguments* args)
{
    auto* query = static_cast<ClosestPointQuery*>(args->userPtr);
    const unsigned* corner = query->triangles + 3 * size_t(args->primID);
    const auto vertex = [&](int k) {
        const float* p = query->positions + 3 * size_t(corner[k]);
        return Vec3(p[0], p[1], p[2]);
    };
    const Vec3 p(args->query->x, args->query->y, args->query->z);
    const float d = (closestPointTriangle(p, vertex(0), vertex(1), vertex(2)) - p).Length();
    if (!(d < args->query->radius))
        return false;
    args->query->radius = d;
    query->triangle = args->primID;
    return true;
}
} // namespace

bool EmbreeScene::closestPoint(const Vec3& point, float& distance, unsigned& triangle) const
{
    RTCPointQueryContext context;
    rtcInitPointQueryContext(&context);
    RTCPointQuery query;
    query.x = point[0];
    query.y = point[1];
    query.z = point[2];
    query.radius = distance;
    query.time = 0.0f;
    ClosestPointQuery result{mHandles->positions, mHandles->triangles, RTC_INVALID_GEOMETRY_ID};
    rtcPointQuery(mHandles->scene, &query, &context, closestPointCallback, &result);
    if (result.triangle == RTC_INVALID_GEOMETRY_ID)
        return false;
    distance = query.radius;
    triangle = result.triangle;
    return true;
}

const char* EmbreeScene::version()
{
    return RTC_VERSION_STRING;
}
} // namespace kxbvh
