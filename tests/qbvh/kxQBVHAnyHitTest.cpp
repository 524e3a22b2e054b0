#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxGenericBVHBuilder.h"
#include "kxQBVHRayBatch.h"
#include "kxQBVHTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
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

// A binary tree that is one long chain: node i holds triangle i as one leaf and node i + 1
// as its other child (on the right, or on the left when innerFirst), every box the same
// large one. Queries must walk the whole chain, far deeper than any traversal stack; with
// the inner node first, the nearest-hit walk, which takes equal keys in slot order, goes
// down before it takes the leaves.
kxGenericBVH chainTree(uint32_t triangles, const kxBBox& box, bool innerFirst = false)
{
    kxGenericBVH bvh;
    bvh.mNodes.resize(2 * triangles - 1);
    bvh.mNodeCount = 2 * triangles - 1;
    for (uint32_t i = 0; i + 1 < triangles; ++i)
    {
        bvh.mNodes[2 * i] = innerFirst ? kxGNode{box, 2 * i + 2, 2 * i + 1} : kxGNode{box, 2 * i + 1, 2 * i + 2};
        bvh.mNodes[2 * i + 1] = {box, i | kxGNode::eLeafMark, 1};
    }
    bvh.mNodes[2 * triangles - 2] = {box, (triangles - 1) | kxGNode::eLeafMark, 1};
    bvh.mPrimitiveCount = triangles;
    bvh.mPrimitiveIndices.resize(triangles);
    std::iota(bvh.mPrimitiveIndices.begin(), bvh.mPrimitiveIndices.end(), 0u);
    return bvh;
}

struct RayQuery
{
    V3 origin, direction;
    float tMin, tMax;
};

bool sameBits(float a, float b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// One way of walking a batch (-1: the public calls) against one call per ray.
void expectBatchesAnswerAsSingleRays(const kxQBVH& qbvh, const std::vector<RayQuery>& queries, int policyValue,
                                     int walk)
{
    const auto policy = static_cast<kxQBVH::tIntersectionPolicy>(policyValue);
    const size_t n = queries.size();
    std::vector<V3> origins(n), directions(n);
    std::vector<float> tMin(n), tMax(n);
    for (size_t i = 0; i < n; ++i)
        origins[i] = queries[i].origin, directions[i] = queries[i].direction, tMin[i] = queries[i].tMin,
        tMax[i] = queries[i].tMax;
    const Wm4::Vector2<float> untouched(7.0f, -9.0f);
    for (size_t count : {size_t(0), std::min(n, size_t(3)), std::min(n, size_t(13)), n})
    {
        std::vector<float> t(tMax);
        std::vector<Wm4::Vector2<float>> barycentric(n, untouched);
        std::vector<unsigned int> triangle(n, 12345u);
        std::unique_ptr<bool[]> hit(new bool[n + 1]), occluded(new bool[n + 1]);
        std::fill(hit.get(), hit.get() + n + 1, true);
        std::fill(occluded.get(), occluded.get() + n + 1, true);
        const auto c = static_cast<unsigned int>(count);
        if (walk < 0)
        {
            qbvh.intersectRays(c, origins.data(), directions.data(), tMin.data(), t.data(), barycentric.data(),
                               triangle.data(), hit.get(), policy);
            qbvh.intersectRaysAny(c, origins.data(), directions.data(), tMin.data(), tMax.data(), occluded.get(),
                                  policy);
        }
        else
        {
            const auto way = static_cast<kxQBVHRay::BatchWalk>(walk);
            kxQBVHRay::nearestBatch(qbvh, way, c, origins.data(), directions.data(), tMin.data(), t.data(),
                                    barycentric.data(), triangle.data(), hit.get(), policy);
            kxQBVHRay::occludedBatch(qbvh, way, c, origins.data(), directions.data(), tMin.data(), tMax.data(),
                                     occluded.get(), policy);
        }
        for (size_t i = 0; i < n; ++i)
        {
            float expectedT = tMax[i];
            Wm4::Vector2<float> expectedBarycentric = untouched;
            unsigned int expectedTriangle = 12345u;
            const bool expectedHit = i < count && qbvh.intersectRay(origins[i], directions[i], tMin[i], expectedT,
                                                                     expectedBarycentric, expectedTriangle, policy);
            if (i >= count)
                expectedTriangle = 12345u;
            ASSERT_EQ(hit[i], i < count ? expectedHit : true) << "ray " << i << " of " << count;
            ASSERT_TRUE(sameBits(t[i], expectedT)) << "ray " << i << ": " << t[i] << " " << expectedT;
            ASSERT_TRUE(sameBits(barycentric[i][0], expectedBarycentric[0]) &&
                        sameBits(barycentric[i][1], expectedBarycentric[1]))
                    << "ray " << i;
            ASSERT_EQ(triangle[i], expectedTriangle) << "ray " << i;
            ASSERT_EQ(occluded[i],
                      i < count ? qbvh.intersectRayAny(origins[i], directions[i], tMin[i], tMax[i], policy) : true)
                    << "ray " << i << " of " << count;
        }
        ASSERT_TRUE(hit[n] && occluded[n]) << "written past the batch";
    }
}

// The batch queries against one call per ray, walked every way (and the way the public
// calls choose), on every prefix length that matters: none, fewer rays than a packet or
// than walks in flight, and all of them.
void expectBatchesAnswerAsSingleRays(const kxQBVH& qbvh, const std::vector<RayQuery>& queries, int policyValue)
{
    using kxQBVHRay::BatchWalk;
    for (int walk = -1; walk < 3; ++walk)
    {
        SCOPED_TRACE("walk " + std::to_string(walk));
        expectBatchesAnswerAsSingleRays(qbvh, queries, policyValue, walk);
        if (::testing::Test::HasFatalFailure())
            return;
    }
}

// Queries one hierarchy with random rays, bad rays and bad intervals, every policy and a
// value no policy has, and also exactly at and just beyond each nearest hit; then the same
// queries again as batches.
void expectSameAnswers(const kxQBVH& qbvh, std::mt19937& rng, int rays, int& hits)
{
    std::vector<RayQuery> queries[4];
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
                    queries[policy].push_back({o, d, tMin, tMax});
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
    for (int policy = 0; policy < 4; ++policy)
    {
        SCOPED_TRACE("batches, policy " + std::to_string(policy));
        expectBatchesAnswerAsSingleRays(qbvh, queries[policy], policy);
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
    const kxBBox box(V3(-20, -20, -20), V3(20, 20, 20));
    kxQBVH innerFirst;
    innerFirst.buildFromBVH(kxQBVH::eTrianglesEquations, chainTree(400, box, true), *mesh);
    int hits = 0;
    expectSameAnswers(innerFirst, rng, 10, hits);
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, chainTree(400, box), *mesh);
    expectSameAnswers(qbvh, rng, 30, hits);
    EXPECT_GT(hits, 50);
    // The last triangle of the chain is the deepest leaf; a ray through its centre finds it.
    const V3 centre = (mesh->GetVertexBuffer()->Position3(static_cast<int>(mesh->GetIndexBuffer()->GetData()[1197])) +
                       mesh->GetVertexBuffer()->Position3(static_cast<int>(mesh->GetIndexBuffer()->GetData()[1198])) +
                       mesh->GetVertexBuffer()->Position3(static_cast<int>(mesh->GetIndexBuffer()->GetData()[1199]))) /
                      3.0f;
    const V3 o(-30, -30, -30);
    EXPECT_TRUE(qbvh.intersectRayAny(o, centre - o, 0.0f, kInf, kxQBVH::eAllSides));
    // Rays at the deepest triangles: a batch must not stop where its stack ends either.
    std::vector<RayQuery> deep;
    for (int i = 370; i < 400; ++i)
    {
        V3 c(0, 0, 0);
        for (int k = 0; k < 3; ++k)
            c += mesh->GetVertexBuffer()->Position3(static_cast<int>(mesh->GetIndexBuffer()->GetData()[3 * i + k]));
        deep.push_back({o, c / 3.0f - o, 0.0f, kInf});
    }
    expectBatchesAnswerAsSingleRays(qbvh, deep, kxQBVH::eAllSides);
    expectBatchesAnswerAsSingleRays(innerFirst, deep, kxQBVH::eAllSides);
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
    // The batches: one line for the whole batch, every answer false, nothing else written.
    const V3 origins[2] = {o, o}, directions[2] = {V3(0, 0, 1), V3(0, 1, 0)};
    const float tMin[2] = {0.0f, 0.0f};
    float tMax[2] = {kInf, kInf};
    Wm4::Vector2<float> barycentrics[2] = {Wm4::Vector2<float>(3, 4), Wm4::Vector2<float>(3, 4)};
    unsigned int triangles[2] = {5, 5};
    bool answers[2] = {true, true};
    qbvh.intersectRays(2, origins, directions, tMin, tMax, barycentrics, triangles, answers, kxQBVH::eAllSides);
    EXPECT_FALSE(answers[0] || answers[1]);
    EXPECT_TRUE(tMax[1] == kInf && barycentrics[1] == Wm4::Vector2<float>(3, 4) && triangles[1] == 5u);
    answers[0] = answers[1] = true;
    qbvh.intersectRaysAny(2, origins, directions, tMin, tMax, answers, kxQBVH::eAllSides);
    EXPECT_FALSE(answers[0] || answers[1]);
    ASSERT_EQ(log.entries().size(), 4u);
    for (size_t i = 1; i < 4; ++i)
    {
        EXPECT_EQ(log.entries()[i].message, log.entries()[0].message);
        EXPECT_EQ(log.entries()[i].level, 2);
    }
}

TEST(QBVHRayBatches, RaysAreJudgedCoherentLocalOrScatteredAsTheyFollowEachOther)
{
    std::mt19937 rng(11);
    const auto mesh = randomSoup(rng, 200);
    kxQBVH qbvh;
    qbvh.buildFromMesh(kxQBVH::eTrianglesEquations, *mesh, 4);
    const kxBBox& box = qbvh.getBBox();
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    const auto inBox = [&] {
        return V3(box.min[0] + unit(rng) * (box.max[0] - box.min[0]), box.min[1] + unit(rng) * (box.max[1] - box.min[1]),
                  box.min[2] + unit(rng) * (box.max[2] - box.min[2]));
    };
    const auto randomDirection = [&] { return V3(signedUnit(rng), signedUnit(rng), signedUnit(rng)); };
    const size_t n = 5000;
    std::vector<V3> eye(n, V3(0, 0, -50)), toward(n), from(n), light(n, V3(0.3f, 1.0f, 0.2f)), random(n), spread(n),
            broken(n, V3(kNaN, 0, 0));
    for (size_t i = 0; i < n; ++i)
    {
        toward[i] = inBox() - eye[i];
        from[i] = V3(box.min[0] + 0.0001f * i, box.min[1], box.min[2]); // neighbouring surface points
        random[i] = randomDirection();
        spread[i] = inBox();
    }
    // The random rays sorted as the Python module sorts them: by a cell of a 4 x 4 x 4 grid
    // over the box and the octant of their direction, about ten to a cell and octant.
    std::vector<size_t> byPlace(n);
    for (size_t i = 0; i < n; ++i)
        byPlace[i] = i;
    const auto key = [&](size_t i) {
        int cell = 0;
        for (int a = 0; a < 3; ++a)
            cell = 4 * cell + std::min(3, int(4.0f * (spread[i][a] - box.min[a]) / (box.max[a] - box.min[a])));
        return 8 * cell + 4 * (random[i][0] < 0) + 2 * (random[i][1] < 0) + (random[i][2] < 0);
    };
    std::stable_sort(byPlace.begin(), byPlace.end(), [&](size_t a, size_t b) { return key(a) < key(b); });
    std::vector<V3> sortedFrom(n), sortedWay(n);
    for (size_t i = 0; i < n; ++i)
        sortedFrom[i] = spread[byPlace[i]], sortedWay[i] = random[byPlace[i]];

    using kxQBVHRay::RayOrder;
    const auto order = [&](const std::vector<V3>& o, const std::vector<V3>& d, size_t count) {
        return kxQBVHRay::rayOrder(qbvh, static_cast<unsigned int>(count), o.data(), d.data());
    };
    EXPECT_EQ(order(eye, toward, n), RayOrder::eCoherent);          // a camera: one origin
    EXPECT_EQ(order(from, light, n), RayOrder::eCoherent);          // shadow rays: one direction
    EXPECT_EQ(order(eye, random, n), RayOrder::eCoherent);          // a hemisphere: one origin
    EXPECT_EQ(order(sortedFrom, sortedWay, n), RayOrder::eLocal);   // random rays sorted by place
    EXPECT_EQ(order(spread, random, n), RayOrder::eScattered);      // anywhere, any way
    EXPECT_EQ(order(broken, broken, n), RayOrder::eScattered);      // NaN travels with nothing
    EXPECT_EQ(order(spread, random, 1), RayOrder::eCoherent);       // one ray alone
}
