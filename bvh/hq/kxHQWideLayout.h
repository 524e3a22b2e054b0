// The second stage of the high-quality builder: four-wide nodes chosen over the binary
// tree, written as the binary hierarchy that kxQBVH::buildFromBVH collapses into them.
#ifndef KXHQWIDELAYOUT_H
#define KXHQWIDELAYOUT_H

#include "kxGenericBVH.h"
#include "kxHQTypes.h"

namespace kxHQ
{
/// Prices of the four-wide walk: one node visit (a test of four boxes) and one group of
/// four triangles. A node costs two cache lines, a sort of four keys and a call; measured
/// on real meshes, pricing it as two groups gives fewer, fuller nodes and faster rays.
constexpr double kNodeVisitCost = 2.0;
constexpr double kGroupTestCost = 1.0;

/// Price of memory beside the walk: one byte per reference of the four-wide tree (nodes,
/// equation and index groups) costs as much as this many group tests per ray. Priced by
/// rays alone, a node fills its free slots with ever smaller leaves, each padding a group
/// of four; at this price leaves stay full for well under one per cent more ray work on
/// the meshes we measured.
constexpr double kCostPerBytePerReference = 0.2;

/// Work memory of the layout per tree node: a cost and a choice for each of 14 covers, the
/// cover of its four-wide node and its reference count.
constexpr uint64_t kLayoutBytesPerNode = 14 * (sizeof(float) + 1) + 1 + sizeof(uint32_t);

/// Chooses, by dynamic programming over the tree, which subtrees become the slots of each
/// four-wide node and which become leaves of at most maxLeaf triangles, minimising the
/// expected cost of a ray that hits the root box (node visits plus group tests, weighted
/// by surface area, plus the price of their memory); then writes into bvh a binary
/// hierarchy whose collapse gives exactly those nodes. A slot that holds another four-wide
/// node is written as a grandchild of its node, and a leaf may also stand as a child with
/// an empty partner slot. A leaf holds each triangle once, however many references of it
/// the subtree had. False when cancelled; cost receives the expected cost of a ray, memory
/// not counted.
bool layOutFourWide(const std::vector<TreeNode>& tree, uint32_t maxLeaf, const kx::kxCancelInterfaceReadOnly* cancel,
                    kxGenericBVH& bvh, double& cost);
} // namespace kxHQ

#endif
