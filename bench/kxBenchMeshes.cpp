#include "kxBenchMeshes.h"

#include <algorithm>
#include <cmath>

namespace kxBench
{
kx::kxPointer<kx::kxTriMesh> makeBumpyTorus(uint32_t triangles)
{
    const uint32_t rows = std::max(2u, static_cast<uint32_t>(std::sqrt(triangles / 4.0)));
    const uint32_t columns = std::max(3u, triangles / (2u * rows));
    const double pi = 3.14159265358979323846;
    const double major = 1.0, minor = 0.35;

    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(static_cast<int>(rows * columns));
    for (uint32_t i = 0; i < rows; ++i)
    {
        const double v = 2.0 * pi * i / rows;
        for (uint32_t j = 0; j < columns; ++j)
        {
            const double u = 2.0 * pi * j / columns;
            const double bump = 0.06 * std::sin(7.0 * u) * std::cos(5.0 * v) + 0.02 * std::sin(23.0 * u + 11.0 * v) +
                                0.005 * std::sin(97.0 * u) * std::sin(61.0 * v);
            const double r = minor * (1.0 + bump);
            vertices->Position3(static_cast<int>(i * columns + j)) = Wm4::Vector3<float>(
                static_cast<float>((major + r * std::cos(v)) * std::cos(u)),
                static_cast<float>((major + r * std::cos(v)) * std::sin(u)), static_cast<float>(r * std::sin(v)));
        }
    }

    kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(static_cast<int>(6 * rows * columns));
    unsigned int* index = indices->GetData();
    for (uint32_t i = 0; i < rows; ++i)
    {
        for (uint32_t j = 0; j < columns; ++j)
        {
            const uint32_t a = i * columns + j;
            const uint32_t b = i * columns + (j + 1) % columns;
            const uint32_t c = ((i + 1) % rows) * columns + (j + 1) % columns;
            const uint32_t d = ((i + 1) % rows) * columns + j;
            const uint32_t quad[6] = {a, b, c, a, c, d};
            index = std::copy(quad, quad + 6, index);
        }
    }
    return new kx::kxTriMesh(vertices, indices);
}
} // namespace kxBench
