// The built-in scene, so that a first run needs no file: a bumpy sphere ringed by a tilted
// torus, resting on hilly ground. Y is up.
#ifndef KXBVH_SCENE_H
#define KXBVH_SCENE_H

#include <kxPointer.h>
#include <kxTriMesh.h>

#include <cstdint>

namespace kxbvh
{
constexpr uint64_t kDefaultSceneTriangles = 1000000;
constexpr uint64_t kMinSceneTriangles = 100;
constexpr uint64_t kMaxSceneTriangles = 50000000;

/// About `triangles` triangles (within a few percent), the same ones on every run and
/// machine. Outward faces wind counter-clockwise. Stops with Cancelled on Ctrl-C.
kx::kxPointer<kx::kxTriMesh> makeScene(uint64_t triangles);
} // namespace kxbvh

#endif
