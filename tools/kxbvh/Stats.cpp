#include "Stats.h"

#include <kxGenericBVHBuilder.h>
#include <kxQBVHStatistics.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <utility>
#include <vector>

namespace kxbvh
{
namespace
{
/// Puts std::cout's buffer aside for as long as it lives.
class SilenceStdout
{
public:
    SilenceStdout() : mSaved(std::cout.rdbuf(mSink.rdbuf())) {}
    ~SilenceStdout() { std::cout.rdbuf(mSaved); }
    SilenceStdout(const SilenceStdout&) = delete;
    SilenceStdout& operator=(const SilenceStdout&) = delete;

private:
    std::ostringstream mSink;
    std::streambuf* mSaved;
};

bool isLeaf(const kxGNode& node)
{
    return node.offset >= kxGNode::eLeafMark;
}

template <typename Visit>
void walk(const kxGenericBVH& bvh, Visit&& visit)
{
    if (bvh.mNodes.empty())
        return;
    std::vector<std::pair<uint32_t, int>> stack{{0u, 0}};
    while (!stack.empty())
    {
        const auto [index, level] = stack.back();
        stack.pop_back();
        const kxGNode& node = bvh.mNodes[index];
        visit(node, level);
        if (!isLeaf(node))
        {
            stack.emplace_back(node.count & kxGNode::eRightChildMask, level + 1);
            stack.emplace_back(node.offset & kxGNode::eIndexMask, level + 1);
        }
    }
}
} // namespace

BinaryStats binaryStats(const kxGenericBVH& bvh)
{
    BinaryStats stats;
    if (bvh.mNodes.empty())
        return stats;
    {
        SilenceStdout silence;
        bvh.getBVHInfo(stats.nodes, stats.leaves, stats.minLeaf, stats.maxLeaf, stats.avgLeaf);
    }
    // getBVHInfo keeps the level to itself (it only prints it): walk again the same way.
    int leaves = 0, minLeaf = static_cast<int>(bvh.mNodeCount), maxLeaf = 0, sum = 0, maxAt = 0;
    bvh.getBVHInfoIter(0, leaves, minLeaf, maxLeaf, sum, maxAt, 0);
    stats.largestLeafDepth = static_cast<signed char>(static_cast<uint32_t>(maxAt) >> 24);

    walk(bvh, [&](const kxGNode& node, int level) {
        ++stats.treeNodes;
        if (isLeaf(node))
            stats.depth = std::max(stats.depth, level);
    });
    stats.sahCost = kxComputeSAHCost(bvh);
    stats.memoryBytes = bvh.getMemoryUsed();
    stats.references = bvh.mPrimitiveIndices.size();
    return stats;
}

QbvhStats qbvhStats(const kxQBVH& qbvh)
{
    QbvhStats stats;
    stats.nodes = qbvh.getNodeCount();
    stats.groups = qbvh.getGroupCount();
    uint64_t perGroup = 0;
    if (qbvh.getTriangleVertices())
        perGroup += sizeof(kxQBVH::tSOATriangleVertices);
    if (qbvh.getTriangleEquations())
        perGroup += sizeof(kxQBVH::tSOATriangleEquations);
    if (qbvh.getTriangleIndices())
        perGroup += sizeof(kxQBVH::tSOATriangleIndices);
    stats.memoryBytes = uint64_t(stats.nodes) * sizeof(kxQBVH::tQBVHNode) + uint64_t(stats.groups) * perGroup;
    stats.equationBytes = uint64_t(stats.nodes) * sizeof(kxQBVH::tQBVHNode) +
                          uint64_t(stats.groups) * (sizeof(kxQBVH::tSOATriangleEquations) +
                                                    sizeof(kxQBVH::tSOATriangleIndices));
    stats.sahCost = kxComputeQBVHSAHCost(qbvh);
    return stats;
}
} // namespace kxbvh
