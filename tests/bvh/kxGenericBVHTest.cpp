#include "kxGenericBVH.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

TEST(GenericBVH, NodeRecordsStartAsTheEmptyBoxAndZerosAndMemoryCountsCapacities)
{
    EXPECT_TRUE(sizeof(kxGNode) == 32u && offsetof(kxGNode, offset) == 24u && offsetof(kxGNode, count) == 28u);
    kxGenericBVH bvh;
    EXPECT_EQ(bvh.getMemoryUsed(), 8u);
    // Ten index entries and three records reserved, two of them in use: 40 + 96 + 8 bytes.
    bvh.mPrimitiveIndices.reserve(10);
    bvh.mNodes.reserve(3);
    bvh.mNodes.resize(2);
    bvh.mPrimitiveCount = 123456;
    ASSERT_TRUE(bvh.mPrimitiveIndices.capacity() == 10u && bvh.mNodes.capacity() == 3u);
    EXPECT_EQ(bvh.getMemoryUsed(), 144u);
    const uint32_t expected[8] = {0x7F800000u, 0x7F800000u, 0x7F800000u, 0xFF800000u, 0xFF800000u, 0xFF800000u, 0, 0};
    for (const kxGNode& node : bvh.mNodes)
        EXPECT_EQ(std::memcmp(&node, expected, sizeof expected), 0);
}
