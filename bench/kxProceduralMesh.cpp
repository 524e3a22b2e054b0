#include "kxProceduralMesh.h"

#include <cmath>
#include <random>

namespace kxbench
{
kx::kxPointer<kx::kxTriMesh> makeProceduralMesh(uint32_t triangles, uint32_t seed)
{
    // A rings x segments grid closed in both directions has 2 * rings * segments triangles.
    const auto rings = static_cast<uint32_t>(std::sqrt(triangles / 8.0)) + 1;
    const uint32_t segments = (triangles / 2 + rings - 1) / rings;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> phase(0.0f, 6.2831853f);
    const float p0 = phase(rng), p1 = phase(rng), p2 = phase(rng);

    auto* vertices = new kx::kxVertexBuffer(static_cast<int>(rings * segments));
    for (uint32_t r = 0; r < rings; ++r)
    {
        for (uint32_t s = 0; s < segments; ++s)
        {
            // Warped parameters make triangle sizes vary along the surface.
            float u = 6.2831853f * (float(r) / float(rings));
            float v = 6.2831853f * (float(s) / float(segments));
            u += 0.3f * std::sin(u + p0);
            v += 0.2f * std::sin(2.0f * v + p1);
            const float bump = 0.15f * std::sin(7.0f * u + p2) * std::sin(11.0f * v) + 0.05f * std::sin(41.0f * v);
            const float tube = 1.0f + bump;
            const float ring = 3.0f + tube * std::cos(v);
            vertices->Position3(static_cast<int>(r * segments + s)) =
                Wm4::Vector3<float>(ring * std::cos(u), ring * std::sin(u), tube * std::sin(v) * 1.5f);
        }
    }
    auto* indices = new kx::kxIndexBuffer(static_cast<int>(6 * rings * segments));
    unsigned int* out = indices->GetData();
    for (uint32_t r = 0; r < rings; ++r)
    {
        const uint32_t r1 = (r + 1) % rings;
        for (uint32_t s = 0; s < segments; ++s)
        {
            const uint32_t s1 = (s + 1) % segments;
            const uint32_t a = r * segments + s, b = r1 * segments + s, c = r1 * segments + s1, d = r * segments + s1;
            *out++ = a, *out++ = b, *out++ = c;
            *out++ = a, *out++ = c, *out++ = d;
        }
    }
    return kx::kxPointer<kx::kxTriMesh>(new kx::kxTriMesh(vertices, indices));
}
} // namespace kxbench
