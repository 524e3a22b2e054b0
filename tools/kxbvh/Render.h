// kxbvh render: one primary ray per pixel through the QBVH, shaded, as a PNG.
#ifndef KXBVH_RENDER_H
#define KXBVH_RENDER_H

#include "Camera.h"
#include "Hierarchy.h"
#include "Image.h"
#include "MeshSource.h"

#include <string>

namespace kxbvh
{
enum class Shade
{
    eNormal,  // the facing side's normal as a colour
    eDepth    // near is bright, far is dark
};

struct RenderOptions
{
    MeshSource source;
    BuildOptions build;
    CameraOptions camera;
    Shade shade = Shade::eNormal;
    kxQBVH::tIntersectionPolicy side = kxQBVH::eAllSides;
    std::string output = "kxbvh-render.png";
    unsigned threads = 0;  // every core
};

struct Rendering
{
    Image image;        // missed pixels are transparent
    uint64_t hits = 0;
    double seconds = 0.0;  // tracing and shading only
};

/// Traces every pixel on `threads` threads with a progress bar; Cancelled on Ctrl-C.
Rendering renderImage(const kxQBVH& qbvh, const Mesh& mesh, const Camera& camera, Shade shade,
                      kxQBVH::tIntersectionPolicy side, unsigned threads);

/// "--view x,y,z --at x,y,z", the options that reproduce this camera.
std::string cameraArguments(const Camera& camera);

void runRender(const RenderOptions& options);
} // namespace kxbvh

#endif
