#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxQBVHTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>

using namespace kxtest;

namespace
{
using V3 = Wm4::Vector3<float>;

bool isLeaf(const kxGNode& n)
{
    return n.offset >= 0xC0000000u;
}

bool sameFloat(float a, float b)
{
    return bitsOf(a) == bitsOf(b) || (std::isnan(a) && std::isnan(b));
}

// The triangle equations in their defining operation order, which fixes the rounding.
void expectedEquations(const V3& c0, const V3& c1, const V3& c2, float out[12])
{
    const V3 e1 = c1 - c0, e2 = c2 - c0, m = e1.Cross(e2);
    const float len = std::sqrt(m.Dot(m));
    const V3 n = len > 0.0f ? m * (1.0f / len) : m;
    const float d = len > 0.0f ? -c0.Dot(n) : 1.0f;
    const float a = 1.0f / e1.Dot(e1), b = 1.0f / e2.Dot(e2), c = e1.Dot(e2);
    const float s = 1.0f / (1.0f - a * c * (c * b));
    const V3 up = e1 * (a * s) + e2 * (-(c * b) * a * s);
    const V3 vp = e1 * (-(a * c) * b * s) + e2 * (b * s);
    const float values[12] = {n[0], n[1], n[2], d, up[0], up[1], up[2], -up.Dot(c0), vp[0], vp[1], vp[2], -vp.Dot(c0)};
    std::copy(values, values + 12, out);
}

// Rebuilds the collapse of bvh by its rules and checks every word of qbvh against it.
void checkCollapse(const kxQBVH& qbvh, const kxGenericBVH& bvh, const kx::kxTriMesh& mesh, unsigned int flags)
{
    // The binary nodes in the four slots of the node made from inner node n, kNone when empty.
    auto slotsOf = [&](uint32_t n) {
        std::vector<uint32_t> slots;
        for (uint32_t child : {bvh.mNodes[n].offset & 0x3FFFFFFFu, bvh.mNodes[n].count & 0x0FFFFFFFu})
        {
            const kxGNode& c = bvh.mNodes[child];
            if (isLeaf(c))
                slots.insert(slots.end(), {child, kNone});
            else
                slots.insert(slots.end(), {c.offset & 0x3FFFFFFFu, c.count & 0x0FFFFFFFu});
        }
        return slots;
    };
    std::vector<uint32_t> fourWide, leaves;
    auto collect = [&](auto&& self, uint32_t n) -> void {
        if (isLeaf(bvh.mNodes[n]))
            return leaves.push_back(n);
        fourWide.push_back(n);
        for (uint32_t s : slotsOf(n))
            if (s != kNone)
                self(self, s);
    };
    collect(collect, 0);
    // Nodes and leaf groups are numbered in binary node order, not in visiting order.
    std::sort(fourWide.begin(), fourWide.end());
    std::sort(leaves.begin(), leaves.end());
    std::map<uint32_t, uint32_t> nodeIndex, firstGroup;
    for (size_t i = 0; i < fourWide.size(); ++i)
        nodeIndex[fourWide[i]] = static_cast<uint32_t>(i);
    uint32_t groups = 0;
    for (uint32_t leaf : leaves)
    {
        firstGroup[leaf] = groups;
        groups += (bvh.mNodes[leaf].count + 3) / 4;
    }
    ASSERT_TRUE(qbvh.getNodeCount() == fourWide.size() && qbvh.getGroupCount() == groups);
    ASSERT_EQ(qbvh.getDataFlags(), static_cast<kxQBVH::tQBVHDataFlags>(flags));
    EXPECT_EQ(qbvh.getTriangleVertices() != nullptr, (flags & 1) != 0);
    EXPECT_EQ(qbvh.getTriangleEquations() != nullptr, (flags & 2) != 0);
    EXPECT_EQ(qbvh.getTriangleIndices() != nullptr, flags != 0);
    EXPECT_EQ(qbvh.getBBox(), bvh.mNodes[0].bbox);

    for (uint32_t n : fourWide)
    {
        const kxQBVH::tQBVHNode& node = qbvh.getNodes()[nodeIndex[n]];
        const std::vector<uint32_t> slots = slotsOf(n);
        for (int k = 0; k < 4; ++k)
        {
            const uint32_t s = slots[static_cast<size_t>(k)];
            const kxBBox box = s == kNone ? kxBBox() : bvh.mNodes[s].bbox;
            for (int a = 0; a < 3; ++a)
                EXPECT_TRUE(bitsOf(node.bboxMin[a][k]) == bitsOf(box.min[a]) &&
                            bitsOf(node.bboxMax[a][k]) == bitsOf(box.max[a]));
            const uint32_t child = s == kNone ? kNone : isLeaf(bvh.mNodes[s]) ? firstGroup[s] : nodeIndex[s];
            const uint32_t count = s == kNone ? 0 : isLeaf(bvh.mNodes[s]) ? (bvh.mNodes[s].count + 3) / 4 : kNone;
            EXPECT_TRUE(node.child[k] == child && node.count[k] == count);
        }
    }

    if (flags == 0)
        return;
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    for (uint32_t leaf : leaves)
    {
        const kxGNode& node = bvh.mNodes[leaf];
        for (uint32_t j = 0; j < (node.count + 3) / 4 * 4; ++j)
        {
            const uint32_t g = firstGroup[leaf] + j / 4;
            const int k = static_cast<int>(j % 4);
            const bool padding = j >= node.count;
            const uint32_t t = padding ? kNone : bvh.mPrimitiveIndices[(node.offset & 0x3FFFFFFFu) + j];
            EXPECT_EQ(qbvh.getTriangleIndices()[g].index[k], t);
            V3 c[3] = {V3::ZERO, V3::ZERO, V3::ZERO};
            for (uint32_t i = 0; i < 3 && !padding; ++i)
                c[i] = mesh.GetVertexBuffer()->Position3(static_cast<int>(index[3 * t + i]));
            for (int i = 0; i < 9 && (flags & kxQBVH::eTrianglesVertices); ++i)
                EXPECT_EQ(bitsOf(qbvh.getTriangleVertices()[g].corner[i / 3][i % 3][k]), bitsOf(c[i / 3][i % 3]));
            // Padding can never be hit: its u-plane gives u = -1.
            float expected[12] = {0, 0, 0, kInf, 0, 0, 0, -1, 0, 0, 0, -1};
            if (!padding)
                expectedEquations(c[0], c[1], c[2], expected);
            for (int i = 0; i < 12 && (flags & kxQBVH::eTrianglesEquations); ++i)
                EXPECT_TRUE(sameFloat(qbvh.getTriangleEquations()[g].eq[i][k], expected[i]))
                    << "triangle " << t << " value " << i;
        }
    }
}
} // namespace

TEST(QBVHLayout, CollapseNumbersNodesAndLeafGroupsInBinaryOrderForEveryTreeShapeFlagAndCopy)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(11);
    SoupOptions soup;
    soup.degenerates = soup.duplicates = true;
    // Median-split trees of several shapes, then buildFromMesh, which must collapse the
    // linear build at 20 bits with the given leaf limit (600: the root is a leaf).
    const MedianSplitOptions splits[] = {{4, false, false, 0}, {4, true, false, 0}, {9, false, true, 0},
                                         {4, true, true, 1000}, {8, false, false, 0}};
    const unsigned int leafLimits[] = {0, 1, 4, 37, 600};
    kxQBVH assigned;
    for (int source = 0; source < 10; ++source)
    {
        auto mesh = randomSoup(rng, source == 4 ? 5 : source < 5 ? 257 + 61 * source : 600, soup);
        kxGenericBVH bvh = source < 5 ? buildMedianSplitBVH(*mesh, splits[source]) : kxGenericBVH();
        if (source >= 5)
        {
            kxLinearGenericBVHBuilder builder;
            builder.setMaxPrimitivesPerLeaf(leafLimits[source - 5]);
            ASSERT_TRUE(builder.build(kxBVHTriangleContainer(*mesh), bvh, nullptr, 20));
        }
        for (unsigned int flags = 0; flags < 4; ++flags)
        {
            auto qbvh = std::make_unique<kxQBVH>();
            if (source < 5)
                qbvh->buildFromBVH(kxQBVH::tQBVHDataFlags(flags), bvh, *mesh);
            else
                qbvh->buildFromMesh(kxQBVH::tQBVHDataFlags(flags), *mesh, leafLimits[source - 5]);
            checkCollapse(*qbvh, bvh, *mesh, flags);
            EXPECT_TRUE(!isLeaf(bvh.mNodes[0]) || !qbvh->computeRootNodeBBox());
            // Copies are deep and outlive the original; assignment replaces the last build.
            const kxQBVH copy(*qbvh);
            assigned = *qbvh;
            assigned = assigned;
            EXPECT_TRUE(copy.getNodes() != qbvh->getNodes() || copy.getNodes() == nullptr);
            qbvh.reset();
            checkCollapse(copy, bvh, *mesh, flags);
            checkCollapse(assigned, bvh, *mesh, flags);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(copy.getTriangleIndices()) % 16, 0u);
            if (testing::Test::HasFailure())
                FAIL() << "source " << source << " flags " << flags;
        }
    }
    const kxQBVH empty, emptyCopy(empty);
    EXPECT_TRUE(emptyCopy.getNodes() == nullptr && emptyCopy.getBBox() == kxBBox());
}

TEST(QBVHLayout, RootBoxIsOrderedEvenWhenTheSlotsAreInverted)
{
    kxQBVH qbvh;
    qbvh.allocate(kxQBVH::tQBVHDataFlags(0), 1, 0);
    kxQBVH::tQBVHNode& root = const_cast<kxQBVH::tQBVHNode&>(qbvh.getNodes()[0]);
    // Every x minimum lies above every x maximum; an empty slot drops out on y and z.
    const float mins[3][4] = {{5, 6, 7, 8}, {0, kInf, 0, 0}, {0, kInf, -1, 0}};
    const float maxs[3][4] = {{1, 2, 3, 4}, {1, -kInf, 1, 1}, {1, -kInf, 1, 2}};
    std::memcpy(root.bboxMin, mins, sizeof mins);
    std::memcpy(root.bboxMax, maxs, sizeof maxs);
    ASSERT_TRUE(qbvh.computeRootNodeBBox());
    EXPECT_EQ(qbvh.getBBox(), kxBBox(V3(4, 0, -1), V3(5, 1, 2)));
}
