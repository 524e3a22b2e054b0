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
/// Places the eye, looking along -away, so that every point falls inside the picture with
/// a small margin; without a fixed target the target also moves sideways until the
/// points sit in the middle of the picture.
class Framing
{
public:
    Framing(const Vec3& away, const Vec3& worldUp, float halfWidth, float halfHeight)
        : mAway(away), mRight(unit((-away).Cross(worldUp))), mHalfWidth(halfWidth), mHalfHeight(halfHeight)
    {
        mUp = unit(mRight.Cross(-away));
    }

    template <typename Points>
    Vec3 eye(Vec3& target, bool targetFixed, const Points& points) const
    {
        for (int pass = 0; pass < 3 && !targetFixed; ++pass)
            target = target + centeringShift(target, distance(target, points), points);
        return target + mAway * distance(target, points);
    }

private:
    static constexpr float kFill = 0.92f;

    template <typename Points>
    float distance(const Vec3& target, const Points& points) const
    {
        float needed = 0.0f, reach = 0.0f;
        points([&](const Vec3& p) {
            const Vec3 offset = p - target;
            const float towardsEye = offset.Dot(mAway);
            needed = std::max(needed, towardsEye + std::fabs(offset.Dot(mRight)) / (kFill * mHalfWidth));
            needed = std::max(needed, towardsEye + std::fabs(offset.Dot(mUp)) / (kFill * mHalfHeight));
            reach = std::max(reach, offset.Length());
        });
        // A flat or point-like mesh still needs the eye outside of it.
        return std::max(needed, 1.1f * reach + 1e-3f);
    }

    template <typename Points>
    Vec3 centeringShift(const Vec3& target, float distance, const Points& points) const
    {
        float lo[2] = {1e30f, 1e30f}, hi[2] = {-1e30f, -1e30f};
        points([&](const Vec3& p) {
            const Vec3 offset = p - target;
            const float depth = distance - offset.Dot(mAway);
            if (!(depth > 0.0f))
                return;
            const float screen[2] = {offset.Dot(mRight) / (depth * mHalfWidth), offset.Dot(mUp) / (depth * mHalfHeight)};
            for (int a = 0; a < 2; ++a)
            {
                lo[a] = std::min(lo[a], screen[a]);
                hi[a] = std::max(hi[a], screen[a]);
            }
        });
        if (lo[0] > hi[0])
            return Vec3(0.0f, 0.0f, 0.0f);
        return mRight * (0.5f * (lo[0] + hi[0]) * mHalfWidth * distance) +
               mUp * (0.5f * (lo[1] + hi[1]) * mHalfHeight * distance);
    }

    Vec3 mAway;
    Vec3 mRight;
    Vec3 mUp{0.0f, 1.0f, 0.0f};
    float mHalfWidth;
    float mHalfHeight;
};
} // namespace

Camera::Camera(const CameraOptions& options, const kxBBox& bounds, const kx::kxVertexBuffer* vertices)
    : mWidth(options.width), mHeight(options.height)
{
    const Vec3 worldUp = unit(options.up);
    const float halfHeight = std::tan(options.fovDegrees * kPi / 360.0f);
    const float halfWidth = halfHeight * static_cast<float>(mWidth) / static_cast<float>(mHeight);

    const bool framable = finiteBox(bounds);
    mTarget = options.at ? *options.at : (framable ? Vec3(bounds.getCenter()) : Vec3(0.0f, 0.0f, 0.0f));
    if (options.view)
        mEye = *options.view;
    else if (!framable)
        mEye = mTarget + defaultViewDirection(worldUp) * 10.0f;
    else
    {
        const Framing framing(defaultViewDirection(worldUp), worldUp, halfWidth, halfHeight);
        if (vertices && vertices->GetVertexQuantity() > 0)
            mEye = framing.eye(mTarget, options.at.has_value(), [vertices](auto&& visit) {
                for (int v = 0; v < vertices->GetVertexQuantity(); ++v)
                    visit(vertices->Position3(v));
            });
        else
            mEye = framing.eye(mTarget, options.at.has_value(), [&bounds](auto&& visit) {
                for (int corner = 0; corner < 8; ++corner)
                    visit(Vec3(corner & 1 ? bounds.max[0] : bounds.min[0], corner & 2 ? bounds.max[1] : bounds.min[1],
                               corner & 4 ? bounds.max[2] : bounds.min[2]));
            });
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
