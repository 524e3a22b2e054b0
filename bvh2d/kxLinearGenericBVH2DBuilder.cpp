#include "kxGenericBVH2D.h"

#include <algorithm>

namespace
{
constexpr uint32_t kLeafMark = 0xC0000000u;
constexpr uint32_t kAxisX = 0x00000000u;
constexpr uint32_t kAxisY = 0x40000000u;
constexpr float kCellsPerAxis = 65535.0f;

// Cell index in 0 .. 65535; NaN and values below the scene box land in cell 0.
inline uint32_t quantize(float v, float origin, float scale)
{
    const float q = (v - origin) * scale;
    if (!(q > 0.0f))
        return 0u;
    return q >= kCellsPerAxis ? 65535u : static_cast<uint32_t>(q);
}

// Spreads the 16 low bits of v to the even bits.
inline uint32_t spreadBits(uint32_t v)
{
    v &= 0x0000FFFFu;
    v = (v | (v << 8)) & 0x00FF00FFu;
    v = (v | (v << 4)) & 0x0F0F0F0Fu;
    v = (v | (v << 2)) & 0x33333333u;
    v = (v | (v << 1)) & 0x55555555u;
    return v;
}

inline int highestBit(uint32_t v)
{
    return 31 - __builtin_clz(v);
}
} // namespace

kxLinearGenericBVH2DBuilder::tPrimitiveContainerInterface::~tPrimitiveContainerInterface() = default;

/// The build itself: codes and sort, top-down emission, refit.
class kxLinearGenericBVH2DBuilder::kxLinearBVH2DBuilderInternal
{
public:
    static void BuildLinearBVH(const tPrimitiveContainerInterface& container, kxGenericBVH2D& bvh,
                               uint32_t maxPrimitivesPerLeaf)
    {
        kxLinearBVH2DBuilderInternal b(container, bvh, maxPrimitivesPerLeaf);
        b.sortByCode();
        const uint32_t n = static_cast<uint32_t>(b.mCodes.size());
        bvh.mNodes.assign(n > 0 ? 2u * n - 1u : 1u, kxGNode2D());
        bvh.mNodeCount = 1;
        b.emit(0, 0, n);
        bvh.mNodes.resize(bvh.mNodeCount);
        b.refit(0);
        bvh.mPrimitiveIndices = std::move(b.mOrder);
        bvh.mPrimitiveCount = n;
    }

private:
    kxLinearBVH2DBuilderInternal(const tPrimitiveContainerInterface& container, kxGenericBVH2D& bvh,
                                 uint32_t maxPrimitivesPerLeaf)
        : mContainer(container), mBvh(bvh), mMaxLeaf(maxPrimitivesPerLeaf)
    {
    }

    void sortByCode()
    {
        const uint32_t n = mContainer.getQuantity();
        kxBBox2D centres;
        for (uint32_t i = 0; i < n; ++i)
            centres.extend(mContainer.getBBox(i).getCenter());
        float scale[2];
        for (int a = 0; a < 2; ++a)
        {
            const float extent = centres.max[a] - centres.min[a];
            scale[a] = extent > 0.0f ? kCellsPerAxis / extent : 0.0f;
        }
        // Code in the high half, primitive number in the low half: one sort orders by
        // code and keeps equal codes in ascending primitive number.
        std::vector<uint64_t> keys(n);
        for (uint32_t i = 0; i < n; ++i)
        {
            const Wm4::Vector2<float> c = mContainer.getBBox(i).getCenter();
            const uint32_t code = spreadBits(quantize(c[0], centres.min[0], scale[0])) |
                                  (spreadBits(quantize(c[1], centres.min[1], scale[1])) << 1);
            keys[i] = (static_cast<uint64_t>(code) << 32) | i;
        }
        std::sort(keys.begin(), keys.end());
        mCodes.resize(n);
        mOrder.resize(n);
        for (uint32_t i = 0; i < n; ++i)
        {
            mCodes[i] = static_cast<uint32_t>(keys[i] >> 32);
            mOrder[i] = static_cast<uint32_t>(keys[i]);
        }
    }

    void emit(uint32_t node, uint32_t begin, uint32_t end)
    {
        const uint32_t count = end - begin;
        if (count <= mMaxLeaf)
        {
            mBvh.mNodes[node].offset = begin | kLeafMark;
            mBvh.mNodes[node].count = count;
            return;
        }
        uint32_t split = begin + count / 2;
        uint32_t axis = kAxisX;
        const uint32_t differing = mCodes[begin] ^ mCodes[end - 1];
        if (differing != 0)
        {
            const int bit = highestBit(differing);
            const uint32_t mask = 1u << bit;
            // The range shares every code bit above this one, so the set bit is sorted last.
            split = static_cast<uint32_t>(
                std::partition_point(mCodes.begin() + begin, mCodes.begin() + end,
                                     [mask](uint32_t code) { return (code & mask) == 0; }) -
                mCodes.begin());
            axis = (bit & 1) ? kAxisY : kAxisX;
        }
        const uint32_t left = mBvh.mNodeCount;
        mBvh.mNodeCount += 2;
        mBvh.mNodes[node].offset = left | axis;
        mBvh.mNodes[node].count = left + 1;
        emit(left, begin, split);
        emit(left + 1, split, end);
    }

    const kxBBox2D& refit(uint32_t node)
    {
        kxGNode2D& n = mBvh.mNodes[node];
        kxBBox2D box;
        if (n.offset >= kLeafMark)
        {
            const uint32_t first = n.offset & 0x3FFFFFFFu;
            for (uint32_t p = first; p < first + n.count; ++p)
                box.extend(mContainer.getBBox(mOrder[p]));
        }
        else
        {
            box.extend(refit(n.offset & 0x3FFFFFFFu));
            box.extend(refit(n.count));
        }
        n.bbox = box;
        return n.bbox;
    }

    const tPrimitiveContainerInterface& mContainer;
    kxGenericBVH2D& mBvh;
    uint32_t mMaxLeaf;
    std::vector<uint32_t> mCodes;
    std::vector<uint32_t> mOrder;
};

kxLinearGenericBVH2DBuilder::kxLinearGenericBVH2DBuilder() : mMaxPrimitivesPerLeaf(4) {}

void kxLinearGenericBVH2DBuilder::setMaxPrimitivesPerLeaf(unsigned int n)
{
    mMaxPrimitivesPerLeaf = n == 0 ? 1u : n;
}

void kxLinearGenericBVH2DBuilder::build(const tPrimitiveContainerInterface& container, kxGenericBVH2D& bvh) const
{
    kxLinearBVH2DBuilderInternal::BuildLinearBVH(container, bvh, mMaxPrimitivesPerLeaf);
}
