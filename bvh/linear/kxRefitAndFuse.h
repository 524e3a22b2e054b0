#ifndef KXREFITANDFUSE_H
#define KXREFITANDFUSE_H

#include "kxCancelInterface.h"
#include "kxGenericBVH.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxRunLevels.h"

#include <cstdint>
#include <vector>

namespace kxLinearBVH
{
// Fusing decides on primitive counts alone, so emission decides it before the boxes
// exist, and only the records that survive it get a box. A fused leaf's box, the union of
// its primitives' boxes in position order, is bit for bit the union of its children's:
// minimum and maximum are exact and keep the first of equal values either way.
//
// Both passes sweep the record arrays instead of recursing from the root: in array order
// the children of neighbouring records lie far apart, and a recursive walk would miss the
// cache on almost every record.

/// Copies the records that survive fusing (decided by emission), renumbered contiguously
/// in their old order, into nodes (exactly sized, boxes empty). Polls once per emitted
/// record, after that and after renumbering; false when cancelled.
bool fuseLeaves(kxEmittedTree& tree, const kx::kxCancelInterfaceReadOnly* cancel, std::vector<kxGNode>& nodes);

/// Gives every record of the fused tree its box: a leaf the union of its primitives'
/// boxes in position order (the empty box for none); an inner record the union of its
/// children's. Polls once per record emitted before fusing (emitted of them) and once per
/// primitive; false when cancelled.
/// Container: the container interface or kxBVHTriangleContainer (see boxOf).
template <typename Container>
bool refit(std::vector<kxGNode>& nodes, uint64_t emitted, const Container& container,
           const uint32_t* primitiveIndexes, uint32_t quantity, const kx::kxCancelInterfaceReadOnly* cancel);
} // namespace kxLinearBVH

#endif
