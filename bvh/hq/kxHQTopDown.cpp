#include "kxHQTopDown.h"

#include "kxHQClip.h"

#include "kxHQLanes.h"

#include "../kxBoxLanes.h"

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
constexpr int kSpatialBins = 16;
// Nodes this small are split at the best of all positions of a sort by centroid.
constexpr uint32_t kSweepLimit = 16;
// ... preferring a split into whole groups of four on one side where it costs at most this
// share more: leaves then fill their groups.
constexpr double kWholeGroupsMargin = 0.2;
// Spatial splits are tried only where the best object split leaves its children
// overlapping by more than this share of the root's area (Stich et al.'s alpha). Below it
// they mostly add references, each a share of a group of four, for a walk less than half
// a per cent shorter on the meshes we measured; 1e-5 searched far more nodes for the same
// trees.
constexpr double kOverlapShare = 1e-2;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Task
{
    uint32_t node;
    uint32_t begin;
    uint32_t count;
    uint64_t allowance; // references this subtree may add
};

enum class Kind
{
    eNone,
    eBinned,
    eSorted, // the first `count` references of a sort by centroid go left
    eSpatial
};

inline __m128 centreOf(const kxBBox& box)
{
    return kxHQLanes::centre(kxBoxLanes::load3(box.min), kxBoxLanes::load3(box.max));
}

// Centroid bins of the three axes at once: kBins equal parts from lo, scale bins per unit;
// a NaN lands in bin 0.
struct Binning
{
    __m128 lo = kxHQLanes::zero(), scale = kxHQLanes::zero();

    void bins(__m128 boxLo, __m128 boxHi, int* out) const
    {
        kxHQLanes::binsOf(kxHQLanes::centre(boxLo, boxHi), lo, scale, float(kBins - 1), out);
    }
};

struct Split
{
    Kind kind = Kind::eNone;
    double cost = kInfinity;
    int axis = 0;
    uint32_t bin = 0;      // binned: first bin of the right side
    uint32_t count = 0;    // sorted: references on the left
    Binning binning;       // binned: how centroids were binned
    float position = 0.0f; // spatial: the plane
    kxBBox left, right;
};

// Leaves are stored in groups of four triangles: pricing a side by its groups rather than
// its references makes subtrees, and so leaves, come in fours.
inline double groups(uint32_t references)
{
    return double((references + 3u) / 4u);
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
        for (int a = 0; a < 3; ++a)
            clearBins(a, kBins);
        mClippable.resize(triangles.size());
        for (size_t t = 0; t < triangles.size(); ++t)
            mClippable[t] = isClippable(triangles[t]);
    }

    bool run()
    {
        const auto n = static_cast<uint32_t>(mRefs.size());
        mTree.clear();
        mTree.reserve(2 * std::max<uint64_t>(mSettings.referenceLimit, n));
        mTree.push_back({boxOf(mRefs.data(), n), TreeNode::kLeaf, 0});
        mOverlapLimit = kOverlapShare * halfArea(mTree[0].box);
        // Pending subtrees hold at most the references of the finished tree.
        mRefs.reserve(std::max<uint64_t>(mSettings.referenceLimit, n));
        const uint64_t allowance =
            mSettings.spatialSplits ? mSettings.referenceLimit - std::min<uint64_t>(mSettings.referenceLimit, n) : 0;
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
        if (task.allowance > 0 && n >= kSpatialMinimum &&
            (best.kind == Kind::eNone || halfArea(intersection(best.left, best.right)) > mOverlapLimit))
        {
            const Split spatial = spatialSplit(mTree[task.node].box, refs, n);
            if (spatial.cost < best.cost && applySpatial(task, spatial))
                return;
        }
        uint32_t nLeft = 0;
        if (best.kind == Kind::eBinned)
        {
            const Reference* middle = std::partition(refs, refs + n, [&](const Reference& r) {
                alignas(16) int bin[4];
                best.binning.bins(kxBoxLanes::load3(r.box.min), kxBoxLanes::load3(r.box.max), bin);
                return bin[best.axis] < int(best.bin);
            });
            nLeft = static_cast<uint32_t>(middle - refs);
        }
        else if (best.kind == Kind::eSorted)
        {
            // The order sortedSplit found: stable, by key.
            for (uint32_t i = 1; i < n; ++i)
                for (uint32_t j = i; j > 0 && sortKey(refs[j], best.axis) < sortKey(refs[j - 1], best.axis); --j)
                    std::swap(refs[j], refs[j - 1]);
            nLeft = best.count;
        }
        if (nLeft == 0 || nLeft == n)
        {
            nLeft = splitByCount(refs, n);
            best.left = boxOf(refs, nLeft);
            best.right = boxOf(refs + nLeft, n - nLeft);
        }
        addChildren(task, nLeft, n - nLeft, task.allowance, best.left, best.right);
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

    void addChildren(const Task& task, uint32_t nLeft, uint32_t nRight, uint64_t allowance, const kxBBox& leftBox,
                     const kxBBox& rightBox)
    {
        const auto left = static_cast<uint32_t>(mTree.size());
        mTree.push_back({leftBox, TreeNode::kLeaf, 0});
        mTree.push_back({rightBox, TreeNode::kLeaf, 0});
        mTree[task.node].left = left;
        const uint64_t leftAllowance = allowance * nLeft / (uint64_t(nLeft) + nRight);
        mTasks.push_back({left, task.begin, nLeft, leftAllowance});
        mTasks.push_back({left + 1, task.begin + nLeft, nRight, allowance - leftAllowance});
    }

    Split binnedSplit(const Reference* refs, uint32_t n)
    {
        kxBoxLanes::Accumulator centroids;
        for (uint32_t i = 0; i < n; ++i)
            centroids.extend(centreOf(refs[i].box));
        kxBBox bounds;
        centroids.store(bounds);
        float scale[4] = {0.0f, 0.0f, 0.0f, 0.0f};
        for (int a = 0; a < 3; ++a)
        {
            const double extent = double(bounds.max[a]) - bounds.min[a];
            // Single precision keeps the bin arithmetic in lanes; an extent it cannot
            // invert offers no split.
            const float inverse = float(kBins / extent);
            scale[a] = extent > 0.0 && std::isfinite(inverse) && inverse > 0.0f ? inverse : 0.0f;
        }
        const Binning binning{kxBoxLanes::load3(bounds.min), kxHQLanes::loadUnaligned(scale)};
        alignas(16) int bin[4];
        for (uint32_t i = 0; i < n; ++i)
        {
            const __m128 lo = kxBoxLanes::load3(refs[i].box.min), hi = kxBoxLanes::load3(refs[i].box.max);
            binning.bins(lo, hi, bin);
            for (int a = 0; a < 3; ++a)
            {
                ++mBinCounts[a][bin[a]];
                mBinLo[a][bin[a]] = kxBoxLanes::lower(lo, mBinLo[a][bin[a]]);
                mBinHi[a][bin[a]] = kxBoxLanes::upper(hi, mBinHi[a][bin[a]]);
            }
        }
        Split best;
        for (int a = 0; a < 3; ++a)
        {
            if (scale[a] != 0.0f)
                bestPlane(
                    mBinLo[a], mBinHi[a], mBinCounts[a], kBins,
                    [&](int b, double cost, const kxBBox& l, const kxBBox& r) {
                        best.kind = Kind::eBinned;
                        best.cost = cost;
                        best.axis = a;
                        best.bin = uint32_t(b);
                        best.binning = binning;
                        best.left = l;
                        best.right = r;
                    },
                    best.cost);
            clearBins(a, kBins);
        }
        return best;
    }

    void clearBins(int a, int count)
    {
        for (int b = 0; b < count; ++b)
        {
            mBinCounts[a][b] = 0;
            mBinLo[a][b] = kxBoxLanes::emptyMinimum();
            mBinHi[a][b] = kxBoxLanes::emptyMaximum();
        }
    }

    // Sweeps the planes between the bins of one axis. Calls take(plane, cost, left box,
    // right box) for each plane cheaper than best.
    template <typename Take>
    static void bestPlane(const __m128* lo, const __m128* hi, const uint32_t* counts, int count, Take&& take,
                          double best)
    {
        __m128 rightLo[kBins], rightHi[kBins];
        uint32_t rightCount[kBins];
        __m128 accLo = kxBoxLanes::emptyMinimum(), accHi = kxBoxLanes::emptyMaximum();
        uint32_t accCount = 0;
        for (int b = count - 1; b > 0; --b)
        {
            accLo = kxBoxLanes::lower(lo[b], accLo);
            accHi = kxBoxLanes::upper(hi[b], accHi);
            accCount += counts[b];
            rightLo[b] = accLo;
            rightHi[b] = accHi;
            rightCount[b] = accCount;
        }
        accLo = kxBoxLanes::emptyMinimum();
        accHi = kxBoxLanes::emptyMaximum();
        accCount = 0;
        for (int b = 1; b < count; ++b)
        {
            accLo = kxBoxLanes::lower(lo[b - 1], accLo);
            accHi = kxBoxLanes::upper(hi[b - 1], accHi);
            accCount += counts[b - 1];
            if (accCount == 0 || rightCount[b] == 0)
                continue;
            kxBBox l, r;
            kxBoxLanes::store(l, accLo, accHi);
            kxBoxLanes::store(r, rightLo[b], rightHi[b]);
            const double cost = halfArea(l) * groups(accCount) + halfArea(r) * groups(rightCount[b]);
            if (cost < best)
            {
                best = cost;
                take(b, cost, l, r);
            }
        }
    }

    Split sortedSplit(const Reference* refs, uint32_t n)
    {
        Split best, whole;
        uint8_t order[kSweepLimit];
        kxBBox right[kSweepLimit];
        for (int a = 0; a < 3; ++a)
        {
            float key[kSweepLimit];
            for (uint32_t i = 0; i < n; ++i)
            {
                key[i] = sortKey(refs[i], a);
                order[i] = uint8_t(i);
            }
            // Insertion sort: stable, so that equal keys keep the order of the references.
            for (uint32_t i = 1; i < n; ++i)
                for (uint32_t j = i; j > 0 && key[order[j]] < key[order[j - 1]]; --j)
                    std::swap(order[j], order[j - 1]);
            __m128 lo = kxBoxLanes::emptyMinimum(), hi = kxBoxLanes::emptyMaximum();
            for (uint32_t i = n; i-- > 1;)
            {
                lo = kxBoxLanes::lower(kxBoxLanes::load3(refs[order[i]].box.min), lo);
                hi = kxBoxLanes::upper(kxBoxLanes::load3(refs[order[i]].box.max), hi);
                kxBoxLanes::store(right[i], lo, hi);
            }
            lo = kxBoxLanes::emptyMinimum();
            hi = kxBoxLanes::emptyMaximum();
            kxBBox left;
            for (uint32_t i = 1; i < n; ++i)
            {
                lo = kxBoxLanes::lower(kxBoxLanes::load3(refs[order[i - 1]].box.min), lo);
                hi = kxBoxLanes::upper(kxBoxLanes::load3(refs[order[i - 1]].box.max), hi);
                kxBoxLanes::store(left, lo, hi);
                const double cost = halfArea(left) * groups(i) + halfArea(right[i]) * groups(n - i);
                const auto take = [&](Split& s) {
                    s.kind = Kind::eSorted;
                    s.cost = cost;
                    s.axis = a;
                    s.count = i;
                    s.left = left;
                    s.right = right[i];
                };
                if (cost < best.cost)
                    take(best);
                if (cost < whole.cost && (i % 4 == 0 || (n - i) % 4 == 0))
                    take(whole);
            }
        }
        return whole.cost <= best.cost * (1.0 + kWholeGroupsMargin) ? whole : best;
    }

    Split spatialSplit(const kxBBox& box, const Reference* refs, uint32_t n)
    {
        Split best;
        for (uint32_t i = 0; i < n; ++i)
            if (!mClippable[refs[i].triangle])
                return best;
        int a = 0;
        for (int k = 1; k < 3; ++k)
            if (double(box.max[k]) - box.min[k] > double(box.max[a]) - box.min[a])
                a = k;
        {
            const double lo = box.min[a], extent = double(box.max[a]) - lo;
            if (!(extent > 0.0) || !std::isfinite(extent))
                return best;
            // planes[j] separates bin j - 1 from bin j.
            constexpr int S = kSpatialBins;
            float planes[S + 1];
            planes[0] = -HUGE_VALF;
            planes[S] = HUGE_VALF;
            for (int j = 1; j < S; ++j)
                planes[j] = static_cast<float>(lo + extent * j / S);
            uint32_t entries[S] = {}, exits[S] = {};
            kxBBox bins[S];
            for (uint32_t i = 0; i < n; ++i)
            {
                const Reference& r = refs[i];
                const int first = int(std::upper_bound(planes + 1, planes + S, r.box.min[a]) - (planes + 1));
                const int last =
                    std::max(first, int(std::lower_bound(planes + 1, planes + S, r.box.max[a]) - (planes + 1)));
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
            kxBBox right[S];
            uint32_t rightCount[S];
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
                const double cost = halfArea(left) * groups(leftCount) + halfArea(right[b]) * groups(rightCount[b]);
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
        const Reference* placed = mRefs.data() + task.begin;
        addChildren(task, uint32_t(nLeft), uint32_t(nRight), task.allowance - (nLeft + nRight - n),
                    boxOf(placed, uint32_t(nLeft)), boxOf(placed + nLeft, uint32_t(nRight)));
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
    // Centroid bins per axis: count and box.
    uint32_t mBinCounts[3][kBins];
    __m128 mBinLo[3][kBins];
    __m128 mBinHi[3][kBins];
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
