#include "kxMortonCodes.h"

#include "../kxBoxLanes.h"
#include "kxLinearBuildSupport.h"

#include <array>

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
constexpr unsigned kSpreadBits = 11;

// The x part of the code of every cell index below 2^11: bit k at bit 3k. Spreading is
// bit by bit, so an index of up to 21 bits is spread by two lookups, its low and its high
// 11 bits, instead of the multiply-and-mask steps.
constexpr std::array<uint32_t, 1u << kSpreadBits> makeSpreadTable()
{
    std::array<uint32_t, 1u << kSpreadBits> table{};
    for (uint32_t v = 0; v < table.size(); ++v)
        table[v] = static_cast<uint32_t>(mortonCode64(v, 0, 0));
    return table;
}

constexpr std::array<uint32_t, 1u << kSpreadBits> kSpread = makeSpreadTable();

inline uint64_t spread(uint32_t cell)
{
    return kSpread[cell & ((1u << kSpreadBits) - 1u)] | uint64_t{kSpread[cell >> kSpreadBits]} << (3 * kSpreadBits);
}

template <typename Code>
inline Code mortonCode(uint32_t x, uint32_t y, uint32_t z);

// Up to 10 bits per axis: one lookup each.
template <>
inline uint32_t mortonCode<uint32_t>(uint32_t x, uint32_t y, uint32_t z)
{
    return kSpread[x] | kSpread[y] << 1 | kSpread[z] << 2;
}

template <>
inline uint64_t mortonCode<uint64_t>(uint32_t x, uint32_t y, uint32_t z)
{
    return spread(x) | spread(y) << 1 | spread(z) << 2;
}

static_assert(mortonCode64(0x1FFFFF, 0, 0) == 0x1249249249249249ull && mortonCode32(0x3FF, 0, 0) == 0x9249249u,
              "a full index spreads to every third bit");
} // namespace

template <typename Code, typename Container>
void computeMortonCodes(const Container& container, uint32_t quantity, const kxMortonGrid& grid, Code* codes)
{
    // The three axes' products in one register: lane by lane the scalar operations on the
    // centre's coordinates, so the cells are theirs.
    const __m128 origin = kxBoxLanes::set3(grid.origin);
    const __m128 scale = kxBoxLanes::splat(grid.scale);
    for (uint32_t i = 0; i < quantity; ++i)
    {
        const __m128 q = kxBoxLanes::offsetScaled(kxBoxLanes::centre(boxOf(container, i)), origin, scale);
        codes[i] = mortonCode<Code>(grid.cellOfProduct(q), grid.cellOfProduct(kxBoxLanes::yToLane0(q)),
                                    grid.cellOfProduct(kxBoxLanes::zToLane0(q)));
    }
}

using Interface = kxLinearGenericBVHBuilder::tPrimitiveContainerInterface;
template void computeMortonCodes<uint32_t>(const Interface&, uint32_t, const kxMortonGrid&, uint32_t*);
template void computeMortonCodes<uint64_t>(const Interface&, uint32_t, const kxMortonGrid&, uint64_t*);
template void computeMortonCodes<uint32_t>(const kxBVHTriangleContainer&, uint32_t, const kxMortonGrid&, uint32_t*);
template void computeMortonCodes<uint64_t>(const kxBVHTriangleContainer&, uint32_t, const kxMortonGrid&, uint64_t*);
} // namespace kxLinearBVH
