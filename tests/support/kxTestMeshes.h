// Meshes for tests: built from plain arrays, or random triangle soups.
#ifndef KXTESTMESHES_H
#define KXTESTMESHES_H

#include "Wm4Foundation.h"
#include "kxPointer.h"
#include "kxTriMesh.h"

#include <random>
#include <vector>

namespace kxtest
{
inline kx::kxPointer<kx::kxTriMesh> makeMesh(const std::vector<Wm4::Vector3<float>>& positions,
                                              const std::vector<unsigned int>& indices)
{
    auto* vertices = new kx::kxVertexBuffer(static_cast<int>(positions.size()));
    for (size_t i = 0; i < positions.size(); ++i)
        vertices->Position3(static_cast<int>(i)) = positions[i];
    auto* index = new kx::kxIndexBuffer(static_cast<int>(indices.size()));
    for (size_t i = 0; i < indices.size(); ++i)
        index->GetData()[i] = indices[i];
    return kx::kxPointer<kx::kxTriMesh>(new kx::kxTriMesh(vertices, index));
}

struct SoupOptions
{
    float extent = 10.0f;       ///< corners lie in [-extent, extent]^3 ...
    float triangleSize = 2.0f;  ///< ... each within this distance of its first corner
    bool shareVertices = true;  ///< some triangles reuse earlier vertices (shared edges)
    bool degenerates = false;   ///< some triangles are collinear or a point
    bool duplicates = false;    ///< some triangles repeat an earlier one exactly
};

/// Random triangle soup of the given size, reproducible from the generator's state.
inline kx::kxPointer<kx::kxTriMesh> randomSoup(std::mt19937& rng, int triangles, const SoupOptions& options = {})
{
    std::uniform_real_distribution<float> position(-options.extent, options.extent);
    std::uniform_real_distribution<float> offset(-options.triangleSize, options.triangleSize);
    std::uniform_int_distribution<int> choice(0, 9);
    std::vector<Wm4::Vector3<float>> positions;
    std::vector<unsigned int> indices;
    auto add = [&](const Wm4::Vector3<float>& p) {
        positions.push_back(p);
        return static_cast<unsigned int>(positions.size() - 1);
    };
    for (int t = 0; t < triangles; ++t)
    {
        const int kind = choice(rng);
        if (options.duplicates && kind == 0 && t > 0)
        {
            const size_t earlier = 3 * std::uniform_int_distribution<size_t>(0, static_cast<size_t>(t - 1))(rng);
            for (int c = 0; c < 3; ++c)
                indices.push_back(indices[earlier + static_cast<size_t>(c)]);
            continue;
        }
        if (options.shareVertices && kind <= 3 && t > 0)
        {
            // Reuse an edge of the previous triangle, reversed, and add one corner.
            const size_t last = indices.size() - 3;
            const unsigned int a = indices[last + 1], b = indices[last];
            const Wm4::Vector3<float> p = positions[a];
            indices.insert(indices.end(), {a, b, add(Wm4::Vector3<float>(p[0] + offset(rng), p[1] + offset(rng),
                                                                         p[2] + offset(rng)))});
            continue;
        }
        const Wm4::Vector3<float> p0(position(rng), position(rng), position(rng));
        Wm4::Vector3<float> p1(p0[0] + offset(rng), p0[1] + offset(rng), p0[2] + offset(rng));
        Wm4::Vector3<float> p2(p0[0] + offset(rng), p0[1] + offset(rng), p0[2] + offset(rng));
        if (options.degenerates && kind == 9)
            p2 = t % 2 ? p0 + (p1 - p0) * 0.5f : p0;
        indices.insert(indices.end(), {add(p0), add(p1), add(p2)});
    }
    return makeMesh(positions, indices);
}
} // namespace kxtest

#endif
