#include "kxSAHRecordBuild.h"

#include <algorithm>
#include <cstring>
#include <limits>

using namespace kxSAHLanes;

namespace
{
constexpr uint32_t kMedianBuckets = 2048;
constexpr int kDigitBits[3] = {11, 11, 10};
constexpr int kDigitShift[3] = {21, 10, 0};

inline uint32_t keyBits(float key)
{
    uint32_t bits;
    std::memcpy(&bits, &key, sizeof bits);
    return bits;
}

/// The digit whose bucket holds the entry of the given rank; rank becomes its rank
/// inside that bucket.
uint32_t selectDigit(const uint32_t* histogram, uint32_t& rank)
{
    uint32_t d = 0;
    while (rank >= histogram[d])
        rank -= histogram[d++];
    return d;
}

/// kxDefaultSAH::f from the box's extents.
inline float defaultCost(const float* extent, uint32_t n)
{
    return (extent[0] * (extent[1] + extent[2]) + extent[1] * extent[2]) * static_cast<float>(n + 4u);
}
} // namespace

float kxSAHRecordBuild::medianPosition(const kxBBox& box, uint32_t start, uint32_t count, int a)
{
    const Record* const records = mRecords.get() + start;
    uint32_t* const keys = mKeys;
    uint32_t* const candidates = mCandidates.get();
    // Keys are ordered by their bit patterns, as the builder's radix sort orders them
    // (relative to the node's minimum they are non-negative, so this is numeric order).
    // A bucket of the key's position in the node's extent, non-decreasing in that order,
    // picks the candidates of the rank-th key among a small share of the range; digit by
    // digit their bits then narrow them, kept in position order, to the equal keys the rank
    // falls among.
    const float origin = box.min[a];
    const KeyBuckets buckets(static_cast<float>(kMedianBuckets) / (box.max[a] - origin));
    uint32_t histogram[kMedianBuckets] = {};
    alignas(16) uint32_t bucket[4];
    uint32_t i = 0;
    for (; i + 4 <= count; i += 4)
    {
        const __m128 k = medianKeys(records + i, a, origin);
        storeKeys(keys + i, k);
        storeBuckets(bucket, buckets.of(k));
        ++histogram[bucket[0]];
        ++histogram[bucket[1]];
        ++histogram[bucket[2]];
        ++histogram[bucket[3]];
    }
    for (; i < count; ++i)
    {
        const float k = (records[i].min[a] + records[i].max[a]) * 0.5f - origin;
        keys[i] = keyBits(k);
        storeBuckets(bucket, buckets.of(splat(k)));
        ++histogram[bucket[0]];
    }
    uint32_t rank = count >> 1;
    const __m128i target = splatBucket(selectDigit(histogram, rank));
    uint32_t n = 0;
    for (i = 0; i + 4 <= count; i += 4)
    {
        for (int hit = buckets.matches(loadKeys(keys + i), target); hit != 0; hit &= hit - 1)
            candidates[n++] = i + static_cast<uint32_t>(__builtin_ctz(static_cast<unsigned>(hit)));
    }
    for (; i < count; ++i)
    {
        candidates[n] = i;
        n += buckets.matches(splatKey(keys[i]), target) & 1;
    }
    for (int level = 0; level < 3 && n > 1; ++level)
    {
        const int shift = kDigitShift[level];
        const uint32_t mask = (1u << kDigitBits[level]) - 1u;
        std::fill(histogram, histogram + mask + 1u, 0u);
        for (uint32_t j = 0; j < n; ++j)
            ++histogram[(keys[candidates[j]] >> shift) & mask];
        const uint32_t digit = selectDigit(histogram, rank);
        uint32_t kept = 0;
        for (uint32_t j = 0; j < n; ++j)
        {
            const uint32_t c = candidates[j];
            candidates[kept] = c;
            kept += ((keys[c] >> shift) & mask) == digit;
        }
        n = kept;
    }
    const Record& median = records[candidates[rank]];
    return (median.max[a] + median.min[a]) * 0.5f;
}

void kxSAHRecordBuild::computeBinning(const kxBBox& box, uint32_t start, uint32_t count)
{
    const uint32_t bins = mBinCount;
    float scale[3];
    for (int a = 0; a < 3; ++a)
        scale[a] = static_cast<float>(bins) / (box.max[a] - box.min[a]);
    const __m128 origin = set3(box.min);
    const __m128 scaleLanes = set3(scale);

    // Counts of bin j of the three axes side by side, for the sweeps to take in one load.
    uint32_t* const counts = mLaneCounts.data();
    Box* const binBoxes = mLeftBoxes.data();
    std::fill(mLaneCounts.begin(), mLaneCounts.end(), 0u);
    std::fill(mLeftBoxes.begin(), mLeftBoxes.end(), emptyBox());
    const Record* const records = mRecords.get();
    alignas(16) uint32_t bin[4];
    for (uint32_t p = start; p < start + count; ++p)
    {
        const Box b = load(records[p]);
        truncate3(offsetScaled(centroid(b), origin, scaleLanes), bin);
#pragma GCC unroll 3
        for (uint32_t a = 0; a < 3; ++a)
        {
            const uint32_t j = std::min(bins - 1u, bin[a]);
            ++counts[4 * j + a];
            grow(binBoxes[a * bins + j], b);
        }
    }
    mBinned = true;
    mSwept = false;
}

void kxSAHRecordBuild::sweep()
{
    if (mSwept)
        return;
    mSwept = true;
    const uint32_t bins = mBinCount;
    std::copy(mLeftBoxes.begin(), mLeftBoxes.end(), mRightBoxes.begin());
    uint32_t* const counts = mBinCounts.data();
    for (uint32_t a = 0; a < 3; ++a)
        for (uint32_t j = 0; j < bins; ++j)
            counts[a * bins + j] = mLaneCounts[4 * j + a];
    Box* const left = mLeftBoxes.data();
    Box* const right = mRightBoxes.data();
    for (uint32_t j = 1; j < bins; ++j)
        for (uint32_t s = 0; s < 3u * bins; s += bins)
        {
            counts[s + j] += counts[s + j - 1];
            grow(left[s + j], left[s + j - 1]);
            grow(right[s + bins - 1 - j], right[s + bins - j]);
        }
}

void kxSAHRecordBuild::customCosts(uint32_t count, float* planes)
{
    sweep();
    const uint32_t bins = mBinCount;
    for (uint32_t s = 0; s < 3u * bins; s += bins)
        for (uint32_t j = 0; j + 1 < bins; ++j)
        {
            const uint32_t e = s + j;
            const uint32_t nLeft = mBinCounts[e];
            kxBBox l;
            kxBBox r;
            store(l, mLeftBoxes[e]);
            store(r, mRightBoxes[e + 1]);
            planes[e] = mCustomCost->f(l, nLeft) + mCustomCost->f(r, count - nLeft);
        }
}

void kxSAHRecordBuild::defaultCosts(float* planes)
{
    // The prefix and suffix sweeps of the three axes side by side, each plane priced as it
    // is reached; nothing of them is stored. The right side's count, count - nLeft, is its
    // suffix sum.
    const uint32_t bins = mBinCount;
    const Box* const x = mLeftBoxes.data();
    const Box* const y = x + bins;
    const Box* const z = y + bins;
    const uint32_t* const counts = mLaneCounts.data();
    const auto countsAt = [&](uint32_t j) { return loadCounts(counts + 4 * j); };
    float* const rightCosts = mRightCosts.data();
    Box3 right(x[bins - 1], y[bins - 1], z[bins - 1]);
    __m128i nRight = countsAt(bins - 1);
    for (uint32_t k = bins - 1; k > 0; --k)
    {
        if (k < bins - 1)
        {
            right.sweep(x[k], y[k], z[k]);
            nRight = addCounts(nRight, countsAt(k));
        }
        storeUnaligned(rightCosts + 4 * k, right.defaultCosts(nRight));
    }
    Box3 left(x[0], y[0], z[0]);
    __m128i nLeft = countsAt(0);
    for (uint32_t j = 0; j + 1 < bins; ++j)
    {
        if (j > 0)
        {
            left.sweep(x[j], y[j], z[j]);
            nLeft = addCounts(nLeft, countsAt(j));
        }
        alignas(16) float cost[4];
        store(cost, add(left.defaultCosts(nLeft), loadUnaligned(rightCosts + 4 * (j + 1))));
        planes[j] = cost[0];
        planes[bins + j] = cost[1];
        planes[2 * bins + j] = cost[2];
    }
}

bool kxSAHRecordBuild::findSplitPlane(const kxBBox& box, uint32_t count, kxBBox::tAxis& axis, float& pos)
{
    const uint32_t bins = mBinCount;
    float* const planes = mPlaneCosts.data();
    if (mCustomCost)
        customCosts(count, planes);
    else
        defaultCosts(planes);
    // The first of the cheapest planes, as a scan that takes only strictly cheaper ones
    // finds it; NaN costs never win. The slot after each axis's last plane holds +inf.
    const uint32_t slots = 3u * bins;
    __m128 cheapest = splat(std::numeric_limits<float>::infinity());
    uint32_t i = 0;
    for (; i + 4 <= slots; i += 4)
        cheapest = minimum(loadUnaligned(planes + i), cheapest);
    float best = smallestLane(cheapest);
    for (; i < slots; ++i)
        best = planes[i] < best ? planes[i] : best;
    float leafCost;
    if (mCustomCost)
        leafCost = mCustomCost->f(box, count);
    else
    {
        const float extent[3] = {box.max[0] - box.min[0], box.max[1] - box.min[1], box.max[2] - box.min[2]};
        leafCost = defaultCost(extent, count);
    }
    if (!(best < leafCost))
        return false;
    uint32_t bestIndex = 0;
    while (!(planes[bestIndex] == best))
        ++bestIndex;

    const uint32_t a = bestIndex / bins;
    const uint32_t j = bestIndex - a * bins;
    axis = a == 0 ? kxBBox::eAxisX : a == 1 ? kxBBox::eAxisY : kxBBox::eAxisZ;
    pos = static_cast<float>(j + 1) * (box.max[a] - box.min[a]) / static_cast<float>(bins) + box.min[a];
    return true;
}
