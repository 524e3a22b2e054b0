#ifndef KXSAHREFERENCE_H
#define KXSAHREFERENCE_H

#include "kxGenericBVHBuilder.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace kxtest
{
inline float centroid(const kxBBox& b, int a)
{
    return (b.min[a] + b.max[a]) * 0.5f;
}

/// Bin of a centroid inside a node box: truncated scaled offset, clamped to the last bin;
/// NaN (zero extent) means bin 0.
inline uint32_t referenceBin(const kxBBox& b, const kxBBox& node, int a, uint32_t bins)
{
    const float t = (centroid(b, a) - node.min[a]) * (float(bins) / (node.max[a] - node.min[a]));
    return std::isnan(t) ? 0 : std::min(static_cast<uint32_t>(static_cast<int64_t>(t)), bins - 1);
}

// Prices only the primitive count, so that equal costs across axes and bins are common.
class CountOnlyCost : public kxBVHCostFunctor
{
public:
    float f(const kxBBox& box, unsigned int n) const override
    {
        return box.min[0] <= box.max[0] ? float(n * n) + 3.0f : std::numeric_limits<float>::infinity();
    }
};

struct PlaneChoice
{
    bool split = false;
    kxBBox::tAxis axis = kxBBox::eAxisX;
    float pos = 0.0f;
};

/// Prices every plane between two bins of every axis by collecting both sides from
/// scratch; the first of equally cheap planes wins, and only a plane cheaper than the leaf.
inline PlaneChoice bruteForcePlane(const std::vector<kxBBox>& boxes, const std::vector<uint32_t>& range,
                                   const kxBBox& node, uint32_t bins, const kxBVHCostFunctor& cost)
{
    PlaneChoice best;
    float bestCost = std::numeric_limits<float>::infinity();
    uint32_t bestBin = 0;
    for (int a = 0; a < 3; ++a)
        for (uint32_t j = 0; j + 1 < bins; ++j)
        {
            kxBBox left, right;
            uint32_t nLeft = 0;
            for (uint32_t i : range)
            {
                const bool isLeft = referenceBin(boxes[i], node, a, bins) <= j;
                (isLeft ? left : right).extend(boxes[i]);
                nLeft += isLeft;
            }
            const float c = cost.f(left, nLeft) + cost.f(right, uint32_t(range.size()) - nLeft);
            if (c < bestCost)
            {
                bestCost = c;
                best.axis = kxBBox::tAxis(uint32_t(a) << 30);
                bestBin = j;
            }
        }
    if (bestCost < cost.f(node, uint32_t(range.size())))
    {
        const int a = kxBBox::component(best.axis);
        best.split = true;
        best.pos = float(bestBin + 1) * (node.max[a] - node.min[a]) / float(bins) + node.min[a];
    }
    return best;
}
} // namespace kxtest

#endif
