#ifndef KXHIGHESTBIT_H
#define KXHIGHESTBIT_H

#include <array>
#include <cstdint>
#include <utility>

namespace kxLinearBVH
{
constexpr uint32_t kDeBruijn32 = 0x07C4ACDDu;
constexpr uint64_t kDeBruijn64 = 0x022FDD63CC95386Dull;

// Indexed by the top five bits of a smeared value (all bits up to the highest set) times
// the multiplier.
constexpr std::array<uint8_t, 32> makeHighestBitTable32()
{
    std::array<uint8_t, 32> table{};
    for (unsigned i = 0; i < 32; ++i)
        table[static_cast<uint32_t>(static_cast<uint32_t>((2ull << i) - 1u) * kDeBruijn32) >> 27] =
            static_cast<uint8_t>(i);
    return table;
}

// Indexed by the top six bits of an isolated bit times the multiplier.
constexpr std::array<uint8_t, 64> makeHighestBitTable64()
{
    std::array<uint8_t, 64> table{};
    for (unsigned i = 0; i < 64; ++i)
        table[((1ull << i) * kDeBruijn64) >> 58] = static_cast<uint8_t>(i);
    return table;
}

constexpr std::array<uint8_t, 32> kHighestBitTable32 = makeHighestBitTable32();
constexpr std::array<uint8_t, 64> kHighestBitTable64 = makeHighestBitTable64();

template <typename Word, unsigned... Step>
inline Word smearRight(Word x, std::integer_sequence<unsigned, Step...>)
{
    ((x |= x >> (1u << Step)), ...);
    return x;
}

/// Sets every bit below the highest set bit: shifts by 1, 2, 4, ... up to half the word.
template <typename Word>
inline Word smearRight(Word x)
{
    return smearRight(x, std::make_integer_sequence < unsigned, sizeof(Word) == 8 ? 6 : 5 > ());
}

/// Index of the highest set bit, without a loop over bits; x must not be 0.
inline unsigned highestBit(uint32_t x)
{
    return kHighestBitTable32[(smearRight(x) * kDeBruijn32) >> 27];
}

/// Index of the highest set bit, without a loop over bits; x must not be 0.
inline unsigned highestBit(uint64_t x)
{
    x = smearRight(x);
    return kHighestBitTable64[((x ^ (x >> 1)) * kDeBruijn64) >> 58];
}
} // namespace kxLinearBVH

#endif
