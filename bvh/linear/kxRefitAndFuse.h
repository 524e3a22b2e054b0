#ifndef KXREFITANDFUSE_H
#define KXREFITANDFUSE_H

#include "kxCancelInterface.h"
#include "kxGenericBVH.h"
#include "kxLinearGenericBVHBuilder.h"

#include <cstdint>

namespace kxLinearBVH
{
// Both work on a freshly emitted hierarchy: its records 0 .. mNodeCount - 1 are exactly
// the tree, and every child comes after its parent. Sweeping the records from the last
// down to the root therefore meets children before parents, in array order instead of
// jumping around the tree, with the same polls as a recursive walk.

/// Computes the box of every record bottom-up: a leaf gets the union of its primitives'
/// boxes (the empty box for no primitive), an inner record the union of its children's.
/// Polls on every record and after every primitive box; false when cancelled.
bool refit(kxGenericBVH& bvh, const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
           const uint32_t* primitiveIndexes, const kx::kxCancelInterfaceReadOnly* cancel);

/// Collapses every subtree of at most maxPrimitivesPerLeaf primitives into one leaf,
/// renumbers the surviving records contiguously in their old order, trims the node array
/// to them and logs "fuse <old size> into <new size>". The node count is left alone.
/// False when cancelled; the records are then partly rewritten.
bool fuseLeaves(kxGenericBVH& bvh, uint32_t maxPrimitivesPerLeaf, const kx::kxCancelInterfaceReadOnly* cancel);
} // namespace kxLinearBVH

#endif
