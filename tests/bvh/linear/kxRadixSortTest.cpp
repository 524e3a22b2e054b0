// The linear builder's sort takes one of two ways by size; each must give exactly a stable
// sort's order, whatever the keys share.
#include "kxRadixSort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace
{
using kxLinearBVH::kxBuildArena;

template <typename Key>
using Entries = std::vector<std::pair<Key, uint32_t>>;

template <typename Key>
using Sort = std::function<void(Key*, uint32_t*, size_t, unsigned, kxBuildArena&)>;

// Sorts the entries with sort in an arena of exactly the advertised size and compares keys
// and values with a stable sort by key.
template <typename Key>
void expectStableOrder(const Entries<Key>& entries, unsigned keyBits, const Sort<Key>& sort)
{
    std::vector<Key> keys;
    std::vector<uint32_t> values;
    for (const auto& [key, value] : entries)
    {
        keys.push_back(key);
        values.push_back(value);
    }
    kxBuildArena arena(kxLinearBVH::radixSortFootprint<Key>(entries.size()));
    sort(keys.data(), values.data(), entries.size(), keyBits, arena);
    Entries<Key> expected = entries;
    std::stable_sort(expected.begin(), expected.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (size_t i = 0; i < expected.size(); ++i)
    {
        ASSERT_EQ(keys[i], expected[i].first) << "entry " << i;
        ASSERT_EQ(values[i], expected[i].second) << "entry " << i;
    }
}

// Keys below 2^keyBits of several shapes, with values in random order so that a lost tie
// order shows: spread evenly; in a few clusters that share their top bits, so that long
// runs tie there and the bits below are sorted apart; all sharing their top 32 bits, or
// differing there in one digit or in two, so that passes over the top bits are skipped;
// few distinct keys, repeated.
template <typename Key>
std::vector<std::pair<std::string, Entries<Key>>> makeKeys(size_t n, unsigned keyBits, std::mt19937_64& random)
{
    const Key all = keyBits == 8 * sizeof(Key) ? ~Key{0} : (Key{1} << keyBits) - 1u;
    const unsigned lowBits = keyBits > 32 ? keyBits - 32 : 0;
    std::vector<uint32_t> values(n);
    for (uint32_t& value : values)
        value = static_cast<uint32_t>(random());
    std::vector<std::pair<std::string, Entries<Key>>> shapes;
    const auto add = [&](const std::string& name, const std::function<Key(size_t)>& keyOf) {
        shapes.push_back({name, {}});
        for (size_t i = 0; i < n; ++i)
            shapes.back().second.emplace_back(keyOf(i) & all, values[i]);
    };
    add("even", [&](size_t) { return static_cast<Key>(random()); });
    const Key clusters[] = {static_cast<Key>(random()), static_cast<Key>(random()), static_cast<Key>(random())};
    add("clustered", [&](size_t i) {
        const Key near = static_cast<Key>(random()) & ((Key{1} << (lowBits + 2)) - 1u);
        return (clusters[i * 3 / std::max<size_t>(n, 1)] & ~((Key{1} << (lowBits + 2)) - 1u)) | near;
    });
    const Key shared = static_cast<Key>(random());
    add("top bits shared", [&](size_t) {
        const Key below = lowBits ? static_cast<Key>(random() >> (64 - lowBits)) : 0;
        return lowBits ? (shared & ~((Key{1} << lowBits) - 1u)) | below : shared;
    });
    // Top bits 12 to 21 lie in the second pass's digit; 5 to 16 in the first two.
    add("one digit apart", [&](size_t) { return shared ^ ((static_cast<Key>(random()) & 0x3FFu) << (lowBits + 12)); });
    add("two digits apart", [&](size_t) { return shared ^ ((static_cast<Key>(random()) & 0xFFFu) << (lowBits + 5)); });
    add("repeated", [&](size_t) { return clusters[random() % 3]; });
    return shapes;
}

// The longest run of keys that share their bits above lowBits.
template <typename Key>
size_t longestTie(const Entries<Key>& entries, unsigned lowBits)
{
    std::vector<Key> tops;
    for (const auto& entry : entries)
        tops.push_back(entry.first >> lowBits);
    std::sort(tops.begin(), tops.end());
    size_t longest = 0;
    for (size_t i = 0, j = 0; i < tops.size(); i = j)
    {
        while (j < tops.size() && tops[j] == tops[i])
            ++j;
        longest = std::max(longest, j - i);
    }
    return longest;
}
} // namespace

TEST(LinearBuilderSort, EveryWayGivesTheStableOrderOfWideKeys)
{
    std::mt19937_64 random(7);
    const Sort<uint64_t> ways[] = {kxLinearBVH::radixSort<uint64_t>,
                                   kxLinearBVH::radixSortMostSignificantFirst<uint64_t>,
                                   kxLinearBVH::radixSortTopHalfFirst};
    const char* const names[] = {"either", "most significant first", "top half first"};
    for (const unsigned keyBits : {33u, 45u, 60u, 63u, 64u})
        for (const size_t n : {0u, 1u, 2u, 3u, 31u, 33u, 97u, 1000u, 70000u})
            for (const auto& [shape, entries] : makeKeys<uint64_t>(n, keyBits, random))
            {
                // Runs that tie on the top bits are sorted apart only when longer than an
                // insertion pass takes; the clustered keys must make such runs.
                if (shape == "clustered" && n >= 1000)
                {
                    ASSERT_GT(longestTie(entries, keyBits - 32), 32u);
                }
                for (int way = 0; way < 3; ++way)
                {
                    SCOPED_TRACE(std::string(names[way]) + ", " + shape + ", " + std::to_string(n) + " keys of " +
                                 std::to_string(keyBits) + " bits");
                    expectStableOrder(entries, keyBits, ways[way]);
                }
            }
}

// Around the size where the sort changes its way, and narrow keys, which have one way.
TEST(LinearBuilderSort, GivesTheStableOrderOnEitherSideOfItsSwitchAndForNarrowKeys)
{
    std::mt19937_64 random(11);
    for (const size_t n : {size_t{1} << 18, (size_t{1} << 18) + 1})
        for (const auto& [shape, entries] : makeKeys<uint64_t>(n, 60, random))
        {
            SCOPED_TRACE(shape + ", " + std::to_string(n) + " keys");
            expectStableOrder<uint64_t>(entries, 60, kxLinearBVH::radixSort<uint64_t>);
        }
    for (const unsigned keyBits : {1u, 9u, 30u, 32u})
        for (const size_t n : {2u, 40u, 5000u})
            for (const auto& [shape, entries] : makeKeys<uint32_t>(n, keyBits, random))
            {
                SCOPED_TRACE(shape + ", " + std::to_string(n) + " keys of " + std::to_string(keyBits) + " bits");
                expectStableOrder<uint32_t>(entries, keyBits, kxLinearBVH::radixSort<uint32_t>);
            }
}
