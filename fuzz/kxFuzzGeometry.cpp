#include "kxFuzzGeometry.h"

#include "kxGenericBVHBuilder.h"
#include "kxLinearGenericBVHBuilder.h"

#include <algorithm>
#include <cstring>

namespace kxfuzz
{
namespace
{
constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr unsigned int kRepeats[8] = {1, 1, 1, 2, 4, 16, 64, 512};

bool sameBits(float a, float b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

kxBBox slotBox(const kxQBVH::tQBVHNode& node, int k)
{
    kxBBox box;
    for (int a = 0; a < 3; ++a)
    {
        box.min[a] = node.bboxMin[a][k];
        box.max[a] = node.bboxMax[a][k];
    }
    return box;
}

bool isEmptyBox(const kxBBox& box)
{
    return box == kxBBox();
}

struct BinaryWalk
{
    const kxGenericBVH& bvh;
    const kxBVHTriangleContainer& container;
    const char* builder;
    std::vector<uint8_t> reached;
    std::vector<uint8_t> seen;

    struct Run
    {
        uint32_t first, count;
    };

    Run walk(uint32_t k, int depth)
    {
        KX_FUZZ_CHECK(depth < 256, "%s: tree deeper than 256", builder);
        KX_FUZZ_CHECK(k < bvh.mNodes.size(), "%s: record %u beyond the node array (%zu)", builder, k,
                      bvh.mNodes.size());
        KX_FUZZ_CHECK(!reached[k]++, "%s: record %u reached twice", builder, k);
        const kxGNode& node = bvh.mNodes[k];
        if (node.offset >= kxGNode::eLeafMark)
        {
            const Run run{node.offset & kxGNode::eIndexMask, node.count};
            KX_FUZZ_CHECK(uint64_t(run.first) + run.count <= bvh.mPrimitiveIndices.size(),
                          "%s: leaf %u runs past the index array", builder, k);
            for (uint32_t p = run.first; p < run.first + run.count; ++p)
            {
                const uint32_t primitive = bvh.mPrimitiveIndices[p];
                KX_FUZZ_CHECK(primitive < seen.size(), "%s: leaf %u holds primitive %u of %zu", builder, k,
                              primitive, seen.size());
                KX_FUZZ_CHECK(!seen[primitive]++, "%s: primitive %u in two leaves", builder, primitive);
                KX_FUZZ_CHECK(holds(node.bbox, container.getBBox(primitive)),
                              "%s: leaf %u's box does not hold primitive %u", builder, k, primitive);
            }
            return run;
        }
        const uint32_t left = node.offset & kxGNode::eIndexMask;
        const uint32_t right = node.count & kxGNode::eRightChildMask;
        KX_FUZZ_CHECK(right == left + 1, "%s: node %u has children %u and %u", builder, k, left, right);
        const Run l = walk(left, depth + 1);
        const Run r = walk(right, depth + 1);
        KX_FUZZ_CHECK(l.first + l.count == r.first, "%s: node %u's runs are not adjacent", builder, k);
        KX_FUZZ_CHECK(holds(node.bbox, bvh.mNodes[left].bbox) && holds(node.bbox, bvh.mNodes[right].bbox),
                      "%s: node %u's box does not hold its children", builder, k);
        return Run{l.first, l.count + r.count};
    }
};

struct FourWideWalk
{
    const kxQBVH& qbvh;
    const Mesh& mesh;
    const char* builder;
    bool triangleData;
    std::vector<uint8_t> reached;
    std::vector<uint8_t> seen;

    void groups(uint32_t first, uint32_t count, const kxBBox& box)
    {
        KX_FUZZ_CHECK(uint64_t(first) + count <= qbvh.getGroupCount(), "%s: groups %u+%u of %u", builder, first,
                      count, qbvh.getGroupCount());
        if (!triangleData)
            return;
        for (uint32_t g = first; g < first + count; ++g)
            for (int lane = 0; lane < 4; ++lane)
                triangle(g, lane, box);
    }

    void triangle(uint32_t g, int lane, const kxBBox& box)
    {
        const uint32_t t = qbvh.getTriangleIndices()[g].index[lane];
        const kxQBVH::tSOATriangleVertices* vertices = qbvh.getTriangleVertices();
        if (t == kNone)
        {
            if (vertices)
                for (int c = 0; c < 3; ++c)
                    for (int a = 0; a < 3; ++a)
                        KX_FUZZ_CHECK(sameBits(vertices[g].corner[c][a][lane], 0.0f),
                                      "%s: padding lane %d of group %u has a corner", builder, lane, g);
            return;
        }
        KX_FUZZ_CHECK(t < seen.size(), "%s: group %u lane %d holds triangle %u of %zu", builder, g, lane, t,
                      seen.size());
        KX_FUZZ_CHECK(!seen[t]++, "%s: triangle %u stored twice", builder, t);
        KX_FUZZ_CHECK(holds(box, mesh.box(t)), "%s: the box over group %u does not hold triangle %u", builder, g, t);
        if (vertices)
            for (int c = 0; c < 3; ++c)
                for (int a = 0; a < 3; ++a)
                    KX_FUZZ_CHECK(sameBits(vertices[g].corner[c][a][lane], mesh.corner(t, c)[a]),
                                  "%s: corner %d of triangle %u differs from the mesh", builder, c, t);
    }

    void node(uint32_t index, const kxBBox& box, int depth)
    {
        KX_FUZZ_CHECK(depth < 256, "%s: four-wide tree deeper than 256", builder);
        KX_FUZZ_CHECK(index < qbvh.getNodeCount(), "%s: node %u of %u", builder, index, qbvh.getNodeCount());
        KX_FUZZ_CHECK(!reached[index]++, "%s: node %u reached twice", builder, index);
        const kxQBVH::tQBVHNode& n = qbvh.getNodes()[index];
        for (int k = 0; k < 4; ++k)
        {
            const kxBBox slot = slotBox(n, k);
            KX_FUZZ_CHECK(holds(box, slot), "%s: slot %d of node %u sticks out of its parent's box", builder, k,
                          index);
            if (n.count[k] == kNone)
                node(n.child[k], slot, depth + 1);
            else if (n.child[k] == kNone && n.count[k] == 0)
            {
                KX_FUZZ_CHECK(k == 1 || k == 3, "%s: slot %d of node %u is empty", builder, k, index);
                KX_FUZZ_CHECK(isEmptyBox(slot), "%s: empty slot %d of node %u has a box", builder, k, index);
            }
            else
                groups(n.child[k], n.count[k], slot);
        }
    }
};
} // namespace

kxBBox Mesh::box(uint32_t triangle) const
{
    kxBBox b;
    for (int k = 0; k < 3; ++k)
        b.extend(corner(triangle, k));
    return b;
}

Mesh decodeMesh(Input& in, uint32_t maxTriangles)
{
    Mesh m;
    const int vertexCount = 1 + in.byte();
    const uint32_t listed = in.byte();
    const unsigned int repeat = kRepeats[in.byte() & 7];
    for (int v = 0; v < vertexCount; ++v)
    {
        const float x = in.real(), y = in.real(), z = in.real();
        m.positions.emplace_back(x, y, z);
    }
    std::vector<uint32_t> list;
    for (uint32_t i = 0; i < 3 * listed; ++i)
        list.push_back(in.byte() % vertexCount);
    const uint32_t triangles = std::min<uint64_t>(uint64_t(listed) * repeat, maxTriangles);
    for (uint32_t t = 0; t < triangles; ++t)
        for (int k = 0; k < 3; ++k)
            m.indices.push_back(list[3 * (t % listed) + k]);

    auto* vertices = new kx::kxVertexBuffer(vertexCount);
    for (int v = 0; v < vertexCount; ++v)
        vertices->Position3(v) = m.positions[static_cast<size_t>(v)];
    auto* indices = new kx::kxIndexBuffer(static_cast<int>(m.indices.size()));
    std::copy(m.indices.begin(), m.indices.end(), indices->GetData());
    m.mesh = new kx::kxTriMesh(vertices, indices);
    return m;
}

void encodeMesh(Output& out, const std::vector<Wm4::Vector3<float>>& positions, const std::vector<uint8_t>& indices,
                uint8_t repeatSelector)
{
    out.byte(static_cast<uint8_t>(positions.size() - 1));
    out.byte(static_cast<uint8_t>(indices.size() / 3));
    out.byte(repeatSelector);
    for (const Wm4::Vector3<float>& p : positions)
        for (int a = 0; a < 3; ++a)
            out.real(p[a]);
    for (uint8_t i : indices)
        out.byte(i);
}

const char* builderName(Builder builder)
{
    switch (builder)
    {
    case Builder::eLinear:
        return "linear builder";
    case Builder::eSAH:
        return "SAH builder";
    }
    return "?";
}

void buildBinary(Builder builder, const BuildSettings& settings, const kxBVHTriangleContainer& container,
                 kxGenericBVH& bvh)
{
    switch (builder)
    {
    case Builder::eLinear:
    {
        kxLinearGenericBVHBuilder linear;
        linear.setMaxPrimitivesPerLeaf(settings.leafSize);
        const bool finished = linear.build(container, bvh, nullptr, settings.mortonBits);
        KX_FUZZ_CHECK(finished, "the linear builder stopped without being cancelled");
        return;
    }
    case Builder::eSAH:
    {
        kxGenericBVHBuilder sah(settings.binCount);
        sah.build(container, bvh);
        return;
    }
    }
}

bool holds(const kxBBox& a, const kxBBox& b)
{
    for (int axis = 0; axis < 3; ++axis)
        if (b.min[axis] < a.min[axis] || b.max[axis] > a.max[axis])
            return false;
    return true;
}

void checkBinary(const kxGenericBVH& bvh, const kxBVHTriangleContainer& container, const char* builder)
{
    const uint32_t n = container.getQuantity();
    KX_FUZZ_CHECK(bvh.mPrimitiveCount == n, "%s: primitive count %u for %u primitives", builder,
                  bvh.mPrimitiveCount, n);
    KX_FUZZ_CHECK(bvh.mPrimitiveIndices.size() == n, "%s: %zu index entries for %u primitives", builder,
                  bvh.mPrimitiveIndices.size(), n);
    KX_FUZZ_CHECK(!bvh.mNodes.empty(), "%s: no root", builder);
    BinaryWalk walk{bvh, container, builder, std::vector<uint8_t>(bvh.mNodes.size()), std::vector<uint8_t>(n)};
    walk.walk(0, 0);
    for (uint32_t p = 0; p < n; ++p)
        KX_FUZZ_CHECK(walk.seen[p], "%s: primitive %u is in no leaf", builder, p);
}

void checkFourWide(const kxQBVH& qbvh, const Mesh& mesh, const char* builder)
{
    const bool triangleData = (qbvh.getDataFlags() & (kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations)) != 0;
    FourWideWalk walk{qbvh, mesh, builder, triangleData, std::vector<uint8_t>(qbvh.getNodeCount()),
                      std::vector<uint8_t>(mesh.triangles())};
    if (qbvh.getNodeCount() == 0)
        walk.groups(0, qbvh.getGroupCount(), qbvh.getBBox());
    else
        walk.node(0, qbvh.getBBox(), 0);
    for (uint32_t n = 0; n < qbvh.getNodeCount(); ++n)
        KX_FUZZ_CHECK(walk.reached[n], "%s: node %u is not reached from the root", builder, n);
    if (triangleData)
        for (uint32_t t = 0; t < mesh.triangles(); ++t)
            KX_FUZZ_CHECK(walk.seen[t], "%s: triangle %u is in no group", builder, t);
}

std::vector<Placement> placeTriangles(const kxQBVH& qbvh, uint32_t triangles)
{
    std::vector<Placement> placement(triangles);
    for (uint32_t g = 0; g < qbvh.getGroupCount(); ++g)
        for (int lane = 0; lane < 4; ++lane)
        {
            const uint32_t t = qbvh.getTriangleIndices()[g].index[lane];
            if (t < triangles)
                placement[t] = Placement{g, lane};
        }
    return placement;
}
} // namespace kxfuzz
