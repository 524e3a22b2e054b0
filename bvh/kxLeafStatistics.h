#ifndef KXLEAFSTATISTICS_H
#define KXLEAFSTATISTICS_H

#include <cstdint>
#include <vector>

namespace kx
{
namespace detail
{
/// Left-first walk shared by the 3D and 2D hierarchies; they differ only in how much of
/// an inner node's count word names the right child.
template <typename Node>
void accumulateLeafStatistics(const std::vector<Node>& nodes, uint32_t rightChildMask, int node, int& leaves,
                              int& minLeaf, int& maxLeaf, int& sumLeaf, int& maxAt, int level)
{
    const Node& n = nodes[static_cast<uint32_t>(node)];
    if (n.offset < 0xC0000000u)
    {
        accumulateLeafStatistics(nodes, rightChildMask, static_cast<int>(n.offset & 0x3FFFFFFFu), leaves, minLeaf,
                                 maxLeaf, sumLeaf, maxAt, level + 1);
        accumulateLeafStatistics(nodes, rightChildMask, static_cast<int>(n.count & rightChildMask), leaves,
                                 minLeaf, maxLeaf, sumLeaf, maxAt, level + 1);
        return;
    }
    const int size = static_cast<int>(n.count);
    ++leaves;
    sumLeaf += size;
    if (size < minLeaf)
        minLeaf = size;
    if (size > maxLeaf)
    {
        maxLeaf = size;
        // Unmasked on purpose: a node index of 2^24 or more spills into the level byte.
        maxAt = static_cast<int>((static_cast<uint32_t>(level) << 24) | static_cast<uint32_t>(node));
    }
}

/// Statistics of the whole tree. minLeaf deliberately starts at the node count, not at a
/// large sentinel.
template <typename Node>
void leafStatistics(const std::vector<Node>& nodes, uint32_t nodeCount, uint32_t rightChildMask, int& outNodes,
                    int& leaves, int& minLeaf, int& maxLeaf, float& avgLeaf, int& maxAt)
{
    outNodes = static_cast<int>(nodeCount);
    leaves = 0;
    minLeaf = static_cast<int>(nodeCount);
    maxLeaf = 0;
    int sum = 0;
    maxAt = 0;
    accumulateLeafStatistics(nodes, rightChildMask, 0, leaves, minLeaf, maxLeaf, sum, maxAt, 0);
    avgLeaf = static_cast<float>(sum) / static_cast<float>(leaves);
}
} // namespace detail
} // namespace kx

#endif
