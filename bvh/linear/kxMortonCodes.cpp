#include "kxMortonCodes.h"

#include "kxLinearBuildSupport.h"

namespace kxLinearBVH
{
kxMortonGrid::kxMortonGrid(const kxBBox& scene, unsigned axisBits)
{
    float side = scene.max[0] - scene.min[0];
    for (int a = 1; a < 3; ++a)
    {
        const float extent = scene.max[a] - scene.min[a];
        if (extent > side)
            side = extent;
    }
    for (int a = 0; a < 3; ++a)
        origin[a] = (scene.min[a] + scene.max[a]) * 0.5f - 0.5f * side;
    scale = static_cast<float>(1u << axisBits) / side;
    lastCell = (1u << axisBits) - 1u;
}

namespace
{
template <typename Code>
Code mortonCode(uint32_t x, uint32_t y, uint32_t z);

template <>
uint32_t mortonCode<uint32_t>(uint32_t x, uint32_t y, uint32_t z)
{
    return mortonCode32(x, y, z);
}

template <>
uint64_t mortonCode<uint64_t>(uint32_t x, uint32_t y, uint32_t z)
{
    return mortonCode64(x, y, z);
}
} // namespace

template <typename Code, typename Container>
void computeMortonCodes(const Container& container, uint32_t quantity, const kxMortonGrid& grid, Code* codes)
{
    for (uint32_t i = 0; i < quantity; ++i)
    {
        const Wm4::Vector3<float> centre = boxOf(container, i).getCenter();
        codes[i] = mortonCode<Code>(grid.cell(centre[0], 0), grid.cell(centre[1], 1), grid.cell(centre[2], 2));
    }
}

using Interface = kxLinearGenericBVHBuilder::tPrimitiveContainerInterface;
template void computeMortonCodes<uint32_t>(const Interface&, uint32_t, const kxMortonGrid&, uint32_t*);
template void computeMortonCodes<uint64_t>(const Interface&, uint32_t, const kxMortonGrid&, uint64_t*);
template void computeMortonCodes<uint32_t>(const kxBVHTriangleContainer&, uint32_t, const kxMortonGrid&, uint32_t*);
template void computeMortonCodes<uint64_t>(const kxBVHTriangleContainer&, uint32_t, const kxMortonGrid&, uint64_t*);
} // namespace kxLinearBVH
