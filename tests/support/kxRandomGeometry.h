#ifndef KXRANDOMGEOMETRY_H
#define KXRANDOMGEOMETRY_H

#include "kxBBox.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxTestMeshes.h"
#include "kxTriMesh.h"

#include <cstdint>
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

inline float uniform(std::mt19937& rng, float lo, float hi)
{
    return std::uniform_real_distribution<float>(lo, hi)(rng);
}

/// Three random corners of a triangle of the given layout.
inline void randomTriangle(std::mt19937& rng, Layout layout, const std::vector<Wm4::Vector3<float>>& clusters,
                           Wm4::Vector3<float> corner[3])
{
    if (layout == Layout::Identical)
    {
        corner[0] = Wm4::Vector3<float>(0.0f, 0.0f, 0.0f);
        corner[1] = Wm4::Vector3<float>(1.0f, 0.5f, 0.25f);
        corner[2] = Wm4::Vector3<float>(0.5f, 1.0f, 0.75f);
        return;
    }
    if (layout == Layout::Grid)
    {
        std::uniform_int_distribution<int> cell(0, 7);
        std::uniform_int_distribution<int> step(0, 2);
        const Wm4::Vector3<float> base(float(cell(rng)), float(cell(rng)), float(cell(rng)));
        for (int k = 0; k < 3; ++k)
            corner[k] = base + Wm4::Vector3<float>(float(step(rng)), float(step(rng)), float(step(rng)));
        return;
    }
    Wm4::Vector3<float> centre(uniform(rng, -50.0f, 50.0f), uniform(rng, -50.0f, 50.0f), uniform(rng, -50.0f, 50.0f));
    float size = uniform(rng, 0.05f, 2.0f);
    if (layout == Layout::Clustered)
    {
        const auto& c = clusters[std::uniform_int_distribution<size_t>(0, clusters.size() - 1)(rng)];
        centre = c + Wm4::Vector3<float>(uniform(rng, -1.0f, 1.0f), uniform(rng, -1.0f, 1.0f), uniform(rng, -1.0f, 1.0f));
        size = uniform(rng, 0.01f, 0.2f);
    }
    for (int k = 0; k < 3; ++k)
    {
        corner[k] = centre + Wm4::Vector3<float>(uniform(rng, -size, size), uniform(rng, -size, size),
                                                 uniform(rng, -size, size));
        if (layout == Layout::Flat)
            corner[k][2] = 0.0f;
    }
}

inline std::vector<Wm4::Vector3<float>> randomClusters(std::mt19937& rng)
{
    std::vector<Wm4::Vector3<float>> clusters(6);
    for (auto& c : clusters)
        c = Wm4::Vector3<float>(uniform(rng, -100.0f, 100.0f), uniform(rng, -100.0f, 100.0f), uniform(rng, -100.0f, 100.0f));
    return clusters;
}

/// A triangle soup of n triangles (three vertices of its own each).
inline kx::kxPointer<kx::kxTriMesh> randomTriangleMesh(uint32_t seed, uint32_t n, Layout layout)
{
    std::mt19937 rng(seed);
    const auto clusters = randomClusters(rng);
    std::vector<Wm4::Vector3<float>> positions(3 * size_t(n));
    std::vector<unsigned int> indices(3 * size_t(n));
    for (uint32_t t = 0; t < n; ++t)
    {
        randomTriangle(rng, layout, clusters, &positions[3 * size_t(t)]);
        for (uint32_t k = 0; k < 3; ++k)
            indices[3 * t + k] = 3 * t + k;
    }
    return makeMesh(positions, indices);
}

/// Boxes of n random triangles.
inline std::vector<kxBBox> randomBoxes(uint32_t seed, uint32_t n, Layout layout)
{
    std::mt19937 rng(seed);
    const auto clusters = randomClusters(rng);
    std::vector<kxBBox> boxes(n);
    Wm4::Vector3<float> corner[3];
    for (auto& b : boxes)
    {
        randomTriangle(rng, layout, clusters, corner);
        for (const auto& c : corner)
            b.extend(c);
    }
    return boxes;
}
} // namespace kxtest

#endif
