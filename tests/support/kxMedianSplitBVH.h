// A plain object-median builder for tests: an independent producer of kxGenericBVH
// records in the shared node encoding, with knobs for the shapes readers must handle.
#ifndef KXMEDIANSPLITBVH_H
#define KXMEDIANSPLITBVH_H

#include "kxBBox.h"
#include "kxGenericBVH.h"
#include "kxTriMesh.h"

#include <algorithm>
#include <deque>
#include <numeric>
#include <vector>

namespace kxtest
{
struct MedianSplitOptions
{
    unsigned int maxLeafSize = 4;
    /// Allocate child pairs level by level (as the linear builder does) instead of depth first.
    bool breadthFirst = false;
    /// Every third level splits off an empty leaf instead of halving.
    bool emptyLeaves = false;
    /// Extra default records after the tree, as a builder that grows its array in steps leaves.
    unsigned int spareRecords = 0;
};

inline kxGenericBVH buildMedianSplitBVH(const kx::kxTriMesh& mesh, const MedianSplitOptions& options = {})
{
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    const auto n = static_cast<uint32_t>(mesh.GetIndexBuffer()->GetIndexQuantity() / 3);
    std::vector<kxBBox> boxes(n);
    for (uint32_t i = 0; i < 3 * n; ++i)
        boxes[i / 3].extend(mesh.GetVertexBuffer()->Position3(static_cast<int>(index[i])));
    kxGenericBVH bvh;
    bvh.mPrimitiveCount = n;
    bvh.mPrimitiveIndices.resize(n);
    std::iota(bvh.mPrimitiveIndices.begin(), bvh.mPrimitiveIndices.end(), 0u);
    struct Task
    {
        uint32_t node, first, count, depth;
    };
    // Every record starts as a leaf over its run.
    const auto addLeaf = [&](uint32_t first, uint32_t count, uint32_t depth) {
        bvh.mNodes.push_back({kxBBox(), first | kxGNode::eLeafMark, count});
        for (uint32_t i = first; i < first + count; ++i)
            bvh.mNodes.back().bbox.extend(boxes[bvh.mPrimitiveIndices[i]]);
        return Task{static_cast<uint32_t>(bvh.mNodes.size() - 1), first, count, depth};
    };
    std::deque<Task> tasks{addLeaf(0, n, 0)};
    while (!tasks.empty())
    {
        const Task task = options.breadthFirst ? tasks.front() : tasks.back();
        options.breadthFirst ? tasks.pop_front() : tasks.pop_back();
        if (task.count <= options.maxLeafSize)
            continue;
        kxBBox centres;
        for (uint32_t i = task.first; i < task.first + task.count; ++i)
            centres.extend(boxes[bvh.mPrimitiveIndices[i]].getCenter());
        kxBBox::tAxis axis;
        centres.getMaxExtent(axis);
        const int a = kxBBox::component(axis);
        const uint32_t leftCount = options.emptyLeaves && task.depth % 3 == 1 ? 0 : task.count / 2;
        const auto begin = bvh.mPrimitiveIndices.begin() + task.first;
        if (leftCount > 0)
            std::nth_element(begin, begin + leftCount, begin + task.count, [&](uint32_t x, uint32_t y) {
                return boxes[x].min[a] + boxes[x].max[a] < boxes[y].min[a] + boxes[y].max[a];
            });
        const Task left = addLeaf(task.first, leftCount, task.depth + 1);
        const Task right = addLeaf(task.first + leftCount, task.count - leftCount, task.depth + 1);
        bvh.mNodes[task.node].offset = left.node | axis;
        bvh.mNodes[task.node].count = right.node;
        // Depth first, the left child is split next.
        tasks.push_back(options.breadthFirst ? left : right);
        tasks.push_back(options.breadthFirst ? right : left);
    }
    bvh.mNodeCount = static_cast<uint32_t>(bvh.mNodes.size());
    bvh.mNodes.resize(bvh.mNodes.size() + options.spareRecords);
    return bvh;
}
} // namespace kxtest

#endif
