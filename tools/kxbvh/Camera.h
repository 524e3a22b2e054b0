// A pinhole camera: one ray per pixel, and the view pyramid of any rectangle of pixels.
#ifndef KXBVH_CAMERA_H
#define KXBVH_CAMERA_H

#include <kxBBox.h>
#include <kxVertexBuffer.h>

#include <Wm4Foundation.h>

#include <array>
#include <optional>

namespace kxbvh
{
using Vec3 = Wm4::Vector3<float>;

struct CameraOptions
{
    int width = 1280;
    int height = 720;
    float fovDegrees = 40.0f; // vertical
    std::optional<Vec3> view; // eye position
    std::optional<Vec3> at;   // point looked at
    Vec3 up{0.0f, 1.0f, 0.0f};
};

class Camera
{
public:
    /// A missing eye is placed above and to the side of the target, just far enough for
    /// the mesh (its vertices when given, else the corners of its bounds) to fill the
    /// picture; a missing target then moves until the mesh is centred. Throws InputError
    /// when the eye is the target or up is along the line of sight.
    Camera(const CameraOptions& options, const kxBBox& bounds, const kx::kxVertexBuffer* vertices = nullptr);

    int width() const { return mWidth; }
    int height() const { return mHeight; }
    const Vec3& eye() const { return mEye; }
    const Vec3& target() const { return mTarget; }

    /// Unit direction through the image point (x, y) in pixels: (0, 0) is the top-left
    /// corner of the picture, (width, height) the bottom-right one.
    Vec3 direction(float x, float y) const;

    /// The four planes (a, b, c, d) of the pyramid from the eye through the pixel
    /// rectangle [x0, x1) x [y0, y1); a point p is inside when a px + b py + c pz + d > 0.
    std::array<Wm4::Vector4<float>, 4> frustum(int x0, int y0, int x1, int y1) const;

private:
    Vec3 mEye{0.0f, 0.0f, 0.0f};
    Vec3 mTarget{0.0f, 0.0f, 0.0f};
    Vec3 mForward{0.0f, 0.0f, -1.0f};
    Vec3 mRight{1.0f, 0.0f, 0.0f}; // scaled to half the picture's width at distance 1
    Vec3 mUp{0.0f, 1.0f, 0.0f};    // scaled to half its height
    int mWidth;
    int mHeight;
};
} // namespace kxbvh

#endif
