#ifndef KXREFITANDFUSE_H
#define KXREFITANDFUSE_H

#include "kxCancelInterface.h"
#include "kxGenericBVH.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxRunLists.h"

#include <cstdint>

namespace kxLinearBVH
{
// Both passes walk a freshly emitted hierarchy through the shape that emission recorded
// instead of recursing from the root: in array order the children of neighbouring
// records lie far apart, and a recursive walk would miss the cache on almost every
// record. They poll as often as a walk that polls on every record.

/// Computes the box of every record bottom-up: a leaf gets the union of its primitives'
/// boxes (the empty box for no primitive), visited by ascending position so that the
/// container is read in code order; an inner record gets the union of its children's.
/// Polls on every record and after every primitive box; false when cancelled.
bool refit(kxEmittedTree& tree, const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
           const uint32_t* primitiveIndexes, const kx::kxCancelInterfaceReadOnly* cancel);

/// Collapses every subtree of at most maxPrimitivesPerLeaf primitives into one leaf,
/// renumbers the surviving records contiguously in their old order and makes them, exactly
/// sized, the node array of bvh; logs "fuse <emitted records> into <kept records>". The
/// node count is left alone. False when cancelled; bvh's node array is then untouched.
bool fuseLeaves(kxEmittedTree& tree, kxGenericBVH& bvh, uint32_t maxPrimitivesPerLeaf,
                const kx::kxCancelInterfaceReadOnly* cancel);
} // namespace kxLinearBVH

#endif
