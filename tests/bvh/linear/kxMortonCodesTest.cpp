#include "kxHighestBit.h"
#include "kxMortonCodes.h"

#include <gtest/gtest.h>

#include <random>

using namespace kxLinearBVH;

namespace
{
template <typename Word>
unsigned highestBitByScan(Word x)
{
    unsigned bit = 8 * sizeof(Word) - 1;
    while (!((x >> bit) & 1u))
        --bit;
    return bit;
}

uint64_t interleaveByBits(uint32_t x, uint32_t y, uint32_t z, unsigned axisBits)
{
    uint64_t code = 0;
    for (unsigned k = 0; k < axisBits; ++k)
        code |= (uint64_t{(x >> k) & 1u} << (3 * k)) | (uint64_t{(y >> k) & 1u} << (3 * k + 1)) |
                (uint64_t{(z >> k) & 1u} << (3 * k + 2));
    return code;
}
} // namespace

TEST(HighestBit, MatchesAScanForEveryTopBitOfBothWidths)
{
    std::mt19937_64 random(5);
    for (unsigned bit = 0; bit < 64; ++bit)
    {
        for (int trial = 0; trial < 50; ++trial)
        {
            const uint64_t below = bit == 0 ? 0 : random() & ((uint64_t{1} << bit) - 1u);
            const uint64_t word = (uint64_t{1} << bit) | (trial == 0 ? 0 : below);
            ASSERT_EQ(highestBit(word), bit) << std::hex << word;
            if (bit < 32)
            {
                ASSERT_EQ(highestBit(static_cast<uint32_t>(word)), highestBitByScan(static_cast<uint32_t>(word)))
                    << std::hex << word;
            }
        }
    }
}

TEST(MortonCodes, PutAxisBitKOfXYZAtCodeBits3K3KPlus1And3KPlus2)
{
    std::mt19937 random(9);
    for (int trial = 0; trial < 20000; ++trial)
    {
        const uint32_t x = random() & 0x1FFFFFu, y = random() & 0x1FFFFFu, z = random() & 0x1FFFFFu;
        ASSERT_EQ(mortonCode64(x, y, z), interleaveByBits(x, y, z, 21)) << x << " " << y << " " << z;
        ASSERT_EQ(mortonCode32(x & 0x3FFu, y & 0x3FFu, z & 0x3FFu),
                  interleaveByBits(x & 0x3FFu, y & 0x3FFu, z & 0x3FFu, 10))
            << x << " " << y << " " << z;
    }
    EXPECT_EQ(mortonCode64(0x1FFFFFu, 0x1FFFFFu, 0x1FFFFFu), 0x7FFFFFFFFFFFFFFFull);
    EXPECT_EQ(mortonCode32(0x3FFu, 0x3FFu, 0x3FFu), 0x3FFFFFFFu);
}
