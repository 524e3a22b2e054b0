#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxGenericBVHBuilder.h"
#include "kxQBVHTestUtil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace kxtest;

namespace
{
using V3 = Wm4::Vector3<float>;
const float kNaN = std::numeric_limits<float>::quiet_NaN();

bool nearestHits(const kxQBVH& qbvh, const V3& o, const V3& d, float tMin, float tMax, int policy, float* t = nullptr)
{
    float hitT = tMax;
    Wm4::Vector2<float> barycentric;
    unsigned int triangle;
    const bool hit = qbvh.intersectRay(o, d, tMin, hitT, barycentric, triangle,
                                       static_cast<kxQBVH::tIntersectionPolicy>(policy));
    if (t)
        *t = hitT;
    return hit;
}

// A binary tree that is one long chain: node i holds triangle i as its left leaf and
// node i + 1 on its right, every box the same large one. Queries must walk the whole
// chain, far deeper than any traversal stack.
kxGenericBVH chainTree(uint32_t triangles, const kxBBox& box)
{
    kxGenericBVH bvh;
    bvh.mNodes.resize(2 * triangles - 1);
    bvh.mNodeCount = 2 * triangles - 1;
    for (uint32_t i = 0; i + 1 < triangles; ++i)
    {
        bvh.mNodes[2 * i] = {box, 2 * i + 1, 2 * i + 2};
        bvh.mNodes[2 * i + 1] = {box, i | kxGNode::eLeafMark, 1};
    }
    bvh.mNodes[2 * triangles - 2] = {box, (triangles - 1) | kxGNode::eLeafMark, 1};
    bvh.mPrimitiveCount = triangles;
    bvh.mPrimitiveIndices.resize(triangles);
    std::iota(bvh.mPrimitiveIndices.begin(), bvh.mPrimitiveIndices.end(), 0u);
    return bvh;
}

// Queries one hierarchy with random rays, bad rays and bad intervals, every policy and a
// value no policy has, and also exactly at and just beyond each nearest hit.
void expectSameAnswers(const kxQBVH& qbvh, std::mt19937& rng, int rays, int& hits)
{
    const kxBBox& box = qbvh.getBBox();
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    const float size = box.max[0] - box.min[0] + box.max[1] - box.min[1] + 1.0f;
    const V3 badOrigins[] = {V3(kNaN, 0, 0), V3(kInf, 1, 2), V3(-kInf, -kInf, 0)};
    const V3 badDirections[] = {V3(0, 0, 0), V3(kNaN, 1, 0), V3(kInf, 0, 0), V3(0, -kInf, 1)};
    const float bounds[] = {-kInf, -4.0f, 0.0f, 3.0f, 6.0f, kInf, kNaN};
    for (int r = 0; r < rays; ++r)
    {
        V3 o, target;
        for (int a = 0; a < 3; ++a)
        {
            target[a] = box.min[a] + unit(rng) * (box.max[a] - box.min[a]);
            o[a] = r % 2 ? box.min[a] + unit(rng) * (box.max[a] - box.min[a]) : target[a] + size * signedUnit(rng);
        }
        V3 d = target - o;
        if (r % 7 == 3)
            d[rng() % 3] = 0.0f;
        if (r % 13 == 5)
            o = badOrigins[rng() % 3];
        if (r % 13 == 9)
            d = badDirections[rng() % 4];
        for (int policy = 0; policy < 4; ++policy)
        {
            for (float tMin : bounds)
                for (float tMax : bounds)
                {
                    const bool expected = nearestHits(qbvh, o, d, tMin, tMax, policy);
                    ASSERT_EQ(qbvh.intersectRayAny(o, d, tMin, tMax, static_cast<kxQBVH::tIntersectionPolicy>(policy)),
                              expected)
                            << "ray " << r << " policy " << policy << " interval " << tMin << " " << tMax;
                    hits += expected;
                }
            float t;
            for (float tMin : {-kInf, 0.0f})
            {
                if (!nearestHits(qbvh, o, d, tMin, kInf, policy, &t))
                    continue;
                for (float tMax : {t, std::nextafter(t, kInf), std::nextafter(t, -kInf)})
                        ASSERT_EQ(qbvh.intersectRayAny(o, d, tMin, tMax, static_cast<kxQBVH::tIntersectionPolicy>(policy)),
                                  nearestHits(qbvh, o, d, tMin, tMax, policy))
                                << "ray " << r << " policy " << policy << " up to the nearest hit " << tMax;
            }
        }
    }
}
} // namespace

TEST(QBVHAnyHit, AnswersWhatTheNearestHitQueryAnswersOnEveryTreeShapeRayAndInterval)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(7781);
    SoupOptions all;
    all.degenerates = all.duplicates = true;
    int hits = 0;
    // Median-split trees (plain, wide leaves with empty ones, a root leaf), the linear
    // builder, an SAH tree, and a soup of one repeated triangle whose hits all tie.
    for (int shape = 0; shape < 6; ++shape)
    {
        SCOPED_TRACE("shape " + std::to_string(shape));
        std::vector<unsigned int> repeated(600);
        for (unsigned int i = 0; i < repeated.size(); ++i)
            repeated[i] = i % 3;
        const auto mesh = shape == 5 ? makeMesh({{0, 0, 0}, {1, 0.5f, 0.25f}, {0.5f, 1, 0.75f}}, repeated)
                                     : randomSoup(rng, shape == 2 ? 3 : 400, shape % 2 ? all : SoupOptions{});
        kxQBVH qbvh;
        if (shape == 3)
            qbvh.buildFromMesh(kxQBVH::eTrianglesEquations, *mesh, 4);
        else if (shape >= 4)
        {
            kxGenericBVH sah;
            kxGenericBVHBuilder().build(kxBVHTriangleContainer(*mesh), sah);
            qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, sah, *mesh);
        }
        else
        {
            const MedianSplitOptions splits[] = {{}, {11, false, true, 0}, {}};
            qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, buildMedianSplitBVH(*mesh, splits[shape]), *mesh);
        }
        ASSERT_TRUE(shape != 2 || qbvh.getNodeCount() == 0);
        expectSameAnswers(qbvh, rng, 150, hits);
    }
    EXPECT_GT(hits, 5000);
}

TEST(QBVHAnyHit, ATreeDeeperThanItsStackIsSearchedWhole)
{
    std::mt19937 rng(5);
    const auto mesh = randomSoup(rng, 400);
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, chainTree(400, kxBBox(V3(-20, -20, -20), V3(20, 20, 20))), *mesh);
    int hits = 0;
    expectSameAnswers(qbvh, rng, 30, hits);
    EXPECT_GT(hits, 50);
    // The last triangle of the chain is the deepest leaf; a ray through its centre finds it.
    const V3 centre = (mesh->GetVertexBuffer()->Position3(static_cast<int>(mesh->GetIndexBuffer()->GetData()[1197])) +
                       mesh->GetVertexBuffer()->Position3(static_cast<int>(mesh->GetIndexBuffer()->GetData()[1198])) +
                       mesh->GetVertexBuffer()->Position3(static_cast<int>(mesh->GetIndexBuffer()->GetData()[1199]))) /
                      3.0f;
    const V3 o(-30, -30, -30);
    EXPECT_TRUE(qbvh.intersectRayAny(o, centre - o, 0.0f, kInf, kxQBVH::eAllSides));
}

TEST(QBVHAnyHit, WithoutEquationsItAnswersFalseAndLogsTheRayQueriesLine)
{
    std::mt19937 rng(3);
    const auto mesh = randomSoup(rng, 50);
    kx::kxCapturingLog log;
    log.install();
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*mesh), *mesh);
    const V3 o = qbvh.getBBox().getCenter();
    float t = kInf;
    Wm4::Vector2<float> barycentric;
    unsigned int triangle;
    EXPECT_FALSE(qbvh.intersectRay(o, V3(0, 0, 1), 0.0f, t, barycentric, triangle, kxQBVH::eAllSides));
    EXPECT_FALSE(qbvh.intersectRayAny(o, V3(0, 0, 1), 0.0f, kInf, kxQBVH::eAllSides));
    ASSERT_EQ(log.entries().size(), 2u);
    EXPECT_EQ(log.entries()[1].message, log.entries()[0].message);
    EXPECT_EQ(log.entries()[1].level, 2);
}
