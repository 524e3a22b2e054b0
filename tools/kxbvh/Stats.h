// Figures about a built hierarchy, as the library reports them.
#ifndef KXBVH_STATS_H
#define KXBVH_STATS_H

#include <kxGenericBVH.h>
#include <kxQBVH.h>

#include <cstdint>

namespace kxbvh
{
struct BinaryStats
{
    // As kxGenericBVH::getBVHInfo reports them: nodes is the builder's node count (for
    // the linear builder the count before leaf fusing), minLeaf never exceeds it.
    int nodes = 0;
    int leaves = 0;
    int minLeaf = 0;
    int maxLeaf = 0;
    float avgLeaf = 0.0f;
    int largestLeafDepth = 0;  // level of the first largest leaf, root = 0
    // Walked from the root.
    uint32_t treeNodes = 0;
    int depth = 0;  // deepest leaf
    double sahCost = 0.0;  // kxComputeSAHCost: 0 when the root box has no area
    uint64_t memoryBytes = 0;       // getMemoryUsed
    uint64_t references = 0;        // entries of the primitive index array
};

/// Calls getBVHInfo with standard output silenced (it writes its own line there).
BinaryStats binaryStats(const kxGenericBVH& bvh);

struct QbvhStats
{
    uint32_t nodes = 0;
    uint32_t groups = 0;
    uint64_t memoryBytes = 0;  // nodes and triangle blocks
    uint64_t equationBytes = 0;  // nodes, equation and index blocks: what ray queries need
    double sahCost = 0.0;        // kxComputeQBVHSAHCost
};

QbvhStats qbvhStats(const kxQBVH& qbvh);
} // namespace kxbvh

#endif
