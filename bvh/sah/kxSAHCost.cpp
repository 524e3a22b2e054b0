#include "kxGenericBVHBuilder.h"

#include <vector>

namespace
{
double halfArea(const kxBBox& b)
{
    const double ex = static_cast<double>(b.max[0]) - b.min[0];
    const double ey = static_cast<double>(b.max[1]) - b.min[1];
    const double ez = static_cast<double>(b.max[2]) - b.min[2];
    if (!(ex >= 0.0 && ey >= 0.0 && ez >= 0.0))
        return 0.0;
    return ex * (ey + ez) + ey * ez;
}
} // namespace

double kxComputeSAHCost(const kxGenericBVH& bvh)
{
    if (bvh.mNodes.empty())
        return 0.0;
    const double rootArea = halfArea(bvh.mNodes[0].bbox);
    if (rootArea <= 0.0)
        return 0.0;
    double sum = 0.0;
    std::vector<uint32_t> stack{0u};
    while (!stack.empty())
    {
        const kxGNode& n = bvh.mNodes[stack.back()];
        stack.pop_back();
        const double area = halfArea(n.bbox);
        if (n.offset >= kxGNode::eLeafMark)
        {
            sum += area * (4.0 + static_cast<double>(n.count));
            continue;
        }
        sum += area * 4.0;
        stack.push_back(n.count & kxGNode::eRightChildMask);
        stack.push_back(n.offset & kxGNode::eIndexMask);
    }
    return sum / rootArea;
}
