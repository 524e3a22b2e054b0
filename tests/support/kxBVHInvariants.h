#ifndef KXBVHINVARIANTS_H
#define KXBVHINVARIANTS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kxtest
{
/// What a walk from the root found.
struct TreeShape
{
    struct Run
    {
        uint32_t first = 0, count = 0;
    };
    struct Leaf
    {
        uint32_t node, first, count;
        int depth;
    };
    std::vector<Leaf> leaves; // left first
    std::vector<Run> runs;    // per record reached
    uint32_t innerNodes = 0;
    int maxDepth = 0;
};

/// Checks what every builder's tree (3D or 2D) must satisfy, walking from the root: every
/// record reached at most once, right child = left child + 1 in the whole count word, the
/// left child's run directly followed by the right one's, every primitive exactly once,
/// every box exactly the union of its primitives' boxes. Reports the first violation.
template <typename Bvh, typename Box>
TreeShape checkTree(const Bvh& bvh, const std::vector<Box>& boxes)
{
    TreeShape shape;
    shape.runs.resize(bvh.mNodes.size());
    std::vector<uint8_t> reached(bvh.mNodes.size());
    std::string problem;
    const auto fail = [&](const std::string& what) { problem = problem.empty() ? what : problem; };
    std::function<Box(uint32_t, int)> walk = [&](uint32_t k, int depth) {
        Box box;
        if (!problem.empty() || k >= bvh.mNodes.size() || reached[k]++)
            return fail("record " + std::to_string(k) + " missing or reached twice"), box;
        shape.maxDepth = std::max(shape.maxDepth, depth);
        const auto& n = bvh.mNodes[k];
        TreeShape::Run& run = shape.runs[k];
        if (n.offset >= 0xC0000000u)
        {
            run = {n.offset & 0x3FFFFFFFu, n.count};
            shape.leaves.push_back({k, run.first, run.count, depth});
            if (uint64_t(run.first) + run.count > bvh.mPrimitiveIndices.size())
                return fail("leaf " + std::to_string(k) + " runs past the index array"), box;
            for (uint32_t p = run.first; p < run.first + run.count; ++p)
                box.extend(boxes[bvh.mPrimitiveIndices[p]]);
        }
        else
        {
            ++shape.innerNodes;
            const uint32_t left = n.offset & 0x3FFFFFFFu;
            if (n.count != left + 1)
                fail("right child of " + std::to_string(k) + " is not left + 1");
            box = walk(left, depth + 1);
            box.extend(walk(left + 1, depth + 1));
            if (!problem.empty())
                return box;
            const TreeShape::Run l = shape.runs[left], r = shape.runs[left + 1];
            if (l.first + l.count != r.first)
                fail("children of " + std::to_string(k) + " hold runs that are not adjacent");
            run = {l.first, l.count + r.count};
        }
        if (!(n.bbox == box))
            fail("box of record " + std::to_string(k) + " is not the union of its primitives");
        return box;
    };
    if (!bvh.mNodes.empty())
        walk(0, 0);
    std::vector<uint32_t> sorted = bvh.mPrimitiveIndices;
    std::sort(sorted.begin(), sorted.end());
    for (uint32_t i = 0; i < sorted.size(); ++i)
        if (sorted[i] != i)
            fail("primitive index array is not a permutation");
    if (bvh.mNodes.empty() || bvh.mPrimitiveCount != boxes.size() || sorted.size() != boxes.size() ||
        shape.runs[0].first != 0 || shape.runs[0].count != boxes.size())
        fail("the root does not hold every primitive");
    EXPECT_EQ(problem, "");
    return shape;
}
} // namespace kxtest

#endif
