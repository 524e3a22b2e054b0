#ifndef KXRUNLISTS_H
#define KXRUNLISTS_H

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

/// A leaf of the fused tree: its record and its number of primitives.
struct kxLeafSpan
{
    uint32_t record;
    uint32_t count;
};

/// An emitted hierarchy on its way into a kxGenericBVH, and how its records hang together
/// for the passes that follow emission. Records 0 .. 2 * leafCount - 2 are the tree; the
/// last record is a spare that is never written. Child pairs are numbered in allocation
/// order: pair q holds records 2q + 1 and 2q + 2, and a pair's children pairs come after
/// it, so descending pair order is bottom-up and reads children in array order.
struct kxEmittedTree
{
    uint64_t leafCount = 0;
    kxWorkArray<kxNodeWords> records;   // 2 * leafCount
    kxWorkArray<uint32_t> parentOfPair; // leafCount - 1 entries
    // Filled by fusing, leafCount entries: entry q is the number of child pairs before
    // pair q that survive, and pair q survives when entries q and q + 1 differ.
    kxWorkArray<uint32_t> pairRank;
    // Filled by fusing: the leaf of the fused tree that starts at a position; the entries
    // of positions where no leaf starts are not written.
    kxWorkArray<kxLeafSpan> leafAt;
};

/// The runs of equal code prefixes of sorted Morton codes, level by level, and the
/// level-by-level emission of the hierarchy they describe.
///
/// Level l (1..L) distinguishes code bit L - l; level 0 is the single run of all positions.
/// A run of level l - 1 either stays whole at level l or splits in two where its codes
/// differ in bit L - l. Each split is listed once, at its own level, with the bounds of the
/// run it splits: a run of level l is a run of level l - 1, or one half of one, so the
/// level's own splits are all emission needs. Records are numbered as a walk over every
/// level's full run list would number them: levels in ascending order, positions in
/// ascending order inside a level.
class kxRunLists
{
public:
    static constexpr unsigned kMaxLevels = 63;

    /// levels = 3 * bits per axis, at most kMaxLevels.
    explicit kxRunLists(unsigned levels);

    /// Finds the level of every adjacent pair of sorted codes that differ, and counts each
    /// level's new run ends.
    template <typename Code>
    void count(const Code* sortedCodes, uint32_t quantity);
    /// Lists every level's splits, each with the run it splits. Needs count().
    void list();

    unsigned levels() const { return mLevels; }
    /// Runs of the deepest level: the number of distinct codes (1 for no primitive).
    uint64_t distinctCodes() const;
    /// 8 bytes for every run end of every level 0..L, as if each level's complete list of
    /// run ends were kept. Needs count().
    uint64_t workingBufferBytes() const;

    /// Splits the runs of level - 1 that split at level, giving each split the pair of
    /// records at nextFree: both halves become leaves, the run's own record becomes inner.
    /// Levels must be emitted in ascending order after record 0 was made the root leaf.
    void emitLevel(unsigned level, kxNodeWords* records, uint32_t& nextFree);
    /// Hands the parents of the child pairs over to the tree; the lists are released.
    void finishEmission(kxEmittedTree& tree);

private:
    struct Split
    {
        uint32_t position; // last position of the left half
        uint32_t first;    // first position of the run it splits
        uint32_t last;     // last position of the run it splits
    };

    unsigned mLevels;
    uint32_t mQuantity = 0;
    uint64_t mSplitsAt[kMaxLevels + 1] = {}; // entry 0 counts pairs of equal codes
    uint64_t mListStart[kMaxLevels + 2] = {};
    kxWorkArray<uint8_t> mPairLevel;
    kxWorkArray<Split> mSplits;
    // Node of the current run that ends at a position; other entries are stale.
    kxWorkArray<uint32_t> mRunNode;
    kxWorkArray<uint32_t> mParentOfPair;
};
} // namespace kxLinearBVH

#endif
