#include "kxGenericBVH.h"
#include "kxLeafStatistics.h"

#include <iostream>

void kxGenericBVH::printNode(unsigned int node, unsigned int depth) const
{
    for (unsigned int d = 0; d < depth; ++d)
        std::cout << '|';
    const kxGNode& n = mNodes[node];
    if (n.offset < kxGNode::eLeafMark)
    {
        std::cout << "N ID " << node << ' ' << n.bbox << std::endl;
        printNode(n.offset & kxGNode::eIndexMask, depth + 1);
        printNode(n.count & kxGNode::eRightChildMask, depth + 1);
        return;
    }
    std::cout << "L ID " << node << ' ' << n.bbox << std::endl;
    for (unsigned int d = 0; d < depth; ++d)
        std::cout << '|';
    const uint32_t first = n.offset & kxGNode::eIndexMask;
    for (uint32_t p = first; p < first + n.count; ++p)
        std::cout << mPrimitiveIndices[p] << ' ';
    std::cout << std::endl;
}

void kxGenericBVH::getBVHInfoIter(int node, int& leaves, int& minLeaf, int& maxLeaf, int& sumLeaf, int& maxAt,
                                  int level) const
{
    kx::detail::accumulateLeafStatistics(mNodes, kxGNode::eRightChildMask, node, leaves, minLeaf, maxLeaf, sumLeaf,
                                         maxAt, level);
}

void kxGenericBVH::getBVHInfo(int& nodes, int& leaves, int& minLeaf, int& maxLeaf, float& avgLeaf) const
{
    int maxAt = 0;
    kx::detail::leafStatistics(mNodes, mNodeCount, kxGNode::eRightChildMask, nodes, leaves, minLeaf, maxLeaf,
                               avgLeaf, maxAt);
    std::cout << "max at lvl:" << static_cast<int>(static_cast<int8_t>(static_cast<uint32_t>(maxAt) >> 24))
              << std::endl;
}

std::ostream& operator<<(std::ostream& os, const kxGenericBVH& bvh)
{
    int nodes, leaves, minLeaf, maxLeaf;
    float avgLeaf;
    bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avgLeaf);
    return os << nodes << " nodes. " << leaves << '(' << maxLeaf << ',' << minLeaf << ','
              << static_cast<double>(avgLeaf) << ") leaves (max, min, avg):";
}
