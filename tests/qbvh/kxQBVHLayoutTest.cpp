#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxMedianSplitBVH.h"
#include "kxQBVH.h"
#include "kxQBVHTestUtil.h"
#include "kxTestMeshes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace kxtest;

namespace
{
bool isLeaf(const kxGNode& n)
{
    return n.offset >= 0xC0000000u;
}

// The triangle equations as the ray query expects them, in their defining operation order.
void expectedEquations(const Wm4::Vector3<float>& c0, const Wm4::Vector3<float>& c1, const Wm4::Vector3<float>& c2,
                       float out[12])
{
    const Wm4::Vector3<float> e1 = c1 - c0, e2 = c2 - c0;
    const Wm4::Vector3<float> m = e1.Cross(e2);
    const float len = std::sqrt(m.Dot(m));
    Wm4::Vector3<float> n = m;
    float d = 1.0f;
    if (len > 0.0f)
    {
        n = m * (1.0f / len);
        d = -c0.Dot(n);
    }
    const float a = 1.0f / e1.Dot(e1), b = 1.0f / e2.Dot(e2), c = e1.Dot(e2);
    const float s = 1.0f / (1.0f - a * c * (c * b));
    const Wm4::Vector3<float> up = e1 * (a * s) + e2 * (-(c * b) * a * s);
    const Wm4::Vector3<float> vp = e1 * (-(a * c) * b * s) + e2 * (b * s);
    const float values[12] = {n[0], n[1], n[2], d, up[0], up[1], up[2], -up.Dot(c0),
                              vp[0], vp[1], vp[2], -vp.Dot(c0)};
    std::copy(values, values + 12, out);
}

// Rebuilds the collapse from the binary store by its rules and checks every word of qbvh.
void checkCollapse(const kxQBVH& qbvh, const kxGenericBVH& bvh, const kx::kxTriMesh& mesh, unsigned int flags)
{
    std::vector<uint32_t> fourWide, leaves;
    auto slotsOf = [&](uint32_t n) {
        std::vector<uint32_t> slots;
        for (uint32_t child : {bvh.mNodes[n].offset & 0x3FFFFFFFu, bvh.mNodes[n].count & 0x0FFFFFFFu})
        {
            if (isLeaf(bvh.mNodes[child]))
                slots.insert(slots.end(), {child, kNone});
            else
                slots.insert(slots.end(),
                             {bvh.mNodes[child].offset & 0x3FFFFFFFu, bvh.mNodes[child].count & 0x0FFFFFFFu});
        }
        return slots;
    };
    auto collect = [&](auto&& self, uint32_t n) -> void {
        fourWide.push_back(n);
        for (uint32_t s : slotsOf(n))
            if (s != kNone)
            {
                if (isLeaf(bvh.mNodes[s]))
                    leaves.push_back(s);
                else
                    self(self, s);
            }
    };
    if (isLeaf(bvh.mNodes[0]))
        leaves.push_back(0);
    else
        collect(collect, 0);
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
    ASSERT_EQ(qbvh.getNodeCount(), fourWide.size());
    ASSERT_EQ(qbvh.getGroupCount(), groups);
    ASSERT_EQ(qbvh.getDataFlags(), static_cast<kxQBVH::tQBVHDataFlags>(flags));
    EXPECT_EQ(qbvh.getTriangleVertices() != nullptr, (flags & 1) != 0);
    EXPECT_EQ(qbvh.getTriangleEquations() != nullptr, (flags & 2) != 0);
    EXPECT_EQ(qbvh.getTriangleIndices() != nullptr, flags != 0);

    for (uint32_t n : fourWide)
    {
        const kxQBVH::tQBVHNode& node = qbvh.getNodes()[nodeIndex[n]];
        const std::vector<uint32_t> slots = slotsOf(n);
        for (int k = 0; k < 4; ++k)
        {
            const uint32_t s = slots[static_cast<size_t>(k)];
            const kxBBox box = s == kNone ? kxBBox() : bvh.mNodes[s].bbox;
            for (int a = 0; a < 3; ++a)
            {
                EXPECT_EQ(bitsOf(node.bboxMin[a][k]), bitsOf(box.min[a]));
                EXPECT_EQ(bitsOf(node.bboxMax[a][k]), bitsOf(box.max[a]));
            }
            if (s == kNone)
            {
                EXPECT_TRUE(k == 1 || k == 3);
                EXPECT_EQ(node.child[k], kNone);
                EXPECT_EQ(node.count[k], 0u);
            }
            else if (isLeaf(bvh.mNodes[s]))
            {
                EXPECT_EQ(node.child[k], firstGroup[s]);
                EXPECT_EQ(node.count[k], (bvh.mNodes[s].count + 3) / 4);
            }
            else
            {
                EXPECT_EQ(node.child[k], nodeIndex[s]);
                EXPECT_EQ(node.count[k], kNone);
            }
        }
    }

    if (flags == 0)
        return;
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    for (uint32_t leaf : leaves)
    {
        const kxGNode& node = bvh.mNodes[leaf];
        const uint32_t first = node.offset & 0x3FFFFFFFu;
        for (uint32_t j = 0; j < (node.count + 3) / 4 * 4; ++j)
        {
            const uint32_t g = firstGroup[leaf] + j / 4;
            const int k = static_cast<int>(j % 4);
            const bool padding = j >= node.count;
            const uint32_t t = padding ? kNone : bvh.mPrimitiveIndices[first + j];
            EXPECT_EQ(qbvh.getTriangleIndices()[g].index[k], t);
            Wm4::Vector3<float> c[3] = {Wm4::Vector3<float>::ZERO, Wm4::Vector3<float>::ZERO,
                                        Wm4::Vector3<float>::ZERO};
            if (!padding)
                for (int i = 0; i < 3; ++i)
                    c[i] = mesh.GetVertexBuffer()->Position3(static_cast<int>(index[3 * t + static_cast<uint32_t>(i)]));
            if (flags & kxQBVH::eTrianglesVertices)
            {
                for (int i = 0; i < 3; ++i)
                    for (int a = 0; a < 3; ++a)
                        EXPECT_EQ(bitsOf(qbvh.getTriangleVertices()[g].corner[i][a][k]), bitsOf(c[i][a]));
            }
            if (flags & kxQBVH::eTrianglesEquations)
            {
                float expected[12] = {0, 0, 0, kInf, 0, 0, 0, -1, 0, 0, 0, -1};
                if (!padding)
                    expectedEquations(c[0], c[1], c[2], expected);
                for (int i = 0; i < 12; ++i)
                    EXPECT_TRUE(sameFloat(qbvh.getTriangleEquations()[g].eq[i][k], expected[i]))
                        << "triangle " << t << " value " << i;
            }
        }
    }
}
} // namespace

TEST(QBVHLayout, CollapseNumbersNodesAndLeafGroupsInBinaryOrderForEveryTreeShapeAndFlag)
{
    std::mt19937 rng(11);
    SoupOptions soup;
    soup.degenerates = true;
    soup.duplicates = true;
    for (int shape = 0; shape < 4; ++shape)
    {
        MedianSplitOptions split;
        split.breadthFirst = shape % 2 == 1;
        split.emptyLeaves = shape >= 2;
        split.spareRecords = shape == 3 ? 1000 : 0;
        split.maxLeafSize = shape == 2 ? 9 : 4;
        auto mesh = randomSoup(rng, 257 + 61 * shape, soup);
        const kxGenericBVH bvh = buildMedianSplitBVH(*mesh, split);
        for (unsigned int flags = 0; flags < 4; ++flags)
        {
            kxQBVH qbvh;
            qbvh.buildFromBVH(static_cast<kxQBVH::tQBVHDataFlags>(flags), bvh, *mesh);
            checkCollapse(qbvh, bvh, *mesh, flags);
            EXPECT_EQ(qbvh.getBBox(), bvh.mNodes[0].bbox);
            if (testing::Test::HasFailure())
                FAIL() << "shape " << shape << " flags " << flags;
        }
    }
}

TEST(QBVHLayout, BuildFromMeshCollapsesTheLinearBuildAt20BitsWithTheGivenLeafLimit)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(23);
    SoupOptions soup;
    soup.degenerates = true;
    soup.duplicates = true;
    auto mesh = randomSoup(rng, 600, soup);
    for (unsigned int limit : {0u, 1u, 4u, 37u, 600u})
    {
        kxGenericBVH bvh;
        kxLinearGenericBVHBuilder builder;
        builder.setMaxPrimitivesPerLeaf(limit);
        ASSERT_TRUE(builder.build(kxBVHTriangleContainer(*mesh), bvh, nullptr, 20));
        for (unsigned int flags = 0; flags < 4; ++flags)
        {
            kxQBVH qbvh;
            qbvh.buildFromMesh(static_cast<kxQBVH::tQBVHDataFlags>(flags), *mesh, limit);
            checkCollapse(qbvh, bvh, *mesh, flags);
            EXPECT_EQ(qbvh.getBBox(), bvh.mNodes[0].bbox);
            if (limit >= 600u)
            {
                EXPECT_EQ(qbvh.getNodeCount(), 0u);
            }
            if (testing::Test::HasFailure())
                FAIL() << "leaf limit " << limit << " flags " << flags;
        }
    }
}

TEST(QBVHLayout, LeafRootBecomesGroupsWithoutNodes)
{
    std::mt19937 rng(5);
    auto mesh = randomSoup(rng, 5);
    MedianSplitOptions split;
    split.maxLeafSize = 8;
    const kxGenericBVH bvh = buildMedianSplitBVH(*mesh, split);
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations), bvh, *mesh);
    checkCollapse(qbvh, bvh, *mesh, 3);
    EXPECT_EQ(qbvh.getNodeCount(), 0u);
    EXPECT_EQ(qbvh.getGroupCount(), 2u);
    EXPECT_EQ(qbvh.getBBox(), bvh.mNodes[0].bbox);
    EXPECT_FALSE(qbvh.computeRootNodeBBox());
    EXPECT_EQ(qbvh.getBBox(), bvh.mNodes[0].bbox);
}

TEST(QBVHLayout, EquationsDescribeThePlaneAndBarycentricsOfEachTriangle)
{
    std::mt19937 rng(17);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    auto mesh = randomSoup(rng, 200);
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::tQBVHDataFlags(3), buildMedianSplitBVH(*mesh), *mesh);
    for (uint32_t g = 0; g < qbvh.getGroupCount(); ++g)
        for (int k = 0; k < 4; ++k)
        {
            if (qbvh.getTriangleIndices()[g].index[k] == kNone)
                continue;
            const auto& v = qbvh.getTriangleVertices()[g].corner;
            const auto& e = qbvh.getTriangleEquations()[g].eq;
            const Wm4::Vector3<float> c0(v[0][0][k], v[0][1][k], v[0][2][k]);
            const Wm4::Vector3<float> e1 = Wm4::Vector3<float>(v[1][0][k], v[1][1][k], v[1][2][k]) - c0;
            const Wm4::Vector3<float> e2 = Wm4::Vector3<float>(v[2][0][k], v[2][1][k], v[2][2][k]) - c0;
            if (e1.Cross(e2).Length() < 0.05f * e1.Length() * e2.Length())
                continue; // too thin for loose tolerances
            const Wm4::Vector3<float> n(e[0][k], e[1][k], e[2][k]);
            EXPECT_NEAR(n.Length(), 1.0f, 1e-5f);
            EXPECT_NEAR(n.Dot(e1) / e1.Length(), 0.0f, 1e-4f);
            const float u = unit(rng), w = unit(rng) * (1.0f - u);
            const Wm4::Vector3<float> p = c0 + e1 * u + e2 * w;
            const float scale = 1.0f + p.Length();
            EXPECT_NEAR(n.Dot(p) + e[3][k], 0.0f, 1e-5f * scale);
            EXPECT_NEAR(e[4][k] * p[0] + e[5][k] * p[1] + e[6][k] * p[2] + e[7][k], u, 2e-3f * scale);
            EXPECT_NEAR(e[8][k] * p[0] + e[9][k] * p[1] + e[10][k] * p[2] + e[11][k], w, 2e-3f * scale);
        }
}

TEST(QBVHLayout, CopiesAreDeepAndOutliveTheOriginal)
{
    std::mt19937 rng(23);
    auto mesh = randomSoup(rng, 100);
    const kxGenericBVH bvh = buildMedianSplitBVH(*mesh);
    auto original = std::make_unique<kxQBVH>();
    original->buildFromBVH(kxQBVH::tQBVHDataFlags(3), bvh, *mesh);
    const kxQBVH copy(*original);
    kxQBVH assigned;
    assigned.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*randomSoup(rng, 10)), *mesh);
    assigned = *original;
    assigned = assigned;
    for (const kxQBVH* q : {&copy, static_cast<const kxQBVH*>(&assigned)})
    {
        EXPECT_NE(q->getNodes(), original->getNodes());
        EXPECT_NE(q->getTriangleEquations(), original->getTriangleEquations());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(q->getNodes()) % 16, 0u);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(q->getTriangleVertices()) % 16, 0u);
        EXPECT_EQ(q->getBBox(), original->getBBox());
    }
    original.reset();
    checkCollapse(copy, bvh, *mesh, 3);
    checkCollapse(assigned, bvh, *mesh, 3);

    const kxQBVH empty;
    kxQBVH emptyCopy(empty);
    EXPECT_EQ(emptyCopy.getNodes(), nullptr);
    EXPECT_EQ(emptyCopy.getNodeCount(), 0u);
    EXPECT_EQ(emptyCopy.getBBox(), kxBBox());
}

TEST(QBVHLayout, RootBoxIsTheOrderedUnionOfTheRootSlots)
{
    kxQBVH qbvh;
    EXPECT_EQ(qbvh.getBBox(), kxBBox());
    qbvh.allocate(kxQBVH::tQBVHDataFlags(0), 1, 0);
    kxQBVH::tQBVHNode& root = const_cast<kxQBVH::tQBVHNode&>(qbvh.getNodes()[0]);
    const float mins[3][4] = {{3, 1, kInf, 2}, {0, 5, kInf, 6}, {-1, 9, kInf, 8}};
    const float maxs[3][4] = {{4, 2, -kInf, 7}, {1, 6, -kInf, -2}, {-3, 9, -kInf, 8}};
    std::memcpy(root.bboxMin, mins, sizeof mins);
    std::memcpy(root.bboxMax, maxs, sizeof maxs);
    ASSERT_TRUE(qbvh.computeRootNodeBBox());
    EXPECT_EQ(qbvh.getBBox(), kxBBox({1, 0, -1}, {7, 6, 9}));

    // Minima above all maxima on x: the stored box is ordered anyway.
    const float highMins[3][4] = {{5, 6, 7, 8}, {0, 0, 0, 0}, {0, 0, 0, 0}};
    const float lowMaxs[3][4] = {{1, 2, 3, 4}, {1, 1, 1, 1}, {1, 1, 1, 1}};
    std::memcpy(root.bboxMin, highMins, sizeof highMins);
    std::memcpy(root.bboxMax, lowMaxs, sizeof lowMaxs);
    ASSERT_TRUE(qbvh.computeRootNodeBBox());
    EXPECT_EQ(qbvh.getBBox(), kxBBox({4, 0, 0}, {5, 1, 1}));
}
