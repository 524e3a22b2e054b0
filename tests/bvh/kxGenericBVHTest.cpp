#include "kxGenericBVH.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <random>
#include <type_traits>

namespace
{
// Bytes of the words the hierarchy keeps, from the element sizes.
uint64_t wordsInBytes(const kxGenericBVH& bvh)
{
    return bvh.mPrimitiveIndices.capacity() * sizeof(uint32_t) + bvh.mNodes.capacity() * sizeof(kxGNode) +
           sizeof bvh.mPrimitiveCount + sizeof bvh.mNodeCount;
}
} // namespace

TEST(GenericBVH, NodeRecordIsEightWordsBoxThenOffsetThenCount)
{
    static_assert(std::is_standard_layout<kxGNode>::value, "readers walk node records word by word");
    EXPECT_EQ(sizeof(kxGNode), 32u);
    EXPECT_EQ(offsetof(kxGNode, bbox), 0u);
    EXPECT_EQ(offsetof(kxGNode, offset), 24u);
    EXPECT_EQ(offsetof(kxGNode, count), 28u);
}

TEST(GenericBVH, NewRecordsHoldTheEmptyBoxAndZeroWords)
{
    kxGenericBVH bvh;
    EXPECT_TRUE(bvh.mPrimitiveIndices.empty());
    EXPECT_TRUE(bvh.mNodes.empty());
    EXPECT_EQ(bvh.mPrimitiveCount, 0u);
    EXPECT_EQ(bvh.mNodeCount, 0u);

    bvh.mNodes.resize(1024);
    const uint32_t expected[8] = {0x7F800000u, 0x7F800000u, 0x7F800000u, 0xFF800000u,
                                  0xFF800000u, 0xFF800000u, 0u,          0u};
    for (const kxGNode& node : bvh.mNodes)
    {
        uint32_t words[8];
        std::memcpy(words, &node, sizeof words);
        for (int w = 0; w < 8; ++w)
            ASSERT_EQ(words[w], expected[w]) << "word " << w;
    }
}

TEST(GenericBVH, MemoryUsedCountsCapacitiesAndTheTwoCounters)
{
    kxGenericBVH empty;
    EXPECT_EQ(empty.getMemoryUsed(), 8u);

    std::mt19937 rng(3);
    std::uniform_int_distribution<size_t> size(0, 5000);
    for (int round = 0; round < 50; ++round)
    {
        kxGenericBVH bvh;
        bvh.mPrimitiveIndices.reserve(size(rng));
        bvh.mNodes.reserve(size(rng));
        // Sizes below the capacities must not matter.
        bvh.mPrimitiveIndices.resize(bvh.mPrimitiveIndices.capacity() / 3);
        bvh.mNodes.resize(bvh.mNodes.capacity() / 2);
        bvh.mPrimitiveCount = 123456;
        bvh.mNodeCount = 99;
        EXPECT_EQ(bvh.getMemoryUsed(), wordsInBytes(bvh));
    }

    // Ten reserved entries and three reserved records, none in use: 40 + 96 + 8 bytes.
    kxGenericBVH reserved;
    reserved.mPrimitiveIndices.reserve(10);
    reserved.mNodes.reserve(3);
    ASSERT_EQ(reserved.mPrimitiveIndices.capacity(), 10u);
    ASSERT_EQ(reserved.mNodes.capacity(), 3u);
    EXPECT_EQ(reserved.getMemoryUsed(), 144u);
}
