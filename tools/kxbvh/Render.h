// kxbvh render: one primary ray per pixel through the QBVH, shaded, as a PNG.
#ifndef KXBVH_RENDER_H
#define KXBVH_RENDER_H

#include "Camera.h"
#include "Hierarchy.h"
#include "Image.h"
#include "MeshSource.h"

#include <optional>
#include <string>

namespace kxbvh
{
enum class Shade
{
    eNormal,  // the facing side's normal as a colour
    eDepth,   // near is bright, far is dark
    eAO       // ambient occlusion: how much of the sky above each point is open
};

struct RenderOptions
{
    MeshSource source;
    BuildOptions build;
    CameraOptions camera;
    Shade shade = Shade::eNormal;
    kxQBVH::tIntersectionPolicy side = kxQBVH::eAllSides;
    unsigned samples = 16;  // occlusion rays per pixel, for eAO
    std::string output = "kxbvh-render.png";
    unsigned threads = 0;  // every core
};

struct Rendering
{
    Image image;        // missed pixels are transparent
    uint64_t hits = 0;
    double seconds = 0.0;  // tracing and shading only
    uint64_t occlusionRays = 0;
    double occlusionSeconds = 0.0;  // summed over threads
};

/// Traces every pixel on `threads` threads with a progress bar; Cancelled on Ctrl-C.
/// eAO sends `samples` occlusion rays from every hit; the same arguments give the same
/// picture on any number of threads.
Rendering renderImage(const kxQBVH& qbvh, const Mesh& mesh, const Camera& camera, Shade shade,
                      kxQBVH::tIntersectionPolicy side, unsigned threads, unsigned samples = 16);

/// What render and cull start from: a mesh, its hierarchy and a camera on it.
struct Shot
{
    Mesh mesh;
    Hierarchy hierarchy;
    std::optional<Camera> camera;
    unsigned threads = 1;
};

/// Checks that output can be written (before any long work), opens the mesh, builds the
/// hierarchy and places the camera.
void prepareShot(Shot& shot, const std::string& output, const MeshSource& source, const BuildOptions& build,
                 const CameraOptions& camera, unsigned threads);

/// The shot's mesh and build time on the first line, and at the end the camera, as the
/// options that reproduce it, and the file written. `figures` goes in between.
void reportShot(const Shot& shot, const std::string& figures, const std::string& output);

void runRender(const RenderOptions& options);
} // namespace kxbvh

#endif
