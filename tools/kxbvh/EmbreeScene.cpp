#include "EmbreeScene.h"

#include <embree3/rtcore.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace kxbvh
{
struct EmbreeScene::Handles
{
    int64_t liveBytes = 0;  // counted by the device's memory monitor
    RTCDevice device = nullptr;
    RTCScene scene = nullptr;
    ~Handles()
    {
        if (scene)
            rtcReleaseScene(scene);
        if (device)
            rtcReleaseDevice(device);
    }
};

namespace
{
bool countBytes(void* user, ssize_t bytes, bool)
{
    *static_cast<int64_t*>(user) += bytes;
    return true;
}
} // namespace

EmbreeScene::EmbreeScene(const kx::kxTriMesh& mesh, unsigned threads, bool highQuality)
    : mHandles(std::make_unique<Handles>())
{
    const std::string config = "threads=" + std::to_string(threads);
    mHandles->device = rtcNewDevice(config.c_str());
    if (!mHandles->device)
        throw std::runtime_error("Embree could not create a device");
    rtcSetDeviceMemoryMonitorFunction(mHandles->device, countBytes, &mHandles->liveBytes);
    const auto start = std::chrono::steady_clock::now();
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
    rtcCommitGeometry(geometry);
    rtcAttachGeometry(mHandles->scene, geometry);
    rtcReleaseGeometry(geometry);
    const int64_t before = mHandles->liveBytes;
    rtcCommitScene(mHandles->scene);
    mHierarchyBytes = static_cast<uint64_t>(std::max<int64_t>(0, mHandles->liveBytes - before));
    mBuildSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
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

const char* EmbreeScene::version()
{
    return RTC_VERSION_STRING;
}
} // namespace kxbvh
