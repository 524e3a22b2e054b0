#include "kxQBVHStatistics.h"

#include <vector>

namespace
{
double halfArea(double ex, double ey, double ez)
{
    if (!(ex >= 0.0 && ey >= 0.0 && ez >= 0.0))
        return 0.0;
    return ex * (ey + ez) + ey * ez;
}
} // namespace

double kxComputeQBVHSAHCost(const kxQBVH& qbvh)
{
    if (qbvh.getNodeCount() == 0)
        return qbvh.getGroupCount();
    const kxBBox& root = qbvh.getBBox();
    const double rootArea = halfArea(double(root.max[0]) - root.min[0], double(root.max[1]) - root.min[1],
                                     double(root.max[2]) - root.min[2]);
    if (!(rootArea > 0.0))
        return 0.0;
    double sum = rootArea;
    std::vector<uint32_t> stack{0u};
    while (!stack.empty())
    {
        const kxQBVH::tQBVHNode& node = qbvh.getNodes()[stack.back()];
        stack.pop_back();
        for (int k = 0; k < 4; ++k)
        {
            const double area = halfArea(double(node.bboxMax[0][k]) - node.bboxMin[0][k],
                                         double(node.bboxMax[1][k]) - node.bboxMin[1][k],
                                         double(node.bboxMax[2][k]) - node.bboxMin[2][k]);
            if (node.count[k] == 0xFFFFFFFFu)
            {
                sum += area;
                stack.push_back(node.child[k]);
            }
            else
                sum += area * node.count[k];
        }
    }
    return sum / rootArea;
}
