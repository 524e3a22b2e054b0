#include "kxQBVH.h"
#include "kxSimd4.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

using namespace kxSimd;

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

// The equations of a group's four triangles at once, each lane computed with the
// operations, in the order, that fix its rounding; lanes from realLanes on get the padding
// that no ray can hit (its u-plane gives u = -1 everywhere).
void writeEquations(const float (&corner)[3][3][4], uint32_t realLanes, kxQBVH::tSOATriangleEquations& block)
{
    const vfloat4 c0x = vfloat4::load(corner[0][0]), c0y = vfloat4::load(corner[0][1]), c0z = vfloat4::load(corner[0][2]);
    const vfloat4 e1x = vfloat4::load(corner[1][0]) - c0x, e1y = vfloat4::load(corner[1][1]) - c0y,
                  e1z = vfloat4::load(corner[1][2]) - c0z;
    const vfloat4 e2x = vfloat4::load(corner[2][0]) - c0x, e2y = vfloat4::load(corner[2][1]) - c0y,
                  e2z = vfloat4::load(corner[2][2]) - c0z;
    const vfloat4 mx = e1y * e2z - e1z * e2y;
    const vfloat4 my = e1z * e2x - e1x * e2z;
    const vfloat4 mz = e1x * e2y - e1y * e2x;
    const vfloat4 len = sqrt(mx * mx + my * my + mz * mz);

    // A degenerate triangle (or a NaN) keeps its unnormalised normal and d = 1.
    const vfloat4 one(1.0f);
    const vmask4 normalised = len > vfloat4(0.0f);
    const vfloat4 inv = one / len;
    const vfloat4 nx = select(normalised, mx * inv, mx), ny = select(normalised, my * inv, my),
                  nz = select(normalised, mz * inv, mz);
    const vfloat4 d = select(normalised, -(c0x * nx + c0y * ny + c0z * nz), one);

    const vfloat4 a = one / (e1x * e1x + e1y * e1y + e1z * e1z);
    const vfloat4 b = one / (e2x * e2x + e2y * e2y + e2z * e2z);
    const vfloat4 c = e1x * e2x + e1y * e2y + e1z * e2z;
    const vfloat4 s = one / (one - a * c * (c * b));

    const vfloat4 u1 = a * s, u2 = -(c * b) * a * s;
    const vfloat4 ux = u1 * e1x + u2 * e2x, uy = u1 * e1y + u2 * e2y, uz = u1 * e1z + u2 * e2z;
    const vfloat4 v1 = -(a * c) * b * s, v2 = b * s;
    const vfloat4 vx = v1 * e1x + v2 * e2x, vy = v1 * e1y + v2 * e2y, vz = v1 * e1z + v2 * e2z;

    const vfloat4 uc = -(ux * c0x + uy * c0y + uz * c0z), vc = -(vx * c0x + vy * c0y + vz * c0z);

    float(*eq)[4] = block.eq;
    if (realLanes == 4)
    {
        nx.store(eq[0]), ny.store(eq[1]), nz.store(eq[2]), d.store(eq[3]);
        ux.store(eq[4]), uy.store(eq[5]), uz.store(eq[6]), uc.store(eq[7]);
        vx.store(eq[8]), vy.store(eq[9]), vz.store(eq[10]), vc.store(eq[11]);
        return;
    }
    const vmask4 real = laneBelow(realLanes);
    const vfloat4 zero(0.0f), minusOne(-1.0f);
    select(real, nx, zero).store(eq[0]);
    select(real, ny, zero).store(eq[1]);
    select(real, nz, zero).store(eq[2]);
    select(real, d, vfloat4(std::numeric_limits<float>::infinity())).store(eq[3]);
    select(real, ux, zero).store(eq[4]);
    select(real, uy, zero).store(eq[5]);
    select(real, uz, zero).store(eq[6]);
    select(real, uc, minusOne).store(eq[7]);
    select(real, vx, zero).store(eq[8]);
    select(real, vy, zero).store(eq[9]);
    select(real, vz, zero).store(eq[10]);
    select(real, vc, minusOne).store(eq[11]);
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
        const uint32_t* primitives = bvh.mPrimitiveIndices.data() + (leaf.offset & kxGNode::eIndexMask);
        const uint32_t groups = groupsFor(n);
        for (uint32_t g = 0; g < groups; ++g)
        {
            const uint32_t group = firstGroup + g;
            const uint32_t realLanes = std::min(n - 4 * g, 4u);
            // [corner][axis][lane], as the vertex block stores them; padding lanes hold zeros.
            alignas(16) float corner[3][3][4];
            alignas(16) uint32_t index[4];
            for (uint32_t lane = 0; lane < 4; ++lane)
            {
                if (lane >= realLanes)
                {
                    index[lane] = kNone;
                    for (int c = 0; c < 3; ++c)
                        corner[c][0][lane] = corner[c][1][lane] = corner[c][2][lane] = 0.0f;
                    continue;
                }
                const uint32_t t = primitives[4 * g + lane];
                index[lane] = t;
                const unsigned int* corners = indices + 3 * static_cast<size_t>(t);
                const Wm4::Vector3<float>& p0 = vertices.Position3(static_cast<int>(corners[0]));
                const Wm4::Vector3<float>& p1 = vertices.Position3(static_cast<int>(corners[1]));
                const Wm4::Vector3<float>& p2 = vertices.Position3(static_cast<int>(corners[2]));
                corner[0][0][lane] = p0[0], corner[0][1][lane] = p0[1], corner[0][2][lane] = p0[2];
                corner[1][0][lane] = p1[0], corner[1][1][lane] = p1[1], corner[1][2][lane] = p1[2];
                corner[2][0][lane] = p2[0], corner[2][1][lane] = p2[1], corner[2][2][lane] = p2[2];
            }
            vuint4::load(index).store(mTriangleIndices[group].index);
            if (mTriangleVertices)
                std::memcpy(mTriangleVertices[group].corner, corner, sizeof(corner));
            if (mTriangleEquations)
                writeEquations(corner, realLanes, mTriangleEquations[group]);
        }
    };

    if (isLeaf(root))
    {
        if (mTriangleIndices)
            fillLeaf(root, 0);
    }
    else
    {
        // Depth first, slots in order: leaves are filled in the order of their primitives,
        // which keeps the reads of primitive numbers and vertices running forward.
        pending.push_back(0);
        while (!pending.empty())
        {
            const uint32_t n = pending.back();
            pending.pop_back();
            const kxGNode& binary = bvh.mNodes[n];
            if (isLeaf(binary))
            {
                if (mTriangleIndices)
                    fillLeaf(binary, groupCounts[n]);
                continue;
            }
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
                }
                else
                {
                    node.child[k] = nodeMarks[s];
                    node.count[k] = kNone;
                }
            }
            for (int k = 3; k >= 0; --k)
                if (slots[k] != kNone)
                    pending.push_back(slots[k]);
        }
    }

    if (!computeRootNodeBBox())
        mBBox = root.bbox;
}
