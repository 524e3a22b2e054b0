#include "kxHQTopDown.h"

#include "kxHQClip.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

namespace kxHQ
{
namespace
{
constexpr int kBins = 32;
// Spatial splits are searched on nodes of this many references or more, along the
// widest axis of the node's box: that is where they pay, at a fraction of the search.
constexpr uint32_t kSpatialMinimum = 1024;
constexpr int kSpatialBins = 32;
// Nodes this small are split at the best of all positions of a sort by centroid.
constexpr uint32_t kSweepLimit = 16;
// Spatial splits are tried only where the best object split leaves its children
// overlapping by more than this share of the root's area (Stich et al.'s alpha).
constexpr double kOverlapShare = 1e-5;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Task
{
    uint32_t node;
    uint32_t begin;
    uint32_t count;
    uint64_t allowance;  // references this subtree may add
};

enum class Kind
{
    eNone,
    eBinned,
    eSorted,   // the first `count` references of a sort by centroid go left
    eSpatial
};

struct Split
{
    Kind kind = Kind::eNone;
    double cost = kInfinity;
    int axis = 0;
    uint32_t bin = 0;       // binned: first bin of the right side
    uint32_t count = 0;     // sorted: references on the left
    double lo = 0.0;        // binned: the axis' first bin starts here ...
    double scale = 0.0;     // ... and this many bins cover a unit
    float position = 0.0f;  // spatial: the plane
    kxBBox left, right;
};

// Bin of x among kBins equal parts starting at lo; NaN lands in bin 0.
inline int binOf(float x, double lo, double scale)
{
    const double k = (double(x) - lo) * scale;
    if (!(k > 0.0))
        return 0;
    return k >= kBins - 1 ? kBins - 1 : int(k);
}

// A total order by centroid, whatever the boxes hold.
inline float sortKey(const Reference& r, int axis)
{
    const float c = centroid(r.box, axis);
    return c == c ? c : -std::numeric_limits<float>::infinity();
}

struct ByCentroid
{
    int axis;
    bool operator()(const Reference& a, const Reference& b) const
    {
        const float ka = sortKey(a, axis), kb = sortKey(b, axis);
        return ka < kb || (ka == kb && a.triangle < b.triangle);
    }
};

kxBBox boxOf(const Reference* refs, uint32_t n)
{
    kxBBox box;
    for (uint32_t i = 0; i < n; ++i)
        box.extend(refs[i].box);
    return box;
}

kxBBox intersection(const kxBBox& a, const kxBBox& b)
{
    kxBBox out;
    for (int k = 0; k < 3; ++k)
    {
        out.min[k] = std::max(a.min[k], b.min[k]);
        out.max[k] = std::min(a.max[k], b.max[k]);
    }
    return out;
}

class TopDown
{
public:
    TopDown(const std::vector<Triangle>& triangles, std::vector<Reference>& refs, const TopDownSettings& settings,
            const kx::kxCancelInterfaceReadOnly* cancel, std::vector<TreeNode>& tree)
        : mTriangles(triangles), mRefs(refs), mSettings(settings), mCancel(cancel), mTree(tree)
    {
        mClippable.resize(triangles.size());
        for (size_t t = 0; t < triangles.size(); ++t)
            mClippable[t] = isClippable(triangles[t]);
    }

    bool run()
    {
        const auto n = static_cast<uint32_t>(mRefs.size());
        mTree.clear();
        mTree.push_back({boxOf(mRefs.data(), n), TreeNode::kLeaf, 0});
        mOverlapLimit = kOverlapShare * halfArea(mTree[0].box);
        // Pending subtrees hold at most the references of the finished tree.
        mRefs.reserve(std::max<uint64_t>(mSettings.referenceLimit, n));
        const uint64_t allowance = mSettings.spatialSplits ? mSettings.referenceLimit - std::min<uint64_t>(mSettings.referenceLimit, n) : 0;
        mTasks.push_back({0, 0, n, allowance});
        while (!mTasks.empty())
        {
            const Task task = mTasks.back();
            mTasks.pop_back();
            assert(task.begin + task.count == mRefs.size());
            if (task.count <= 1)
            {
                mTree[task.node].left = TreeNode::kLeaf;
                mTree[task.node].triangle = task.count ? mRefs[task.begin].triangle : 0u;
                mRefs.resize(task.begin);
                continue;
            }
            if (cancelled(mCancel))
                return false;
            split(task);
        }
        return true;
    }

private:
    void split(const Task& task)
    {
        Reference* refs = mRefs.data() + task.begin;
        const uint32_t n = task.count;
        Split best = n <= kSweepLimit ? sortedSplit(refs, n) : binnedSplit(refs, n);
        if (task.allowance > 0 && n >= kSpatialMinimum && (best.kind == Kind::eNone || halfArea(intersection(best.left, best.right)) > mOverlapLimit))
        {
            const Split spatial = spatialSplit(mTree[task.node].box, refs, n);
            if (spatial.cost < best.cost && applySpatial(task, spatial))
                return;
        }
        uint32_t nLeft = 0;
        if (best.kind == Kind::eBinned)
        {
            const Reference* middle = std::partition(refs, refs + n, [&](const Reference& r) {
                return binOf(centroid(r.box, best.axis), best.lo, best.scale) < int(best.bin);
            });
            nLeft = static_cast<uint32_t>(middle - refs);
        }
        else if (best.kind == Kind::eSorted)
        {
            std::sort(refs, refs + n, ByCentroid{best.axis});
            nLeft = best.count;
        }
        if (nLeft == 0 || nLeft == n)
            nLeft = splitByCount(refs, n);
        addChildren(task, nLeft, n - nLeft, task.allowance);
    }

    // Where nothing separates the references: halves of a sort by centroid along the
    // axis where centroids spread most.
    uint32_t splitByCount(Reference* refs, uint32_t n)
    {
        float lo[3], hi[3];
        for (int a = 0; a < 3; ++a)
            lo[a] = hi[a] = sortKey(refs[0], a);
        for (uint32_t i = 1; i < n; ++i)
            for (int a = 0; a < 3; ++a)
            {
                lo[a] = std::min(lo[a], sortKey(refs[i], a));
                hi[a] = std::max(hi[a], sortKey(refs[i], a));
            }
        int axis = 0;
        double widest = -1.0;
        for (int a = 0; a < 3; ++a)
        {
            const double extent = double(hi[a]) - lo[a];
            if (extent > widest)
            {
                widest = extent;
                axis = a;
            }
        }
        std::nth_element(refs, refs + n / 2, refs + n, ByCentroid{axis});
        return n / 2;
    }

    void addChildren(const Task& task, uint32_t nLeft, uint32_t nRight, uint64_t allowance)
    {
        const auto left = static_cast<uint32_t>(mTree.size());
        const Reference* refs = mRefs.data() + task.begin;
        mTree.push_back({boxOf(refs, nLeft), TreeNode::kLeaf, 0});
        mTree.push_back({boxOf(refs + nLeft, nRight), TreeNode::kLeaf, 0});
        mTree[task.node].left = left;
        const uint64_t leftAllowance = allowance * nLeft / (uint64_t(nLeft) + nRight);
        mTasks.push_back({left, task.begin, nLeft, leftAllowance});
        mTasks.push_back({left + 1, task.begin + nLeft, nRight, allowance - leftAllowance});
    }

    Split binnedSplit(const Reference* refs, uint32_t n)
    {
        float lo[3] = {HUGE_VALF, HUGE_VALF, HUGE_VALF}, hi[3] = {-HUGE_VALF, -HUGE_VALF, -HUGE_VALF};
        for (uint32_t i = 0; i < n; ++i)
            for (int a = 0; a < 3; ++a)
            {
                const float c = centroid(refs[i].box, a);
                lo[a] = std::min(lo[a], c);
                hi[a] = std::max(hi[a], c);
            }
        double scale[3];
        for (int a = 0; a < 3; ++a)
        {
            const double extent = double(hi[a]) - lo[a];
            scale[a] = extent > 0.0 && std::isfinite(extent) ? kBins / extent : 0.0;
        }
        uint32_t counts[3][kBins] = {};
        kxBBox boxes[3][kBins];
        for (uint32_t i = 0; i < n; ++i)
            for (int a = 0; a < 3; ++a)
            {
                if (scale[a] == 0.0)
                    continue;
                const int b = binOf(centroid(refs[i].box, a), lo[a], scale[a]);
                ++counts[a][b];
                boxes[a][b].extend(refs[i].box);
            }
        Split best;
        for (int a = 0; a < 3; ++a)
        {
            if (scale[a] == 0.0)
                continue;
            kxBBox right[kBins];
            uint32_t rightCount[kBins];
            kxBBox accumulated;
            uint32_t count = 0;
            for (int b = kBins - 1; b > 0; --b)
            {
                accumulated.extend(boxes[a][b]);
                count += counts[a][b];
                right[b] = accumulated;
                rightCount[b] = count;
            }
            kxBBox left;
            uint32_t leftCount = 0;
            for (int b = 1; b < kBins; ++b)
            {
                left.extend(boxes[a][b - 1]);
                leftCount += counts[a][b - 1];
                if (leftCount == 0 || rightCount[b] == 0)
                    continue;
                const double cost = halfArea(left) * leftCount + halfArea(right[b]) * rightCount[b];
                if (cost < best.cost)
                {
                    best.kind = Kind::eBinned;
                    best.cost = cost;
                    best.axis = a;
                    best.bin = uint32_t(b);
                    best.lo = lo[a];
                    best.scale = scale[a];
                    best.left = left;
                    best.right = right[b];
                }
            }
        }
        return best;
    }

    Split sortedSplit(const Reference* refs, uint32_t n)
    {
        Split best;
        Reference sorted[kSweepLimit];
        kxBBox right[kSweepLimit];
        for (int a = 0; a < 3; ++a)
        {
            std::copy(refs, refs + n, sorted);
            std::sort(sorted, sorted + n, ByCentroid{a});
            kxBBox accumulated;
            for (uint32_t i = n; i-- > 1;)
            {
                accumulated.extend(sorted[i].box);
                right[i] = accumulated;
            }
            kxBBox left;
            for (uint32_t i = 1; i < n; ++i)
            {
                left.extend(sorted[i - 1].box);
                // Small nodes end up as leaves, stored in groups of four: counting groups
                // makes them come in fours.
                const double cost = halfArea(left) * ((i + 3) / 4) + halfArea(right[i]) * ((n - i + 3) / 4);
                if (cost < best.cost)
                {
                    best.kind = Kind::eSorted;
                    best.cost = cost;
                    best.axis = a;
                    best.count = i;
                    best.left = left;
                    best.right = right[i];
                }
            }
        }
        return best;
    }

    Split spatialSplit(const kxBBox& box, const Reference* refs, uint32_t n)
    {
        Split best;
        for (uint32_t i = 0; i < n; ++i)
            if (!mClippable[refs[i].triangle])
                return best;
        int widest = 0;
        for (int a = 1; a < 3; ++a)
            if (double(box.max[a]) - box.min[a] > double(box.max[widest]) - box.min[widest])
                widest = a;
        for (int a = 0; a < 3; ++a)
        {
            if (a != widest)
                continue;
            const double lo = box.min[a], extent = double(box.max[a]) - lo;
            if (!(extent > 0.0) || !std::isfinite(extent))
                continue;
            // planes[j] separates bin j - 1 from bin j.
            const int S = kSpatialBins;
            float planes[kBins + 1];
            planes[0] = -HUGE_VALF;
            planes[S] = HUGE_VALF;
            for (int j = 1; j < S; ++j)
                planes[j] = static_cast<float>(lo + extent * j / S);
            uint32_t entries[kBins] = {}, exits[kBins] = {};
            kxBBox bins[kBins];
            for (uint32_t i = 0; i < n; ++i)
            {
                const Reference& r = refs[i];
                const int first = int(std::upper_bound(planes + 1, planes + S, r.box.min[a]) - (planes + 1));
                const int last = std::max(first, int(std::lower_bound(planes + 1, planes + S, r.box.max[a]) - (planes + 1)));
                ++entries[first];
                ++exits[last];
                kxBBox rest = r.box;
                for (int j = first; j < last && !isEmpty(rest); ++j)
                {
                    kxBBox part;
                    splitReference(mTriangles[r.triangle], rest, a, planes[j + 1], part, rest);
                    bins[j].extend(part);
                }
                bins[last].extend(rest);
            }
            kxBBox right[kBins];
            uint32_t rightCount[kBins];
            kxBBox accumulated;
            uint32_t count = 0;
            for (int b = S - 1; b > 0; --b)
            {
                accumulated.extend(bins[b]);
                count += exits[b];
                right[b] = accumulated;
                rightCount[b] = count;
            }
            kxBBox left;
            uint32_t leftCount = 0;
            for (int b = 1; b < S; ++b)
            {
                left.extend(bins[b - 1]);
                leftCount += entries[b - 1];
                if (leftCount == 0 || rightCount[b] == 0 || !(planes[b] > planes[b - 1]) || !(planes[b] > box.min[a]) ||
                    !(planes[b] < box.max[a]))
                    continue;
                const double cost = halfArea(left) * leftCount + halfArea(right[b]) * rightCount[b];
                if (cost < best.cost)
                {
                    best.kind = Kind::eSpatial;
                    best.cost = cost;
                    best.axis = a;
                    best.position = planes[b];
                }
            }
        }
        return best;
    }

    // Cuts the references at the plane; false, with nothing changed, when the cut would
    // leave a side empty or as large as the node, or exceed the node's allowance.
    bool applySpatial(const Task& task, const Split& split)
    {
        const int a = split.axis;
        const float p = split.position;
        mLeft.clear();
        mRight.clear();
        const Reference* refs = mRefs.data() + task.begin;
        for (uint32_t i = 0; i < task.count; ++i)
        {
            const Reference& r = refs[i];
            if (r.box.max[a] <= p)
                mLeft.push_back(r);
            else if (r.box.min[a] >= p)
                mRight.push_back(r);
            else
            {
                kxBBox l, rr;
                splitReference(mTriangles[r.triangle], r.box, a, p, l, rr);
                if (!isEmpty(l))
                    mLeft.push_back({l, r.triangle});
                if (!isEmpty(rr))
                    mRight.push_back({rr, r.triangle});
            }
        }
        const uint64_t nLeft = mLeft.size(), nRight = mRight.size(), n = task.count;
        if (nLeft == 0 || nRight == 0 || nLeft >= n || nRight >= n || nLeft + nRight - n > task.allowance)
            return false;
        mRefs.resize(task.begin);
        mRefs.insert(mRefs.end(), mLeft.begin(), mLeft.end());
        mRefs.insert(mRefs.end(), mRight.begin(), mRight.end());
        addChildren(task, uint32_t(nLeft), uint32_t(nRight), task.allowance - (nLeft + nRight - n));
        return true;
    }

    const std::vector<Triangle>& mTriangles;
    std::vector<Reference>& mRefs;
    const TopDownSettings& mSettings;
    const kx::kxCancelInterfaceReadOnly* mCancel;
    std::vector<TreeNode>& mTree;
    std::vector<uint8_t> mClippable;
    std::vector<Task> mTasks;
    std::vector<Reference> mLeft, mRight;
    double mOverlapLimit = 0.0;
};
} // namespace

bool buildTopDown(const std::vector<Triangle>& triangles, std::vector<Reference>& references,
                  const TopDownSettings& settings, const kx::kxCancelInterfaceReadOnly* cancel,
                  std::vector<TreeNode>& tree)
{
    return TopDown(triangles, references, settings, cancel, tree).run();
}
} // namespace kxHQ
