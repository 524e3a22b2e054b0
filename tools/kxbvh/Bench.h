// kxbvh bench: build, ray, occlusion and closest-point throughput, single- and
// multi-threaded, beside Embree when the tool was built with it.
#ifndef KXBVH_BENCH_H
#define KXBVH_BENCH_H

#include "Camera.h"
#include "MeshSource.h"

namespace kxbvh
{
struct BenchOptions
{
    MeshSource source;
    CameraOptions camera;  // the rays are its primary rays
    unsigned leafSize = 4;
    unsigned threads = 0;
    unsigned repeat = 3;  // every figure is the best of this many runs
    bool json = false;
};

void runBench(const BenchOptions& options);
} // namespace kxbvh

#endif
