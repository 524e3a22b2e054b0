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
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    const uint32_t n = static_cast<uint32_t>(mesh.GetIndexBuffer()->GetIndexQuantity() / 3);
    std::vector<kxBBox> boxes(n);
    for (uint32_t t = 0; t < n; ++t)
        for (int c = 0; c < 3; ++c)
            boxes[t].extend(vertices.Position3(static_cast<int>(index[3 * t + static_cast<uint32_t>(c)])));

    kxGenericBVH bvh;
    bvh.mPrimitiveCount = n;
    bvh.mPrimitiveIndices.resize(n);
    std::iota(bvh.mPrimitiveIndices.begin(), bvh.mPrimitiveIndices.end(), 0u);
    auto boxOf = [&](uint32_t first, uint32_t count) {
        kxBBox box;
        for (uint32_t i = first; i < first + count; ++i)
            box.extend(boxes[bvh.mPrimitiveIndices[i]]);
        return box;
    };
    auto centre = [&](uint32_t t, int axis) { return boxes[t].min[axis] + boxes[t].max[axis]; };

    struct Task
    {
        uint32_t node, first, count, depth;
    };
    kxGNode root;
    root.bbox = boxOf(0, n);
    root.offset = kxGNode::eLeafMark;
    root.count = n;
    bvh.mNodes.push_back(root);
    std::deque<Task> tasks{{0, 0, n, 0}};
    while (!tasks.empty())
    {
        Task task;
        if (options.breadthFirst)
        {
            task = tasks.front();
            tasks.pop_front();
        }
        else
        {
            task = tasks.back();
            tasks.pop_back();
        }
        if (task.count <= options.maxLeafSize)
            continue;
        kxBBox centres;
        for (uint32_t i = task.first; i < task.first + task.count; ++i)
        {
            const kxBBox& b = boxes[bvh.mPrimitiveIndices[i]];
            centres.extend(kxBBox(b.getCenter(), b.getCenter()));
        }
        kxBBox::tAxis axis;
        centres.getMaxExtent(axis);
        const int a = kxBBox::component(axis);
        uint32_t leftCount = task.count / 2;
        if (options.emptyLeaves && task.depth % 3 == 1)
            leftCount = 0;
        else
        {
            auto begin = bvh.mPrimitiveIndices.begin() + task.first;
            std::nth_element(begin, begin + leftCount, begin + task.count,
                             [&](uint32_t x, uint32_t y) { return centre(x, a) < centre(y, a); });
        }
        const uint32_t left = static_cast<uint32_t>(bvh.mNodes.size());
        kxGNode children[2];
        const uint32_t firsts[2] = {task.first, task.first + leftCount};
        const uint32_t counts[2] = {leftCount, task.count - leftCount};
        for (int side = 0; side < 2; ++side)
        {
            children[side].bbox = boxOf(firsts[side], counts[side]);
            children[side].offset = firsts[side] | kxGNode::eLeafMark;
            children[side].count = counts[side];
        }
        bvh.mNodes.push_back(children[0]);
        bvh.mNodes.push_back(children[1]);
        bvh.mNodes[task.node].offset = left | axis;
        bvh.mNodes[task.node].count = left + 1;
        // Depth first: the left child is split next, before the right one.
        const Task right{left + 1, firsts[1], counts[1], task.depth + 1};
        const Task leftTask{left, firsts[0], counts[0], task.depth + 1};
        if (options.breadthFirst)
        {
            tasks.push_back(leftTask);
            tasks.push_back(right);
        }
        else
        {
            tasks.push_back(right);
            tasks.push_back(leftTask);
        }
    }
    bvh.mNodeCount = static_cast<uint32_t>(bvh.mNodes.size());
    bvh.mNodes.resize(bvh.mNodes.size() + options.spareRecords);
    return bvh;
}
} // namespace kxtest

#endif
