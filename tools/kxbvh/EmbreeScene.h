// The same mesh in Embree, for side-by-side figures. Compiled only when Embree was found.
#ifndef KXBVH_EMBREESCENE_H
#define KXBVH_EMBREESCENE_H

#include "Camera.h"

#include <kxTriMesh.h>

#include <cstdint>
#include <memory>

namespace kxbvh
{
class EmbreeScene
{
public:
    /// Copies the mesh into Embree and commits the scene with Embree's default build
    /// quality, or its high quality (spatial splits), on `threads` threads of its own
    /// pool; the time covers both.
    EmbreeScene(const kx::kxTriMesh& mesh, unsigned threads, bool highQuality = false);
    ~EmbreeScene();
    EmbreeScene(const EmbreeScene&) = delete;
    EmbreeScene& operator=(const EmbreeScene&) = delete;

    double buildSeconds() const { return mBuildSeconds; }
    /// What the committed hierarchy holds in Embree's memory (its copy of the mesh aside).
    uint64_t hierarchyBytes() const { return mHierarchyBytes; }
    /// The most Embree held during the commit on top of what it held before, by its memory monitor.
    uint64_t peakBytes() const { return mPeakBytes; }

    /// Nearest hit in [0, t]: shortens t and names the mesh's triangle. Thread-safe.
    bool intersect(const Vec3& origin, const Vec3& direction, float& t, unsigned& triangle) const;

    /// Whether anything lies on the ray within [tMin, tMax] (rtcOccluded1). Thread-safe.
    bool occluded(const Vec3& origin, const Vec3& direction, float tMin, float tMax) const;

    /// The nearest triangle and its distance (rtcPointQuery with the closest-point callback
    /// of Embree's tutorial). Thread-safe.
    bool closestPoint(const Vec3& point, float& distance, unsigned& triangle) const;

    static const char* version();

private:
    struct Handles;
    std::unique_ptr<Handles> mHandles;
    double mBuildSeconds = 0.0;
    uint64_t mHierarchyBytes = 0;
    uint64_t mPeakBytes = 0;
};
} // namespace kxbvh

#endif
