#include "kxQBVH.h"

#include <cmath>
#include <limits>
#include <vector>

namespace
{
constexpr uint32_t kNone = 0xFFFFFFFFu;

bool isLeaf(const kxGNode& node)
{
    return (node.offset & kxGNode::eKindMask) == kxGNode::eLeafMark;
}

// (count + 3) >> 2 in 32 bits: counts of 0xFFFFFFFD and more wrap to no groups, which the
// leaf fill then skips as well.
uint32_t groupsFor(uint32_t primitiveCount)
{
    return (primitiveCount + 3u) >> 2;
}

// Binary nodes that fill the four slots of the four-wide node made from inner node n:
// each child's own children when it is inner, else the child itself and an empty slot.
void slotNodes(const kxGenericBVH& bvh, uint32_t n, uint32_t slots[4])
{
    const kxGNode& node = bvh.mNodes[n];
    const uint32_t children[2] = {node.offset & kxGNode::eIndexMask, node.count & kxGNode::eRightChildMask};
    for (int side = 0; side < 2; ++side)
    {
        const kxGNode& child = bvh.mNodes[children[side]];
        if (isLeaf(child))
        {
            slots[2 * side] = children[side];
            slots[2 * side + 1] = kNone;
        }
        else
        {
            slots[2 * side] = child.offset & kxGNode::eIndexMask;
            slots[2 * side + 1] = child.count & kxGNode::eRightChildMask;
        }
    }
}

void writeEquations(const Wm4::Vector3<float>& c0, const Wm4::Vector3<float>& c1, const Wm4::Vector3<float>& c2,
                    kxQBVH::tSOATriangleEquations& block, int lane)
{
    const float e1x = c1[0] - c0[0], e1y = c1[1] - c0[1], e1z = c1[2] - c0[2];
    const float e2x = c2[0] - c0[0], e2y = c2[1] - c0[1], e2z = c2[2] - c0[2];
    const float mx = e1y * e2z - e1z * e2y;
    const float my = e1z * e2x - e1x * e2z;
    const float mz = e1x * e2y - e1y * e2x;
    const float len = std::sqrt(mx * mx + my * my + mz * mz);

    float nx = mx, ny = my, nz = mz, d = 1.0f;
    if (len > 0.0f)
    {
        const float inv = 1.0f / len;
        nx = mx * inv;
        ny = my * inv;
        nz = mz * inv;
        d = -(c0[0] * nx + c0[1] * ny + c0[2] * nz);
    }

    // The operation order below fixes the rounding of the barycentric planes.
    const float a = 1.0f / (e1x * e1x + e1y * e1y + e1z * e1z);
    const float b = 1.0f / (e2x * e2x + e2y * e2y + e2z * e2z);
    const float c = e1x * e2x + e1y * e2y + e1z * e2z;
    const float s = 1.0f / (1.0f - a * c * (c * b));

    const float u1 = a * s, u2 = -(c * b) * a * s;
    const float ux = u1 * e1x + u2 * e2x, uy = u1 * e1y + u2 * e2y, uz = u1 * e1z + u2 * e2z;
    const float v1 = -(a * c) * b * s, v2 = b * s;
    const float vx = v1 * e1x + v2 * e2x, vy = v1 * e1y + v2 * e2y, vz = v1 * e1z + v2 * e2z;

    const float values[12] = {nx, ny, nz, d,
                              ux, uy, uz, -(ux * c0[0] + uy * c0[1] + uz * c0[2]),
                              vx, vy, vz, -(vx * c0[0] + vy * c0[1] + vz * c0[2])};
    for (int i = 0; i < 12; ++i)
        block.eq[i][lane] = values[i];
}

// A padding lane can never be hit: its u-plane gives u = -1 everywhere.
void writePaddingEquations(kxQBVH::tSOATriangleEquations& block, int lane)
{
    const float values[12] = {0.0f, 0.0f, 0.0f, std::numeric_limits<float>::infinity(),
                              0.0f, 0.0f, 0.0f, -1.0f,
                              0.0f, 0.0f, 0.0f, -1.0f};
    for (int i = 0; i < 12; ++i)
        block.eq[i][lane] = values[i];
}
} // namespace

void kxQBVH::buildFromBVH(tQBVHDataFlags flags, const kxGenericBVH& bvh, const kx::kxTriMesh& mesh)
{
    if (bvh.mNodes.empty())
    {
        allocate(flags, 0, 0);
        mBBox = kxBBox();
        return;
    }

    const size_t B = bvh.mNodes.size();
    std::vector<uint32_t> nodeMarks(B + 1, 0);
    std::vector<uint32_t> groupCounts(B + 1, 0);
    std::vector<uint32_t> pending;
    uint32_t totalGroups = 0;

    const kxGNode& root = bvh.mNodes[0];
    if (isLeaf(root))
    {
        groupCounts[1] = groupsFor(root.count);
        totalGroups = groupCounts[1];
    }
    else
    {
        nodeMarks[1] = 1;
        pending.push_back(0);
        while (!pending.empty())
        {
            const uint32_t n = pending.back();
            pending.pop_back();
            uint32_t slots[4];
            slotNodes(bvh, n, slots);
            for (uint32_t s : slots)
            {
                if (s == kNone)
                    continue;
                const kxGNode& node = bvh.mNodes[s];
                if (isLeaf(node))
                {
                    groupCounts[s + 1] = groupsFor(node.count);
                    totalGroups += groupCounts[s + 1];
                }
                else
                {
                    nodeMarks[s + 1] = 1;
                    pending.push_back(s);
                }
            }
        }
    }

    // Running sums number four-wide nodes and leaf groups in binary node order.
    for (size_t i = 1; i <= B; ++i)
    {
        nodeMarks[i] += nodeMarks[i - 1];
        groupCounts[i] += groupCounts[i - 1];
    }

    allocate(flags, nodeMarks[B], totalGroups);

    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const unsigned int* indices = mesh.GetIndexBuffer()->GetData();
    auto fillLeaf = [&](const kxGNode& leaf, uint32_t firstGroup) {
        const uint32_t n = leaf.count;
        if (n == 0 || n >= 0xFFFFFFFDu)
            return;
        const uint32_t first = leaf.offset & kxGNode::eIndexMask;
        const uint32_t groups = groupsFor(n);
        for (uint32_t g = 0; g < groups; ++g)
        {
            const uint32_t group = firstGroup + g;
            for (int lane = 0; lane < 4; ++lane)
            {
                const uint32_t j = 4 * g + static_cast<uint32_t>(lane);
                if (j >= n)
                {
                    mTriangleIndices[group].index[lane] = kNone;
                    if (mTriangleVertices)
                        for (int c = 0; c < 3; ++c)
                            for (int a = 0; a < 3; ++a)
                                mTriangleVertices[group].corner[c][a][lane] = 0.0f;
                    if (mTriangleEquations)
                        writePaddingEquations(mTriangleEquations[group], lane);
                    continue;
                }
                const uint32_t t = bvh.mPrimitiveIndices[first + j];
                const size_t base = 3 * static_cast<size_t>(t);
                const Wm4::Vector3<float>& c0 = vertices.Position3(static_cast<int>(indices[base]));
                const Wm4::Vector3<float>& c1 = vertices.Position3(static_cast<int>(indices[base + 1]));
                const Wm4::Vector3<float>& c2 = vertices.Position3(static_cast<int>(indices[base + 2]));
                if (mTriangleIndices)
                    mTriangleIndices[group].index[lane] = t;
                if (mTriangleVertices)
                {
                    const Wm4::Vector3<float>* corners[3] = {&c0, &c1, &c2};
                    for (int c = 0; c < 3; ++c)
                        for (int a = 0; a < 3; ++a)
                            mTriangleVertices[group].corner[c][a][lane] = (*corners[c])[a];
                }
                if (mTriangleEquations)
                    writeEquations(c0, c1, c2, mTriangleEquations[group], lane);
            }
        }
    };

    if (isLeaf(root))
    {
        if (mTriangleIndices)
            fillLeaf(root, 0);
    }
    else
    {
        pending.push_back(0);
        while (!pending.empty())
        {
            const uint32_t n = pending.back();
            pending.pop_back();
            tQBVHNode& node = mNodes[nodeMarks[n]];
            uint32_t slots[4];
            slotNodes(bvh, n, slots);
            for (int k = 0; k < 4; ++k)
            {
                const uint32_t s = slots[k];
                const kxBBox box = s == kNone ? kxBBox() : bvh.mNodes[s].bbox;
                for (int a = 0; a < 3; ++a)
                {
                    node.bboxMin[a][k] = box.min[a];
                    node.bboxMax[a][k] = box.max[a];
                }
                if (s == kNone)
                {
                    node.child[k] = kNone;
                    node.count[k] = 0;
                }
                else if (isLeaf(bvh.mNodes[s]))
                {
                    node.child[k] = groupCounts[s];
                    node.count[k] = groupCounts[s + 1] - groupCounts[s];
                    if (mTriangleIndices)
                        fillLeaf(bvh.mNodes[s], groupCounts[s]);
                }
                else
                {
                    node.child[k] = nodeMarks[s];
                    node.count[k] = kNone;
                    pending.push_back(s);
                }
            }
        }
    }

    if (!computeRootNodeBBox())
        mBBox = root.bbox;
}
