#include "kxMortonCodes.h"

#include <xmmintrin.h>

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

uint32_t kxMortonGrid::cell(float p, int axis) const
{
    const int64_t q = _mm_cvttss_si64(_mm_set_ss((p - origin[axis]) * scale));
    const uint32_t low = static_cast<uint32_t>(q);
    return low < lastCell ? low : lastCell;
}

namespace
{
// Leaves the bits of v in pairs at positions 6j and 6j + 1; the final multiply by 5, 10 or
// 20 both completes the spread (v | v << 2) and shifts the axis into place.
uint32_t spreadInPairs(uint32_t v)
{
    v = (v * 0x00010001u) & 0xFF0000FFu;
    v = (v * 0x101u) & 0x0F00F00Fu;
    v = (v * 0x11u) & 0xC30C30C3u;
    return v;
}

uint64_t spreadInPairs(uint64_t v)
{
    v = (v * 0x100000001ull) & 0xFFFF00000000FFFFull;
    v = (v * 0x10001ull) & 0x00FF0000FF0000FFull;
    v = (v * 0x101ull) & 0xF00F00F00F00F00Full;
    v = (v * 0x11ull) & 0x30C30C30C30C30C3ull;
    return v;
}

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

uint32_t mortonCode32(uint32_t x, uint32_t y, uint32_t z)
{
    return ((spreadInPairs(x) * 5u) & 0x49249249u) | ((spreadInPairs(y) * 10u) & 0x92492492u) |
           ((spreadInPairs(z) * 20u) & 0x24924924u);
}

uint64_t mortonCode64(uint64_t x, uint64_t y, uint64_t z)
{
    return ((spreadInPairs(x) * 5ull) & 0x9249249249249249ull) | ((spreadInPairs(y) * 10ull) & 0x2492492492492492ull) |
           ((spreadInPairs(z) * 20ull) & 0x4924924924924924ull);
}

template <typename Code>
void computeMortonCodes(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
                        uint32_t quantity, const kxMortonGrid& grid, Code* codes)
{
    for (uint32_t i = 0; i < quantity; ++i)
    {
        const Wm4::Vector3<float> centre = container.getBBox(i).getCenter();
        codes[i] = mortonCode<Code>(grid.cell(centre[0], 0), grid.cell(centre[1], 1), grid.cell(centre[2], 2));
    }
}

template void computeMortonCodes<uint32_t>(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface&,
                                           uint32_t, const kxMortonGrid&, uint32_t*);
template void computeMortonCodes<uint64_t>(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface&,
                                           uint32_t, const kxMortonGrid&, uint64_t*);
} // namespace kxLinearBVH
