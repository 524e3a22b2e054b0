// Embree's side of the query benchmarks: a scene over a benchmark mesh, and the clean-up.
#ifndef KXBENCHEMBREE_H
#define KXBENCHEMBREE_H

#include "kxBenchMeshes.h"

#include <embree3/rtcore.h>

#include <memory>
#include <vector>

namespace kxBench
{
/// A committed scene of the mesh's triangles over its own index buffer and `positions`
/// (paddedPositions of the mesh), built at the given quality.
inline RTCScene embreeScene(RTCDevice device, const kx::kxTriMesh& mesh, const std::vector<float>& positions,
                            RTCBuildQuality quality = RTC_BUILD_QUALITY_MEDIUM)
{
    RTCScene scene = rtcNewScene(device);
    rtcSetSceneBuildQuality(scene, quality);
    RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, positions.data(), 0,
                               3 * sizeof(float), (positions.size() - 4) / 3);
    rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, mesh.GetIndexBuffer()->GetData(),
                               0, 3 * sizeof(unsigned int), triangleCount(mesh));
    rtcCommitGeometry(geometry);
    rtcAttachGeometry(scene, geometry);
    rtcReleaseGeometry(geometry);
    rtcCommitScene(scene);
    return scene;
}

/// Releases every workload's scenes, then the devices.
template <class Workload, size_t DeviceCount>
void releaseEmbree(const std::vector<std::unique_ptr<Workload>>& workloads, RTCDevice (&devices)[DeviceCount])
{
    for (const auto& w : workloads)
        for (RTCScene scene : w->scenes)
            if (scene)
                rtcReleaseScene(scene);
    for (RTCDevice device : devices)
        if (device)
            rtcReleaseDevice(device);
}
} // namespace kxBench

#endif
