#ifndef KXMORTONCODES_H
#define KXMORTONCODES_H

#include "kxBBox.h"
#include "kxLinearGenericBVHBuilder.h"

#include "../kxBoxLanes.h"

#include <cstdint>

namespace kxLinearBVH
{
/// A cube of 2^axisBits cells per axis centred on the scene box, its edge the scene's
/// largest extent.
struct kxMortonGrid
{
    kxMortonGrid(const kxBBox& scene, unsigned axisBits);

    /// The cell of coordinate p on one axis, from lane 0 of the product (p - origin[axis])
    /// * scale: truncated to 64 bits, low 32 bits kept, clamped to the last cell. NaN and
    /// out-of-range products (a flat scene, an empty box) land on x86's integer indefinite,
    /// whose low half is 0; a product of -1 or less wraps around and ends in the last cell.
    /// Both are kept on purpose.
    uint32_t cellOfProduct(__m128 product) const
    {
        const uint32_t low = kxBoxLanes::truncateLane0ToLow32(product);
        return low < lastCell ? low : lastCell;
    }

    float origin[3];
    float scale;
    uint32_t lastCell;
};

// Leaves the bits of v in pairs at positions 6j and 6j + 1; the final multiply by 5, 10 or
// 20 both completes the spread (v | v << 2) and shifts the axis into place.
constexpr uint32_t spreadInPairs(uint32_t v)
{
    v = (v * 0x00010001u) & 0xFF0000FFu;
    v = (v * 0x101u) & 0x0F00F00Fu;
    v = (v * 0x11u) & 0xC30C30C3u;
    return v;
}

constexpr uint64_t spreadInPairs(uint64_t v)
{
    v = (v * 0x100000001ull) & 0xFFFF00000000FFFFull;
    v = (v * 0x10001ull) & 0x00FF0000FF0000FFull;
    v = (v * 0x101ull) & 0xF00F00F00F00F00Full;
    v = (v * 0x11ull) & 0x30C30C30C30C30C3ull;
    return v;
}

/// X's bit k goes to code bit 3k, Y's to 3k + 1, Z's to 3k + 2; up to 10 bits per axis.
constexpr uint32_t mortonCode32(uint32_t x, uint32_t y, uint32_t z)
{
    return ((spreadInPairs(x) * 5u) & 0x49249249u) | ((spreadInPairs(y) * 10u) & 0x92492492u) |
           ((spreadInPairs(z) * 20u) & 0x24924924u);
}

/// The same with up to 21 bits per axis.
constexpr uint64_t mortonCode64(uint64_t x, uint64_t y, uint64_t z)
{
    return ((spreadInPairs(x) * 5ull) & 0x9249249249249249ull) | ((spreadInPairs(y) * 10ull) & 0x2492492492492492ull) |
           ((spreadInPairs(z) * 20ull) & 0x4924924924924924ull);
}

/// codes[i] = Morton code of the centre of primitive i's box, for i below quantity.
/// Container: the container interface or kxBVHTriangleContainer (see boxOf).
template <typename Code, typename Container>
void computeMortonCodes(const Container& container, uint32_t quantity, const kxMortonGrid& grid, Code* codes);
} // namespace kxLinearBVH

#endif
