#ifndef KXRUNLEVELS_H
#define KXRUNLEVELS_H

#include "kxCancelInterface.h"
#include "kxGenericBVH.h"
#include "kxLinearBuildSupport.h"

#include <cstdint>

namespace kxLinearBVH
{
/// The offset and count words of a node record (kxGNode), without its box.
struct kxNodeWords
{
    uint32_t offset;
    uint32_t count;
};

/// An emitted hierarchy on its way into a kxGenericBVH, and how its records hang together
/// for the passes that follow emission. Records 0 .. 2 * leafCount - 2 are the tree; the
/// last record is a spare that is never written. Child pairs are numbered in allocation
/// order: pair q holds records 2q + 1 and 2q + 2, and a pair's children pairs come after
/// it.
struct kxEmittedTree
{
    uint64_t leafCount = 0;
    kxNodeWords* records = nullptr; // 2 * leafCount
    // leafCount entries. Emission marks with 1 every child pair that survives fusing (the
    // last entry is left alone); fusing turns the marks into ranks: entry q the number of
    // surviving pairs before pair q, so that pair q survives when entries q and q + 1 differ.
    uint32_t* pairRank = nullptr;

    /// The arena space of a tree over quantity primitives, at most.
    static size_t footprint(uint32_t quantity);
};

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

    /// levels = 3 * bits per axis, at most kMaxLevels. Takes its memory for quantity
    /// primitives from the arena at once, below everything the sort will take.
    kxRunLevels(unsigned levels, uint32_t quantity, kxBuildArena& arena);
    /// The arena space of quantity primitives.
    static size_t footprint(uint32_t quantity);

    /// Finds the level of every adjacent pair of sorted codes that differ, and counts each
    /// level's splits.
    template <typename Code>
    void count(const Code* sortedCodes);

    unsigned levels() const { return mLevels; }
    /// Runs of the deepest level: the number of distinct codes (1 for no primitive).
    uint64_t distinctCodes() const;
    /// 8 bytes for every run end of every level 0..L, as if each level's complete list of
    /// run ends were kept. Needs count().
    uint64_t workingBufferBytes() const;

    /// Writes the words of every record of the tree into tree.records (2 * distinctCodes()
    /// of them) and marks the child pairs that survive fusing with maxPrimitivesPerLeaf,
    /// taking the tree's arrays from the arena. The records are those that emitting level
    /// after level, then fusing every subtree of at most maxPrimitivesPerLeaf primitives
    /// into a leaf would leave; they are found in one sweep over the positions, polling
    /// levels() times on the way. False when cancelled.
    bool emit(kxEmittedTree& tree, uint32_t maxPrimitivesPerLeaf, kxBuildArena& arena,
              const kx::kxCancelInterfaceReadOnly* cancel);

private:
    unsigned mLevels;
    uint32_t mQuantity = 0;
    uint64_t mSplitsAt[kMaxLevels + 1] = {}; // entry 0 counts pairs of equal codes
    uint8_t* mPairLevel;
};
} // namespace kxLinearBVH

#endif
