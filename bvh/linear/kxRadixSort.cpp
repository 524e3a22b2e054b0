#include "kxRadixSort.h"

#include "kxLinearBuildSupport.h"

#include <algorithm>

namespace kxLinearBVH
{
namespace
{
constexpr unsigned kDigitBits = 8;
constexpr unsigned kDigitValues = 1u << kDigitBits;
// Buckets this small are finished by insertion; counting their digits would cost more.
constexpr size_t kInsertionSortMax = 32;

template <typename Key>
struct Entries
{
    Key* keys;
    uint32_t* values;

    Entries operator+(size_t offset) const { return {keys + offset, values + offset}; }
};

// Moves the n entries of from, sorted by key with equal keys in their order, to to; the
// two may be the same place, as every entry is read before anything is written there.
template <typename Key>
void insertionSort(Entries<Key> from, Entries<Key> to, size_t n)
{
    if (n == 0)
        return;
    to.keys[0] = from.keys[0];
    to.values[0] = from.values[0];
    for (size_t i = 1; i < n; ++i)
    {
        const Key key = from.keys[i];
        const uint32_t value = from.values[i];
        size_t j = i;
        // A key below the first goes first; any other stops at the first, so the walk down
        // needs no bound check.
        if (key < to.keys[0])
        {
            for (; j > 0; --j)
            {
                to.keys[j] = to.keys[j - 1];
                to.values[j] = to.values[j - 1];
            }
        }
        else
        {
            for (; to.keys[j - 1] > key; --j)
            {
                to.keys[j] = to.keys[j - 1];
                to.values[j] = to.values[j - 1];
            }
        }
        to.keys[j] = key;
        to.values[j] = value;
    }
}

// Sorts the n entries at source by their bits below bits, stably, into home; spare is
// free room of the same size. Most significant digit first: after a digit or two every
// bucket stays in the cache while its lower digits are sorted, where a pass over all
// entries per digit would stream them through memory eight times. Buckets trade source
// and spare at every level, so source is home or the room beside it.
template <typename Key>
void sortBucket(Entries<Key> source, Entries<Key> spare, Entries<Key> home, size_t n, unsigned bits)
{
    while (n > kInsertionSortMax && bits > 0)
    {
        const unsigned digitBits = std::min(bits, kDigitBits);
        const unsigned shift = bits - digitBits;
        const Key mask = (Key{1} << digitBits) - 1u;
        bits = shift;
        // Two tables: neighbouring keys often share their digit, and a counter bumped again
        // and again waits for its own store each time.
        uint32_t offsets[kDigitValues] = {};
        uint32_t odd[kDigitValues] = {};
        for (size_t i = 0; i + 1 < n; i += 2)
        {
            ++offsets[(source.keys[i] >> shift) & mask];
            ++odd[(source.keys[i + 1] >> shift) & mask];
        }
        if (n % 2)
            ++offsets[(source.keys[n - 1] >> shift) & mask];
        for (unsigned d = 0; d <= mask; ++d)
            offsets[d] += odd[d];
        if (offsets[(source.keys[0] >> shift) & mask] == n)
            continue;
        uint32_t counts[kDigitValues];
        uint32_t sum = 0;
        for (unsigned d = 0; d <= mask; ++d)
        {
            counts[d] = offsets[d];
            offsets[d] = sum;
            sum += counts[d];
        }
        // Neighbours mostly share their digit: the position of the current digit stays in
        // a register while they do, where bumping its counter in memory would make every
        // entry wait for the store of the one before.
        Key digit = (source.keys[0] >> shift) & mask;
        uint32_t position = offsets[digit];
        for (size_t i = 0; i < n; ++i)
        {
            const Key key = source.keys[i];
            const Key next = (key >> shift) & mask;
            if (next != digit)
            {
                offsets[digit] = position;
                digit = next;
                position = offsets[digit];
            }
            spare.keys[position] = key;
            spare.values[position] = source.values[i];
            ++position;
        }
        // When every digit's bucket is small, one insertion pass over all of them sorts
        // each within its stretch: no entry passes the smaller keys of the buckets before.
        uint32_t largest = 0;
        for (unsigned d = 0; d <= mask; ++d)
            largest = std::max(largest, counts[d]);
        if (largest <= kInsertionSortMax)
        {
            insertionSort(spare, home, n);
            return;
        }
        size_t first = 0;
        for (unsigned d = 0; d <= mask; ++d)
        {
            if (counts[d] > 0)
                sortBucket(spare + first, source + first, home + first, counts[d], shift);
            first += counts[d];
        }
        return;
    }
    insertionSort(source, home, n);
}
} // namespace

template <typename Key>
void radixSort(Key* keys, uint32_t* values, size_t n, unsigned keyBits, kxBuildArena& arena)
{
    if (n < 2)
        return;
    const size_t top = arena.top();
    const Entries<Key> home{keys, values};
    const Entries<Key> spare{arena.allocate<Key>(n), arena.allocate<uint32_t>(n)};
    sortBucket(home, spare, home, n, keyBits);
    arena.release(top);
}

template void radixSort<uint32_t>(uint32_t*, uint32_t*, size_t, unsigned, kxBuildArena&);
template void radixSort<uint64_t>(uint64_t*, uint32_t*, size_t, unsigned, kxBuildArena&);
} // namespace kxLinearBVH
