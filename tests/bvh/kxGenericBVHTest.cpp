#include "kxGenericBVH.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

TEST(GenericBVH, NodeRecordIsEightWordsStartingAsTheEmptyBoxAndZeros)
{
    EXPECT_EQ(sizeof(kxGNode), 32u);
    EXPECT_EQ(offsetof(kxGNode, offset), 24u);
    EXPECT_EQ(offsetof(kxGNode, count), 28u);

    kxGenericBVH bvh;
    bvh.mNodes.resize(16);
    const uint32_t expected[8] = {0x7F800000u, 0x7F800000u, 0x7F800000u, 0xFF800000u, 0xFF800000u, 0xFF800000u, 0, 0};
    for (const kxGNode& node : bvh.mNodes)
        EXPECT_EQ(std::memcmp(&node, expected, sizeof expected), 0);
}

TEST(GenericBVH, MemoryUsedCountsCapacitiesAndTheTwoCounters)
{
    kxGenericBVH bvh;
    EXPECT_EQ(bvh.getMemoryUsed(), 8u);
    // Ten index entries and three records reserved, two of them in use: 40 + 96 + 8 bytes.
    bvh.mPrimitiveIndices.reserve(10);
    bvh.mNodes.reserve(3);
    bvh.mNodes.resize(2);
    bvh.mPrimitiveCount = 123456;
    bvh.mNodeCount = 99;
    ASSERT_EQ(bvh.mPrimitiveIndices.capacity(), 10u);
    ASSERT_EQ(bvh.mNodes.capacity(), 3u);
    EXPECT_EQ(bvh.getMemoryUsed(), 144u);
}
