#include "kxQBVHCollapse.h"
#include "kxQBVHReference.h"
#include "kxSimd4.h"

#include <algorithm>
#include <cstring>
#include <vector>

using namespace kxQBVHCollapse;
using namespace kxSimd;

namespace
{
// Binary nodes that fill the four slots of the four-wide node made from inner node n:
// each child's own children when it is inner, else the child itself and an empty slot.
void slotNodes(const kxGenericBVH& bvh, uint32_t n, uint32_t slots[4])
{
    const kxGNode& node = bvh.mNodes[n];
    const uint32_t children[2] = {leftChild(node), rightChild(node)};
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
            slots[2 * side] = leftChild(child);
            slots[2 * side + 1] = rightChild(child);
        }
    }
}
} // namespace

namespace kxQBVHReference
{
void collapse(kxQBVH& qbvh, kxQBVH::tQBVHDataFlags flags, const kxGenericBVH& bvh, const kx::kxTriMesh& mesh)
{
    if (bvh.mNodes.empty())
    {
        qbvh.allocate(flags, 0, 0);
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

    qbvh.allocate(flags, nodeMarks[B], totalGroups);
    // allocate hands out uninitialised arrays for the caller to fill.
    auto* nodes = const_cast<kxQBVH::tQBVHNode*>(qbvh.getNodes());
    auto* triangleVertices = const_cast<kxQBVH::tSOATriangleVertices*>(qbvh.getTriangleVertices());
    auto* triangleEquations = const_cast<kxQBVH::tSOATriangleEquations*>(qbvh.getTriangleEquations());
    auto* triangleIndices = const_cast<kxQBVH::tSOATriangleIndices*>(qbvh.getTriangleIndices());

    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const unsigned int* indices = mesh.GetIndexBuffer()->GetData();
    auto fillLeaf = [&](const kxGNode& leaf, uint32_t firstGroup) {
        const uint32_t n = leaf.count;
        if (!fillsGroups(n))
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
            vuint4::load(index).store(triangleIndices[group].index);
            if (triangleVertices)
                std::memcpy(triangleVertices[group].corner, corner, sizeof(corner));
            if (triangleEquations)
                writeEquations(corner, realLanes, triangleEquations[group]);
        }
    };

    if (isLeaf(root))
    {
        if (triangleIndices)
            fillLeaf(root, 0);
        return;
    }
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
            if (triangleIndices)
                fillLeaf(binary, groupCounts[n]);
            continue;
        }
        kxQBVH::tQBVHNode& node = nodes[nodeMarks[n]];
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
} // namespace kxQBVHReference
