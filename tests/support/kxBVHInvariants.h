#ifndef KXBVHINVARIANTS_H
#define KXBVHINVARIANTS_H

#include "kxGenericBVH.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace kxtest
{
/// What a walk from the root found.
struct TreeShape
{
    uint32_t innerNodes = 0;
    uint32_t leaves = 0;
    uint32_t emptyLeaves = 0;
    int maxDepth = 0;
    struct Leaf
    {
        uint32_t node;
        uint32_t first;
        uint32_t count;
        int depth;
    };
    std::vector<Leaf> leafList; // left-first order
    struct Run
    {
        uint32_t first = 0;
        uint32_t count = 0;
    };
    std::vector<Run> runs; // per record reached
};

/// Checks the node-store invariants every builder must keep, walking from the root:
/// right child = left child + 1 and inside the array, no record reached twice, the left
/// child's run directly followed by the right child's, every primitive exactly once, and
/// every box bounding its primitives (equal to their union when exactBoxes).
class TreeChecker
{
public:
    TreeChecker(const kxGenericBVH& bvh, const std::vector<kxBBox>& boxes, bool exactBoxes)
        : mBvh(bvh), mBoxes(boxes), mExact(exactBoxes), mReached(bvh.mNodes.size(), 0)
    {
    }

    TreeShape run()
    {
        EXPECT_EQ(mBvh.mPrimitiveCount, mBoxes.size());
        EXPECT_EQ(mBvh.mPrimitiveIndices.size(), mBoxes.size());
        if (mBvh.mNodes.empty())
        {
            ADD_FAILURE() << "no root";
            return mShape;
        }
        mShape.runs.resize(mBvh.mNodes.size());
        uint32_t first = 0, count = 0;
        kxBBox box;
        walk(0, 0, first, count, box);
        EXPECT_EQ(first, 0u);
        EXPECT_EQ(count, mBoxes.size());
        std::vector<int> seen(mBoxes.size(), 0);
        size_t wrong = 0;
        for (uint32_t p : mBvh.mPrimitiveIndices)
        {
            if (p < seen.size())
                ++seen[p];
            else
                ++wrong;
        }
        for (int s : seen)
            wrong += s != 1;
        EXPECT_EQ(wrong, 0u) << "primitives missing, repeated or out of range";
        return mShape;
    }

private:
    static bool contains(const kxBBox& outer, const kxBBox& inner)
    {
        for (int a = 0; a < 3; ++a)
            if (!(outer.min[a] <= inner.min[a] && inner.max[a] <= outer.max[a]))
                return false;
        return true;
    }

    // Returns the subtree's run and the union of its primitive boxes.
    void walk(uint32_t node, int depth, uint32_t& first, uint32_t& count, kxBBox& box)
    {
        if (mFailures > 0)
            return;
        if (node >= mBvh.mNodes.size() || mReached[node]++)
        {
            ++mFailures;
            ADD_FAILURE() << "record " << node << " out of range or reached twice";
            return;
        }
        mShape.maxDepth = std::max(mShape.maxDepth, depth);
        const kxGNode& n = mBvh.mNodes[node];
        if (n.offset >= kxGNode::eLeafMark)
        {
            first = n.offset & kxGNode::eIndexMask;
            count = n.count;
            ++mShape.leaves;
            mShape.emptyLeaves += count == 0;
            mShape.leafList.push_back({node, first, count, depth});
            if (uint64_t(first) + count > mBvh.mPrimitiveIndices.size())
            {
                ++mFailures;
                ADD_FAILURE() << "leaf " << node << " runs past the index array";
                return;
            }
            for (uint32_t p = first; p < first + count; ++p)
                box.extend(mBoxes[mBvh.mPrimitiveIndices[p]]);
        }
        else
        {
            ++mShape.innerNodes;
            const uint32_t left = n.offset & kxGNode::eIndexMask;
            const uint32_t right = n.count & kxGNode::eRightChildMask;
            if (right != left + 1)
            {
                ++mFailures;
                ADD_FAILURE() << "node " << node << ": right child " << right << " is not left " << left << " + 1";
                return;
            }
            uint32_t lf = 0, lc = 0, rf = 0, rc = 0;
            kxBBox lb, rb;
            walk(left, depth + 1, lf, lc, lb);
            walk(right, depth + 1, rf, rc, rb);
            if (mFailures > 0)
                return;
            if (lf + lc != rf)
            {
                ++mFailures;
                ADD_FAILURE() << "node " << node << ": runs [" << lf << "+" << lc << ") and [" << rf << "+" << rc
                              << ") are not adjacent";
                return;
            }
            first = lf;
            count = lc + rc;
            box = lb;
            box.extend(rb);
        }
        mShape.runs[node] = {first, count};
        const bool ok = mExact ? (count == 0 ? n.bbox == kxBBox() : n.bbox == box) : contains(n.bbox, box);
        if (!ok)
        {
            ++mFailures;
            ADD_FAILURE() << "node " << node << " has box " << n.bbox << ", its primitives " << box;
        }
    }

    const kxGenericBVH& mBvh;
    const std::vector<kxBBox>& mBoxes;
    bool mExact;
    std::vector<uint8_t> mReached;
    int mFailures = 0;
    TreeShape mShape;
};
} // namespace kxtest

#endif
