// Preloaded into the Python benchmark (LD_PRELOAD) so that Debian's Open3D can be timed on
// rays that hit. Its RaycastingScene hands Embree rays whose mask is 0, and Debian's Embree
// is built with ray masks, so every ray misses every geometry. Here the stream calls Open3D
// makes set each ray's mask to all ones, as Open3D means it, and go on to Embree: one
// store per ray, on Open3D's side of the clock.
#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{
using StreamCall = void (*)(void* scene, void* context, void* rays, unsigned int count, size_t stride);

// Byte offset of the mask in Embree 3's RTCRay, the head of RTCRayHit too.
constexpr size_t kMaskOffset = 36;

// Open3D loads Embree with its Python module, privately: look it up there, not in the
// global scope.
StreamCall embreeCall(const char* name)
{
    void* embree = dlopen("libembree3.so.3", RTLD_LAZY | RTLD_NOLOAD);
    void* call = embree ? dlsym(embree, name) : nullptr;
    if (call == nullptr)
    {
        std::fprintf(stderr, "kxOpen3DRayMask: %s not found in a loaded libembree3.so.3\n", name);
        std::abort();
    }
    StreamCall result;
    std::memcpy(&result, &call, sizeof result);
    return result;
}

void unmask(void* rays, unsigned int count, size_t stride)
{
    auto* bytes = static_cast<unsigned char*>(rays);
    const uint32_t all = 0xFFFFFFFFu;
    for (unsigned int i = 0; i < count; ++i)
        std::memcpy(bytes + i * stride + kMaskOffset, &all, sizeof all);
}
} // namespace

extern "C" void rtcIntersect1M(void* scene, void* context, void* rays, unsigned int count, size_t stride)
{
    static const StreamCall embree = embreeCall("rtcIntersect1M");
    unmask(rays, count, stride);
    embree(scene, context, rays, count, stride);
}

extern "C" void rtcOccluded1M(void* scene, void* context, void* rays, unsigned int count, size_t stride)
{
    static const StreamCall embree = embreeCall("rtcOccluded1M");
    unmask(rays, count, stride);
    embree(scene, context, rays, count, stride);
}
