#ifndef KXRANDOMGEOMETRY_H
#define KXRANDOMGEOMETRY_H

#include "kxBBox.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxTestMeshes.h"
#include "kxTriMesh.h"

#include <cstdint>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

namespace kxtest
{
/// How random primitives are spread.
enum class Layout
{
    Uniform,   // anywhere in a cube
    Clustered, // a few dense clumps far apart
    Grid,      // integer coordinates on a small lattice: many equal centroids and exact ties
    Flat,      // all in the plane z = 0
    Identical  // every primitive the same box
};

/// Primitive boxes presented to a builder.
class BoxContainer : public kxLinearGenericBVHBuilder::tPrimitiveContainerInterface
{
public:
    explicit BoxContainer(std::vector<kxBBox> boxes) : mBoxes(std::move(boxes)) {}
    const kxBBox& getBBox(unsigned int i) const override { return mBoxes[i]; }
    uint32_t getQuantity() const override { return static_cast<uint32_t>(mBoxes.size()); }
    const std::vector<kxBBox>& boxes() const { return mBoxes; }

private:
    std::vector<kxBBox> mBoxes;
};

/// Corners of n random triangles of the given layout, three per triangle.
inline std::vector<Wm4::Vector3<float>> randomCorners(uint32_t seed, uint32_t n, Layout layout)
{
    using V = Wm4::Vector3<float>;
    std::mt19937 rng(seed);
    const auto uniform = [&](float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); };
    std::vector<V> clusters(6);
    for (V& c : clusters)
        c = V(uniform(-100.0f, 100.0f), uniform(-100.0f, 100.0f), uniform(-100.0f, 100.0f));
    std::vector<V> corners(3 * size_t(n));
    for (size_t t = 0; t < n; ++t)
    {
        V* corner = &corners[3 * t];
        if (layout == Layout::Identical)
        {
            corner[0] = V(0.0f, 0.0f, 0.0f);
            corner[1] = V(1.0f, 0.5f, 0.25f);
            corner[2] = V(0.5f, 1.0f, 0.75f);
            continue;
        }
        if (layout == Layout::Grid)
        {
            std::uniform_int_distribution<int> cell(0, 7), step(0, 2);
            const V base(float(cell(rng)), float(cell(rng)), float(cell(rng)));
            for (int k = 0; k < 3; ++k)
                corner[k] = base + V(float(step(rng)), float(step(rng)), float(step(rng)));
            continue;
        }
        V centre(uniform(-50.0f, 50.0f), uniform(-50.0f, 50.0f), uniform(-50.0f, 50.0f));
        float size = uniform(0.05f, 2.0f);
        if (layout == Layout::Clustered)
        {
            const V& c = clusters[std::uniform_int_distribution<size_t>(0, clusters.size() - 1)(rng)];
            centre = c + V(uniform(-1.0f, 1.0f), uniform(-1.0f, 1.0f), uniform(-1.0f, 1.0f));
            size = uniform(0.01f, 0.2f);
        }
        for (int k = 0; k < 3; ++k)
        {
            corner[k] = centre + V(uniform(-size, size), uniform(-size, size), uniform(-size, size));
            if (layout == Layout::Flat)
                corner[k][2] = 0.0f;
        }
    }
    return corners;
}

/// A triangle soup of n triangles (three vertices of its own each).
inline kx::kxPointer<kx::kxTriMesh> randomTriangleMesh(uint32_t seed, uint32_t n, Layout layout)
{
    const std::vector<Wm4::Vector3<float>> corners = randomCorners(seed, n, layout);
    std::vector<unsigned int> indices(corners.size());
    std::iota(indices.begin(), indices.end(), 0u);
    return makeMesh(corners, indices);
}

/// Boxes of n random triangles.
inline std::vector<kxBBox> randomBoxes(uint32_t seed, uint32_t n, Layout layout)
{
    std::vector<kxBBox> boxes(n);
    const std::vector<Wm4::Vector3<float>> corners = randomCorners(seed, n, layout);
    for (size_t i = 0; i < corners.size(); ++i)
        boxes[i / 3].extend(corners[i]);
    return boxes;
}
} // namespace kxtest

#endif
