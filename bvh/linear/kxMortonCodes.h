#ifndef KXMORTONCODES_H
#define KXMORTONCODES_H

#include "kxBBox.h"
#include "kxLinearGenericBVHBuilder.h"

#include <cstdint>

namespace kxLinearBVH
{
/// A cube of 2^axisBits cells per axis centred on the scene box, its edge the scene's
/// largest extent.
struct kxMortonGrid
{
    kxMortonGrid(const kxBBox& scene, unsigned axisBits);

    /// The cell of coordinate p on one axis: truncated to 64 bits, low 32 bits kept, clamped
    /// to the last cell. NaN and out-of-range products (a flat scene, an empty box) land on
    /// x86's integer indefinite, whose low half is 0.
    uint32_t cell(float p, int axis) const;

    float origin[3];
    float scale;
    uint32_t lastCell;
};

/// X's bit k goes to code bit 3k, Y's to 3k + 1, Z's to 3k + 2; up to 10 bits per axis.
uint32_t mortonCode32(uint32_t x, uint32_t y, uint32_t z);
/// The same with up to 21 bits per axis.
uint64_t mortonCode64(uint64_t x, uint64_t y, uint64_t z);

/// codes[i] = Morton code of the centre of primitive i's box, for i below quantity.
template <typename Code>
void computeMortonCodes(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
                        uint32_t quantity, const kxMortonGrid& grid, Code* codes);
} // namespace kxLinearBVH

#endif
