// Procedural meshes for the four-wide hierarchy's benchmark: a rolling height field with
// displaced spheres standing on it, so that rays meet open ground, dense clusters and
// empty space.
#ifndef KXQBVHBENCHMESHES_H
#define KXQBVHBENCHMESHES_H

#include "kxPointer.h"
#include "kxTriMesh.h"

#include <array>
#include <cmath>
#include <vector>

namespace kxbench
{
struct MeshData
{
    std::vector<float> positions; // x, y, z per vertex
    std::vector<unsigned int> indices;
};

template <class Point>
inline void addGrid(MeshData& m, int rows, int columns, Point&& point)
{
    const unsigned int base = static_cast<unsigned int>(m.positions.size() / 3);
    for (int i = 0; i <= rows; ++i)
        for (int j = 0; j <= columns; ++j)
        {
            const auto p = point(static_cast<float>(i) / rows, static_cast<float>(j) / columns);
            m.positions.insert(m.positions.end(), {p[0], p[1], p[2]});
        }
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < columns; ++j)
        {
            const unsigned int a = base + static_cast<unsigned int>(i * (columns + 1) + j);
            const unsigned int b = a + static_cast<unsigned int>(columns + 1);
            m.indices.insert(m.indices.end(), {a, b, a + 1, a + 1, b, b + 1});
        }
}

/// About `triangles` triangles: half in the ground, half in 16 bumpy spheres.
inline MeshData landscape(int triangles)
{
    MeshData m;
    const int groundSide = static_cast<int>(std::sqrt(triangles / 4.0));
    addGrid(m, groundSide, groundSide, [](float u, float v) {
        const float x = (u - 0.5f) * 100.0f, z = (v - 0.5f) * 100.0f;
        return std::array<float, 3>{x, 2.0f * std::sin(0.21f * x) * std::cos(0.17f * z), z};
    });
    const int sphereSide = static_cast<int>(std::sqrt(triangles / 64.0));
    for (int s = 0; s < 16; ++s)
    {
        const float cx = -37.5f + 25.0f * static_cast<float>(s % 4), cz = -37.5f + 25.0f * static_cast<float>(s / 4);
        const float radius = 4.0f + static_cast<float>(s % 3);
        addGrid(m, sphereSide, sphereSide, [&](float u, float v) {
            const float theta = u * 3.14159265f, phi = v * 6.2831853f;
            const float r = radius * (1.0f + 0.08f * std::sin(9.0f * theta) * std::sin(7.0f * phi));
            return std::array<float, 3>{cx + r * std::sin(theta) * std::cos(phi), radius + 1.0f + r * std::cos(theta),
                                        cz + r * std::sin(theta) * std::sin(phi)};
        });
    }
    return m;
}

inline kx::kxPointer<kx::kxTriMesh> toTriMesh(const MeshData& m)
{
    auto* vertices = new kx::kxVertexBuffer(static_cast<int>(m.positions.size() / 3));
    for (size_t i = 0; i < m.positions.size() / 3; ++i)
        vertices->Position3(static_cast<int>(i)) =
            Wm4::Vector3<float>(m.positions[3 * i], m.positions[3 * i + 1], m.positions[3 * i + 2]);
    auto* indices = new kx::kxIndexBuffer(static_cast<int>(m.indices.size()));
    std::copy(m.indices.begin(), m.indices.end(), indices->GetData());
    return kx::kxPointer<kx::kxTriMesh>(new kx::kxTriMesh(vertices, indices));
}
} // namespace kxbench

#endif
