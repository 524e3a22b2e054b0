#ifndef KXRANDOMGEOMETRY_H
#define KXRANDOMGEOMETRY_H

#include "kxLinearGenericBVHBuilder.h"
#include "kxTestMeshes.h"

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
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    const auto point = [&](float scale) { return V(unit(rng), unit(rng), unit(rng)) * scale; };
    const auto lattice = [&](uint32_t n) { return V(float(rng() % n), float(rng() % n), float(rng() % n)); };
    const V clusters[] = {point(100.0f), point(100.0f), point(100.0f), point(100.0f), point(100.0f), point(100.0f)};
    std::vector<V> corners;
    for (uint32_t t = 0; t < n; ++t)
    {
        const bool clustered = layout == Layout::Clustered;
        const V centre = clustered ? clusters[rng() % 6] + point(1) : layout == Layout::Grid ? lattice(8) : point(50);
        const float size = (clustered ? 0.1f : 1.0f) * (unit(rng) + 1.05f);
        for (int k = 0; k < 3; ++k)
        {
            if (layout == Layout::Identical)
                corners.push_back(V(0.5f * float(k), 1.0f - 0.5f * float(k % 2), 0.25f + 0.25f * float(k)));
            else
                corners.push_back(layout == Layout::Grid ? centre + lattice(3) : centre + point(size));
            if (layout == Layout::Flat)
                corners.back()[2] = 0.0f;
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
