#ifndef KXSAHREFERENCE_H
#define KXSAHREFERENCE_H

#include "kxGenericBVHBuilder.h"

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
    if (std::isnan(t))
        return 0;
    const auto j = static_cast<uint32_t>(static_cast<int64_t>(t));
    return j < bins - 1 ? j : bins - 1;
}

struct PlaneChoice
{
    bool split = false;
    kxBBox::tAxis axis = kxBBox::eAxisX;
    float pos = 0.0f;
    float cost = std::numeric_limits<float>::infinity();
    float leafCost = 0.0f;
};

/// Evaluates every candidate plane of every axis by collecting both sides from scratch.
inline PlaneChoice bruteForcePlane(const std::vector<kxBBox>& boxes, const std::vector<uint32_t>& range,
                                   const kxBBox& node, uint32_t bins, const kxBVHCostFunctor& cost)
{
    const kxBBox::tAxis axes[3] = {kxBBox::eAxisX, kxBBox::eAxisY, kxBBox::eAxisZ};
    const auto n = static_cast<uint32_t>(range.size());
    PlaneChoice best;
    uint32_t bestBin = 0;
    for (int a = 0; a < 3; ++a)
    {
        for (uint32_t j = 0; j + 1 < bins; ++j)
        {
            kxBBox left, right;
            uint32_t nLeft = 0;
            for (uint32_t i : range)
            {
                if (referenceBin(boxes[i], node, a, bins) <= j)
                {
                    left.extend(boxes[i]);
                    ++nLeft;
                }
                else
                {
                    right.extend(boxes[i]);
                }
            }
            const float c = cost.f(left, nLeft) + cost.f(right, n - nLeft);
            if (c < best.cost)
            {
                best.cost = c;
                best.axis = axes[a];
                bestBin = j;
            }
        }
    }
    best.leafCost = cost.f(node, n);
    if (best.cost < best.leafCost)
    {
        const int a = kxBBox::component(best.axis);
        best.split = true;
        best.pos = float(bestBin + 1) * (node.max[a] - node.min[a]) / float(bins) + node.min[a];
    }
    return best;
}
} // namespace kxtest

#endif
