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

// Entries of 64-bit keys up to this many are sorted by their top 32 bits least
// significant digit first: three passes over all of them, each the same plain loop, which
// while the entries stay in the cache beats the per-bucket work of the way above; that
// work grows with every small bucket, and the clustered codes of real meshes make many.
constexpr size_t kTopHalfFirstMax = size_t{1} << 18;
constexpr unsigned kTopDigitBits = 11;
constexpr unsigned kTopDigitValues = 1u << kTopDigitBits;
constexpr unsigned kTopPasses = 3;

// Sorts by the top 32 bits least significant digit first, then each run of keys that tie
// there by the bits below, as above. Each pass moves 64-bit words, an entry's top bits
// above its position, so that equal top bits keep their order; the bits below wait in the
// spare values. The words pass between the spare keys and the keys' home, ending in the
// keys' home; a pass whose digit is the same for every key is skipped.
void sortTopHalfFirst(Entries<uint64_t> home, Entries<uint64_t> spare, size_t n, unsigned keyBits)
{
    const unsigned lowBits = keyBits - 32;
    const uint64_t lowMask = (uint64_t{1} << lowBits) - 1u;
    uint32_t* const low = spare.values;
    static_assert(kTopPasses * kTopDigitBits >= 32, "the passes cover the top 32 bits");
    uint32_t offsets[kTopPasses][kTopDigitValues] = {};
    for (size_t i = 0; i < n; ++i)
    {
        const uint64_t key = home.keys[i];
        const uint32_t top = static_cast<uint32_t>(key >> lowBits);
        low[i] = static_cast<uint32_t>(key & lowMask);
        spare.keys[i] = uint64_t{top} << 32 | i;
        for (unsigned p = 0; p < kTopPasses; ++p)
            ++offsets[p][(top >> (p * kTopDigitBits)) & (kTopDigitValues - 1u)];
    }
    bool pass[kTopPasses];
    unsigned passes = 0;
    const uint32_t firstTop = static_cast<uint32_t>(home.keys[0] >> lowBits);
    for (unsigned p = 0; p < kTopPasses; ++p)
    {
        uint32_t* const counts = offsets[p];
        pass[p] = counts[(firstTop >> (p * kTopDigitBits)) & (kTopDigitValues - 1u)] != n;
        passes += pass[p];
        uint32_t sum = 0;
        for (unsigned d = 0; d < kTopDigitValues; ++d)
        {
            const uint32_t count = counts[d];
            counts[d] = sum;
            sum += count;
        }
    }
    // The words were written to the spare keys in the sweep that counted the digits: most
    // keys take every pass, an odd count, which ends in the keys' home. An even count
    // starts there.
    uint64_t* from = spare.keys;
    uint64_t* to = home.keys;
    if (passes % 2 == 0)
    {
        std::copy(spare.keys, spare.keys + n, home.keys);
        std::swap(from, to);
    }
    for (unsigned p = 0; p < kTopPasses; ++p)
    {
        if (!pass[p])
            continue;
        uint32_t* const offset = offsets[p];
        const unsigned shift = 32 + p * kTopDigitBits;
        for (size_t i = 0; i < n; ++i)
        {
            const uint64_t word = from[i];
            to[offset[(word >> shift) & (kTopDigitValues - 1u)]++] = word;
        }
        std::swap(from, to);
    }

    // The words now lie in the keys' home; the values in their new order wait in the spare
    // keys, no longer needed, until the gather has read every old one.
    uint32_t* const values = reinterpret_cast<uint32_t*>(spare.keys);
    for (size_t j = 0; j < n; ++j)
    {
        const uint64_t word = home.keys[j];
        const uint32_t position = static_cast<uint32_t>(word);
        home.keys[j] = (word >> 32 << lowBits) | low[position];
        values[j] = home.values[position];
    }
    std::copy(values, values + n, home.values);

    size_t first = 0;
    for (size_t j = 1; j <= n; ++j)
    {
        if (j < n && (home.keys[j] >> lowBits) == (home.keys[first] >> lowBits))
            continue;
        const size_t count = j - first;
        if (count > kInsertionSortMax)
            sortBucket(home + first, spare + first, home + first, count, lowBits);
        else if (count > 1)
            insertionSort(home + first, home + first, count);
        first = j;
    }
}

// Runs sort(home, spare) on the n entries with spare room of the same size from the arena,
// given back after.
template <typename Key, typename Sort>
void sortWithSpare(Key* keys, uint32_t* values, size_t n, kxBuildArena& arena, Sort sort)
{
    if (n < 2)
        return;
    const size_t top = arena.top();
    const Entries<Key> home{keys, values};
    sort(home, Entries<Key>{arena.allocate<Key>(n), arena.allocate<uint32_t>(n)});
    arena.release(top);
}
} // namespace

template <typename Key>
void radixSortMostSignificantFirst(Key* keys, uint32_t* values, size_t n, unsigned keyBits, kxBuildArena& arena)
{
    sortWithSpare(keys, values, n, arena,
                  [n, keyBits](Entries<Key> home, Entries<Key> spare) { sortBucket(home, spare, home, n, keyBits); });
}

void radixSortTopHalfFirst(uint64_t* keys, uint32_t* values, size_t n, unsigned keyBits, kxBuildArena& arena)
{
    sortWithSpare(keys, values, n, arena, [n, keyBits](Entries<uint64_t> home, Entries<uint64_t> spare) {
        sortTopHalfFirst(home, spare, n, keyBits);
    });
}

template <typename Key>
void radixSort(Key* keys, uint32_t* values, size_t n, unsigned keyBits, kxBuildArena& arena)
{
    if constexpr (sizeof(Key) == sizeof(uint64_t))
        if (keyBits > 32 && n <= kTopHalfFirstMax)
            return radixSortTopHalfFirst(keys, values, n, keyBits, arena);
    radixSortMostSignificantFirst(keys, values, n, keyBits, arena);
}

template void radixSort<uint32_t>(uint32_t*, uint32_t*, size_t, unsigned, kxBuildArena&);
template void radixSort<uint64_t>(uint64_t*, uint32_t*, size_t, unsigned, kxBuildArena&);
template void radixSortMostSignificantFirst<uint32_t>(uint32_t*, uint32_t*, size_t, unsigned, kxBuildArena&);
template void radixSortMostSignificantFirst<uint64_t>(uint64_t*, uint32_t*, size_t, unsigned, kxBuildArena&);
} // namespace kxLinearBVH
