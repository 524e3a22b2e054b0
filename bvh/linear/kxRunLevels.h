#ifndef KXRUNLEVELS_H
#define KXRUNLEVELS_H

#include "kxCancelInterface.h"
#include "kxGenericBVH.h"
#include "kxLinearBuildSupport.h"

#include <cstdint>
#include <vector>

namespace kxLinearBVH
{
/// The runs of equal code prefixes of sorted Morton codes, level by level, and the
/// hierarchy they describe.
///
/// Level l (1..L) distinguishes code bit L - l; level 0 is the single run of all positions.
/// A run of level l - 1 either stays whole at level l or splits in two where its codes
/// differ in bit L - l, between the positions j and j + 1 whose codes differ first in
/// that bit: every adjacent pair of differing codes is the split of exactly one run, at the
/// level of its highest differing bit. Emission gives each split the next free pair of
/// records, levels in ascending order and positions in ascending order inside a level;
/// both halves start as leaves and the run's own record becomes inner, split on the axis
/// of the level (z, y, x, z, ...).
class kxRunLevels
{
public:
    static constexpr unsigned kMaxLevels = 63;
    /// Entries of level 1 around the pair levels.
    static constexpr unsigned kPad = 32;

    /// levels = 3 * bits per axis, at most kMaxLevels. Takes its memory for quantity
    /// primitives from the arena at once, below everything the sort will take.
    kxRunLevels(unsigned levels, uint32_t quantity, kxBuildArena& arena);
    /// The arena space of quantity primitives.
    static size_t footprint(uint32_t quantity);

    /// Finds the level of every adjacent pair of sorted codes that differ, and counts the
    /// splits and the runs they make.
    template <typename Code>
    void count(const Code* sortedCodes);

    unsigned levels() const { return mLevels; }
    /// Runs of the deepest level: the number of distinct codes (1 for no primitive).
    uint64_t distinctCodes() const;
    /// 8 bytes for every run end of every level 0..L, as if each level's complete list of
    /// run ends were kept. Needs count().
    uint64_t workingBufferBytes() const;

    /// Writes the hierarchy into nodes, boxes included: the records that emitting level
    /// after level, fusing every subtree of at most maxPrimitivesPerLeaf primitives into a
    /// leaf, numbering the surviving records in emission order and refitting would give.
    /// One sweep over the positions; each record is written once, by its parent. The
    /// primitives at the sorted positions are indexes[0 .. quantity - 1]. Polls levels()
    /// times on the way; false when cancelled.
    /// Container: the container interface or kxBVHTriangleContainer (see boxOf).
    template <typename Container>
    bool build(std::vector<kxGNode>& nodes, const Container& container, const uint32_t* indexes,
               uint32_t maxPrimitivesPerLeaf, const kx::kxCancelInterfaceReadOnly* cancel);

private:
    // Blocks of sixteen pairs over quantity primitives.
    static size_t blocksOf(uint32_t quantity) { return quantity / 16u + 1u; }
    // Marks the splits whose children survive fusing and counts them per level.
    void findSurvivors(uint32_t maxPrimitivesPerLeaf, uint64_t (&survivors)[kMaxLevels + 1]);

    unsigned mLevels;
    uint32_t mQuantity = 0;
    uint64_t mSplits = 0;  // adjacent pairs of different codes
    uint64_t mRunEnds = 0; // per split, the levels from its own to the deepest
    // One entry per adjacent pair, with kPad entries of level 1 on both sides: a run that
    // reaches an end of the positions ends there as at a split of a lower level.
    uint8_t* mPairLevel;
    // Bit j % 16 of entry j / 16 set when the split at pair j survives fusing.
    uint16_t* mSurviving;
};
} // namespace kxLinearBVH

#endif
