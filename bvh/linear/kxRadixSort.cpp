#include "kxRadixSort.h"

#include "kxLinearBuildSupport.h"

#include <algorithm>
#include <utility>

namespace kxLinearBVH
{
namespace
{
constexpr unsigned kDigitBits = 8;
constexpr unsigned kDigitValues = 1u << kDigitBits;

template <typename Key>
inline unsigned digit(Key key, unsigned pass)
{
    return static_cast<unsigned>(key >> (pass * kDigitBits)) & (kDigitValues - 1u);
}
template <typename Key, unsigned... Pass>
inline void countDigits(Key key, uint32_t (&histograms)[sizeof(Key)][kDigitValues],
                        std::integer_sequence<unsigned, Pass...>)
{
    (++histograms[Pass][digit(key, Pass)], ...);
}
} // namespace

template <typename Key>
void radixSort(Key* keys, uint32_t* values, size_t n, kxBuildArena& arena)
{
    constexpr unsigned kPasses = sizeof(Key);
    if (n < 2)
        return;

    uint32_t histograms[kPasses][kDigitValues] = {};
    for (size_t i = 0; i < n; ++i)
        countDigits(keys[i], histograms, std::make_integer_sequence<unsigned, kPasses>());

    const size_t top = arena.top();
    Key* sourceKeys = keys;
    Key* targetKeys = arena.allocate<Key>(n);
    uint32_t* sourceValues = values;
    uint32_t* targetValues = arena.allocate<uint32_t>(n);
    for (unsigned pass = 0; pass < kPasses; ++pass)
    {
        uint32_t* offsets = histograms[pass];
        if (offsets[digit(sourceKeys[0], pass)] == n)
            continue;
        uint32_t sum = 0;
        for (unsigned d = 0; d < kDigitValues; ++d)
        {
            const uint32_t count = offsets[d];
            offsets[d] = sum;
            sum += count;
        }
        for (size_t i = 0; i < n; ++i)
        {
            const Key key = sourceKeys[i];
            const uint32_t position = offsets[digit(key, pass)]++;
            targetKeys[position] = key;
            targetValues[position] = sourceValues[i];
        }
        std::swap(sourceKeys, targetKeys);
        std::swap(sourceValues, targetValues);
    }
    // Only after a skipped pass can the result lie in the partners.
    if (sourceKeys != keys)
    {
        std::copy(sourceKeys, sourceKeys + n, keys);
        std::copy(sourceValues, sourceValues + n, values);
    }
    arena.release(top);
}

template void radixSort<uint32_t>(uint32_t*, uint32_t*, size_t, kxBuildArena&);
template void radixSort<uint64_t>(uint64_t*, uint32_t*, size_t, kxBuildArena&);
} // namespace kxLinearBVH
