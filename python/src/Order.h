// The order in which a batch of queries is answered. Queries that start close together
// (and, for rays, point the same way) visit the same nodes, which stay in cache when they
// follow each other: an incoherent batch is answered in the order of a coarse spatial key.
// Every answer is still written at its own row and computed by the same query, so only the
// speed changes.
#ifndef KXPY_ORDER_H
#define KXPY_ORDER_H

#include "Arrays.h"

#include <kxBBox.h>

#include <cstdint>
#include <memory>

namespace kxpy
{
/// Asks for the cache line at p ahead of a write. Always inlined: a function that holds
/// nothing but prefetches counts as free of side effects, and calls to it are dropped.
__attribute__((always_inline)) inline void fetchForWrite(const void* p)
{
    __builtin_prefetch(p, 1);
}

class QueryOrder
{
public:
    /// Rays by the cell of their origin in the hierarchy's box and the octant of their
    /// direction, sorted on up to `threads` threads. Call it holding the GIL (released
    /// while sorting); Ctrl-C raises KeyboardInterrupt.
    static QueryOrder ofRays(const RayBatch& rays, const kxBBox& bounds, unsigned threads);
    /// Points by their cell in the hierarchy's box, as ofRays.
    static QueryOrder ofPoints(const Rows& points, const kxBBox& bounds, unsigned threads);

    /// The row answered k-th.
    size_t operator[](size_t k) const { return mOrder ? mOrder[k] : k; }

    /// The inputs of the k-th query: `rows` (for rays, origins then directions at column
    /// 3) or, when the batch is reordered, their copy in answer order, which the queries
    /// then read in sequence.
    const float* input(size_t k, const Rows& rows, size_t column = 0) const
    {
        return mOrder ? mInputs.get() + k * mWidth + column : rows.row(k);
    }

    /// The row answered a few places after k within [k, end), when the batch is reordered:
    /// outputs then go to rows scattered over their arrays, and a row written without
    /// being fetched first stalls its query.
    bool ahead(size_t k, size_t end, size_t& row) const
    {
        constexpr size_t kDistance = 8;
        if (!mOrder || k + kDistance >= end)
            return false;
        row = mOrder[k + kDistance];
        return true;
    }

private:
    QueryOrder() = default;

    std::unique_ptr<uint32_t[]> mOrder;  // null: the batch's own order
    std::unique_ptr<float[]> mInputs;    // mWidth floats per query, in answer order
    size_t mWidth = 0;
};
} // namespace kxpy

#endif
