#include "Camera.h"

#include "Errors.h"

#include <algorithm>
#include <cmath>

namespace kxbvh
{
namespace
{
constexpr float kPi = 3.14159265358979f;

Vec3 unit(Vec3 v)
{
    v.Normalize();
    return v;
}

bool finiteBox(const kxBBox& box)
{
    for (int a = 0; a < 3; ++a)
        if (!std::isfinite(box.min[a]) || !std::isfinite(box.max[a]))
            return false;
    return true;
}

/// Where the eye sits, seen from the target, when the user did not say: above the
/// horizon and off to the side, so that a mesh shows depth instead of a flat face.
Vec3 defaultViewDirection(const Vec3& up)
{
    Vec3 side = up.Cross(Vec3(0.0f, 0.0f, 1.0f));
    if (side.Length() < 1e-3f)
        side = up.Cross(Vec3(1.0f, 0.0f, 0.0f));
    side.Normalize();
    const Vec3 front = side.Cross(up);
    return unit(up * 0.55f + side * 0.8f + front);
}
} // namespace

Camera::Camera(const CameraOptions& options, const kxBBox& bounds) : mWidth(options.width), mHeight(options.height)
{
    const Vec3 worldUp = unit(options.up);
    const float halfHeight = std::tan(options.fovDegrees * kPi / 360.0f);
    const float halfWidth = halfHeight * static_cast<float>(mWidth) / static_cast<float>(mHeight);

    Vec3 center(0.0f, 0.0f, 0.0f);
    float radius = 1.0f;
    if (finiteBox(bounds))
    {
        center = Vec3(bounds.getCenter());
        const Vec3 diagonal(bounds.max[0] - bounds.min[0], bounds.max[1] - bounds.min[1], bounds.max[2] - bounds.min[2]);
        if (diagonal.Length() > 0.0f)
            radius = 0.5f * diagonal.Length();
    }
    mTarget = options.at ? *options.at : center;
    if (options.view)
        mEye = *options.view;
    else
    {
        const float narrowHalfAngle = std::atan(std::min(halfHeight, halfWidth));
        const float distance = 1.05f * radius / std::sin(narrowHalfAngle);
        mEye = mTarget + defaultViewDirection(worldUp) * distance;
    }

    const Vec3 lineOfSight = mTarget - mEye;
    if (!(lineOfSight.Length() > 0.0f))
        throw InputError("--view and --at name the same point: the camera has nowhere to look");
    mForward = unit(lineOfSight);
    const Vec3 right = mForward.Cross(worldUp);
    if (!(right.Length() > 1e-4f))
        throw InputError("--up is parallel to the line of sight: choose another --up or --view");
    mRight = unit(right) * halfWidth;
    mUp = unit(right.Cross(mForward)) * halfHeight;
}

Vec3 Camera::direction(float x, float y) const
{
    const float sx = 2.0f * x / static_cast<float>(mWidth) - 1.0f;
    const float sy = 1.0f - 2.0f * y / static_cast<float>(mHeight);
    return unit(mForward + mRight * sx + mUp * sy);
}

std::array<Wm4::Vector4<float>, 4> Camera::frustum(int x0, int y0, int x1, int y1) const
{
    const float left = static_cast<float>(x0), right = static_cast<float>(x1);
    const float top = static_cast<float>(y0), bottom = static_cast<float>(y1);
    const Vec3 corners[4] = {direction(left, top), direction(right, top), direction(right, bottom),
                             direction(left, bottom)};
    const Vec3 inward = direction(0.5f * (left + right), 0.5f * (top + bottom));
    std::array<Wm4::Vector4<float>, 4> planes;
    for (int edge = 0; edge < 4; ++edge)
    {
        Vec3 normal = unit(corners[edge].Cross(corners[(edge + 1) % 4]));
        if (normal.Dot(inward) < 0.0f)
            normal = -normal;
        planes[static_cast<size_t>(edge)] = Wm4::Vector4<float>(normal[0], normal[1], normal[2], -normal.Dot(mEye));
    }
    return planes;
}
} // namespace kxbvh
