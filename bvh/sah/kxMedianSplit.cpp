#include "kxGenericBVHBuilder.h"

#include <cstring>
#include <utility>

namespace
{
inline uint32_t keyBits(float key)
{
    uint32_t bits;
    std::memcpy(&bits, &key, sizeof bits);
    return bits;
}
} // namespace

void kxGenericBVHBuilder::findMedianSplit(const kxGNode& node, unsigned int start, unsigned int count,
                                          kxBBox::tAxis& axis, float& pos)
{
    const int a = kxBBox::component(axis);
    // Relative to the node's minimum every key is non-negative, so the raw bit patterns
    // sort in numeric order.
    const float origin = node.bbox.min[a];
    for (unsigned int i = 0; i < count; ++i)
    {
        const kxBBox& b = mPrimitiveBoxes[mIndices[start + i]];
        mMedianKeys[i] = (b.min[a] + b.max[a]) * 0.5f - origin;
    }
    radixSortKeys(count);
    const kxBBox& median = mPrimitiveBoxes[mIndices[start + mMedianPermutation[count >> 1]]];
    pos = (median.max[a] + median.min[a]) * 0.5f;
}

void kxGenericBVHBuilder::radixSortKeys(unsigned int n)
{
    uint32_t histogram[4][256] = {};
    for (unsigned int i = 0; i < n; ++i)
    {
        const uint32_t k = keyBits(mMedianKeys[i]);
        ++histogram[0][k & 0xFFu];
        ++histogram[1][(k >> 8) & 0xFFu];
        ++histogram[2][(k >> 16) & 0xFFu];
        ++histogram[3][k >> 24];
    }
    for (unsigned int i = 0; i < n; ++i)
        mMedianPermutation[i] = i;

    // Four passes, so the result lands back in the permutation array (and the keys, now
    // sorted, back in the key array).
    uint32_t* source = mMedianPermutation.data();
    uint32_t* destination = mMedianScratch.data();
    float* sourceKeys = mMedianKeys.data();
    float* destinationKeys = mMedianKeyScratch.data();
    for (int pass = 0; pass < 4; ++pass)
    {
        const int shift = 8 * pass;
        uint32_t* offset = histogram[pass];
        uint32_t sum = 0;
        for (int d = 0; d < 256; ++d)
        {
            const uint32_t c = offset[d];
            offset[d] = sum;
            sum += c;
        }
        for (unsigned int i = 0; i < n; ++i)
        {
            const uint32_t k = keyBits(sourceKeys[i]);
            const uint32_t slot = offset[(k >> shift) & 0xFFu]++;
            std::memcpy(&destinationKeys[slot], &k, sizeof k);
            destination[slot] = source[i];
        }
        std::swap(source, destination);
        std::swap(sourceKeys, destinationKeys);
    }
}
