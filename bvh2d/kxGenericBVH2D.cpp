#include "kxGenericBVH2D.h"

#include "../bvh/kxLeafStatistics.h"

// The 2D readers follow the whole count word to the right child.
static constexpr uint32_t kUnmaskedRightChild = 0xFFFFFFFFu;

void kxGenericBVH2D::getBVHInfoIter(int node, int& leaves, int& minLeaf, int& maxLeaf, int& sumLeaf, int& maxAt,
                                    int level) const
{
    kx::detail::accumulateLeafStatistics(mNodes, kUnmaskedRightChild, node, leaves, minLeaf, maxLeaf, sumLeaf, maxAt,
                                         level);
}

void kxGenericBVH2D::getBVHInfo(int& nodes, int& leaves, int& minLeaf, int& maxLeaf, float& avgLeaf) const
{
    int maxAt = 0;
    kx::detail::leafStatistics(mNodes, mNodeCount, kUnmaskedRightChild, nodes, leaves, minLeaf, maxLeaf, avgLeaf,
                               maxAt);
}
