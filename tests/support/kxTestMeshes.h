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
    using V = Wm4::Vector3<float>;
    std::uniform_real_distribution<float> position(-options.extent, options.extent);
    std::uniform_real_distribution<float> offset(-options.triangleSize, options.triangleSize);
    std::uniform_int_distribution<int> choice(0, 9);
    std::vector<V> positions;
    std::vector<unsigned int> indices;
    const auto near = [&](const V& p) { return V(p[0] + offset(rng), p[1] + offset(rng), p[2] + offset(rng)); };
    const auto add = [&](const V& p) {
        positions.push_back(p);
        return static_cast<unsigned int>(positions.size() - 1);
    };
    for (int t = 0; t < triangles; ++t)
    {
        const int kind = choice(rng);
        const size_t last = indices.size() - 3;
        if (options.duplicates && kind == 0 && t > 0)
        {
            const size_t earlier = 3 * std::uniform_int_distribution<size_t>(0, static_cast<size_t>(t - 1))(rng);
            indices.insert(indices.end(), {indices[earlier], indices[earlier + 1], indices[earlier + 2]});
        }
        else if (options.shareVertices && kind <= 3 && t > 0) // the previous triangle's edge reversed, one new corner
            indices.insert(indices.end(), {indices[last + 1], indices[last], add(near(positions[indices[last + 1]]))});
        else
        {
            const V p0(position(rng), position(rng), position(rng)), p1 = near(p0), p2 = near(p0);
            const bool degenerate = options.degenerates && kind == 9;
            const V third = !degenerate ? p2 : t % 2 ? p0 + (p1 - p0) * 0.5f : p0;
            indices.insert(indices.end(), {add(p0), add(p1), add(third)});
        }
    }
    return makeMesh(positions, indices);
}
} // namespace kxtest

#endif
