#include "Order.h"

#include "Parallel.h"

#include <algorithm>
#include <initializer_list>
#include <vector>

namespace kxpy
{
namespace
{
// Smaller batches keep their order: the sort would cost more than the cache saves. Larger
// ones too, as the copy in key order takes 30 bytes a query.
constexpr size_t kSmallestSorted = 1024;
constexpr size_t kLargestSorted = size_t(1) << 24;
// Rows per thread below which the sort stays on fewer threads, and at most this many
// threads, as each keeps a count per key (32,768 keys for points).
constexpr size_t kSmallestSlice = size_t(1) << 16;
constexpr size_t kMostSlices = 64;
// Cells per axis of the box, as powers of two, and for rays the octant of the direction.
// Measured on real meshes with random rays, finer keys gain nothing more; a coarse key
// sorts in one counting pass whose buckets stay in cache.
constexpr int kOriginBits = 2;
constexpr int kPointBits = 5;

/// Splits [low, low + extent] into `cells`; values beyond it go to the nearest end cell,
/// NaN to the first.
class Cells
{
public:
    Cells(float low, float extent, int bits)
        : mLow(low), mCells(1u << bits), mScale(extent > 0.0f ? float(mCells) / extent : 0.0f)
    {
    }

    uint32_t operator()(float x) const
    {
        const float f = (x - mLow) * mScale;
        if (!(f > 0.0f))
            return 0;
        return f < float(mCells) ? static_cast<uint32_t>(f) : mCells - 1;
    }

private:
    float mLow;
    uint32_t mCells;
    float mScale;
};

/// Spreads the low ten bits of x to every third bit.
uint32_t spread(uint32_t x)
{
    x &= 0x3FFu;
    x = (x | (x << 16)) & 0x30000FFu;
    x = (x | (x << 8)) & 0x300F00Fu;
    x = (x | (x << 4)) & 0x30C30C3u;
    return (x | (x << 2)) & 0x9249249u;
}

/// The cells of x, y and z with their bits interleaved, x's highest.
uint32_t interleave(uint32_t x, uint32_t y, uint32_t z)
{
    return (spread(x) << 2) | (spread(y) << 1) | spread(z);
}

/// The cell of a point in the box, `bits` per axis.
class BoxCells
{
public:
    BoxCells(const kxBBox& box, int bits)
        : mAxes{Cells(box.min[0], box.max[0] - box.min[0], bits), Cells(box.min[1], box.max[1] - box.min[1], bits),
                Cells(box.min[2], box.max[2] - box.min[2], bits)}
    {
    }

    uint32_t operator()(const float* p) const
    {
        return interleave(mAxes[0](p[0]), mAxes[1](p[1]), mAxes[2](p[2]));
    }

private:
    Cells mAxes[3];
};

/// Which of the eight octants a direction points into.
uint32_t octant(const float* d)
{
    return (uint32_t(d[0] < 0.0f) << 2) | (uint32_t(d[1] < 0.0f) << 1) | uint32_t(d[2] < 0.0f);
}

// Whether the batch should be answered in key order: large enough, and incoherent, that is
// neighbours in the batch often fall in different cells. Pairs of neighbours are sampled so
// that a coherent batch costs a few thousand keys, not one per query.
template <class Key>
bool worthSorting(size_t count, const Key& key)
{
    if (count < kSmallestSorted || count > kLargestSorted)
        return false;
    constexpr size_t kSamples = 1024;
    size_t changes = 0;
    for (size_t s = 0; s < kSamples; ++s)
    {
        const size_t i = s * (count - 1) / kSamples;
        changes += key(i) != key(i + 1);
    }
    return changes >= kSamples / 4;
}

/// The rows in the order of their keys (below 2^bits), equal keys in row order, by a
/// counting sort split over up to `threads` threads, with each row's three floats of every
/// source copied in that order too. Each thread counts and then places a slice of the rows;
/// a slice's rows go after the earlier slices' rows of the same key, so the order is the
/// one a single pass gives. Both null when the batch is not worth sorting.
template <class Key>
void sortRows(size_t count, int bits, unsigned threads, const Key& key, std::initializer_list<const Rows*> sources,
              std::unique_ptr<uint32_t[]>& order, std::unique_ptr<float[]>& inputs)
{
    if (!worthSorting(count, key))
        return;
    const size_t buckets = size_t(1) << bits;
    const size_t slices = std::max<size_t>(1, std::min({size_t{threads}, count / kSmallestSlice, kMostSlices}));
    const size_t slice = (count + slices - 1) / slices;
    // Left uninitialised: every element is written once, by the thread that owns its slice.
    std::unique_ptr<uint16_t[]> keys(new uint16_t[count]);
    std::vector<uint32_t> starts(slices * buckets, 0);
    forEachBlock(count, threads, slice, [&](size_t begin, size_t end) {
        uint32_t* counts = starts.data() + begin / slice * buckets;
        for (size_t i = begin; i < end; ++i)
        {
            keys[i] = static_cast<uint16_t>(key(i));
            ++counts[keys[i]];
        }
    });
    uint32_t next = 0;  // below kLargestSorted
    for (size_t k = 0; k < buckets; ++k)
        for (size_t s = 0; s < slices; ++s)
        {
            const uint32_t n = starts[s * buckets + k];
            starts[s * buckets + k] = next;
            next += n;
        }
    const size_t width = 3 * sources.size();
    order.reset(new uint32_t[count]);
    inputs.reset(new float[count * width]);
    forEachBlock(count, threads, slice, [&](size_t begin, size_t end) {
        uint32_t* start = starts.data() + begin / slice * buckets;
        for (size_t i = begin; i < end; ++i)
        {
            const size_t k = start[keys[i]]++;
            order[k] = static_cast<uint32_t>(i);
            float* to = inputs.get() + k * width;
            for (const Rows* source : sources)
            {
                const float* row = source->row(i);
                for (int a = 0; a < 3; ++a)
                    *to++ = row[a];
            }
        }
    });
}
} // namespace

QueryOrder QueryOrder::ofRays(const RayBatch& rays, const kxBBox& bounds, unsigned threads)
{
    const BoxCells origin(bounds, kOriginBits);
    QueryOrder result;
    result.mWidth = 6;
    sortRows(
        rays.count, 3 * kOriginBits + 3, threads,
        [&](size_t i) { return (origin(rays.origins.row(i)) << 3) | octant(rays.directions.row(i)); },
        {&rays.origins, &rays.directions}, result.mOrder, result.mInputs);
    return result;
}

QueryOrder QueryOrder::ofPoints(const Rows& points, const kxBBox& bounds, unsigned threads)
{
    const BoxCells cell(bounds, kPointBits);
    QueryOrder result;
    result.mWidth = 3;
    sortRows(points.count, 3 * kPointBits, threads, [&](size_t i) { return cell(points.row(i)); }, {&points},
             result.mOrder, result.mInputs);
    return result;
}
} // namespace kxpy
