#include "kxMedianSplitBVH.h"
#include "kxQBVH.h"
#include "kxQBVHTestUtil.h"
#include "kxTestMeshes.h"

#include <gtest/gtest.h>

#include <thread>

using namespace kxtest;

namespace
{
struct Query
{
    Wm4::Vector3<float> origin, direction;
    float tMin;
    int mode; // 0..2: intersectRay with that policy, 3: symmetric, 4: convex hull
    std::vector<Wm4::Vector4<float>> planes;
};

struct Answer
{
    bool hit = false;
    float t = 0.0f;
    float w = 0.0f, u = 0.0f;
    unsigned int triangle = 0;

    bool operator==(const Answer& o) const
    {
        return hit == o.hit && bitsOf(t) == bitsOf(o.t) && bitsOf(w) == bitsOf(o.w) && bitsOf(u) == bitsOf(o.u) &&
               triangle == o.triangle;
    }
};

Answer ask(const kxQBVH& qbvh, const Query& q)
{
    Answer a;
    a.t = kInf;
    Wm4::Vector2<float> bary(0.0f, 0.0f);
    if (q.mode == 4)
    {
        auto* set = kxQBVH::CreateSOAPlaneEquationSet(q.planes.data(), static_cast<unsigned int>(q.planes.size()));
        a.hit = qbvh.intersectConvexHull(set, static_cast<unsigned int>(q.planes.size()));
        kxQBVH::DeleteSOAPlaneEquationSet(set);
        return a;
    }
    if (q.mode == 3)
        a.hit = qbvh.intersectRaySymmetric(q.origin, q.direction, a.t, bary, a.triangle);
    else
        a.hit = qbvh.intersectRay(q.origin, q.direction, q.tMin, a.t, bary, a.triangle,
                                  static_cast<kxQBVH::tIntersectionPolicy>(q.mode));
    a.w = bary[0];
    a.u = bary[1];
    return a;
}
} // namespace

TEST(QBVHThreads, ConcurrentQueriesOnOneHierarchyGiveTheSingleThreadedAnswers)
{
    std::mt19937 rng(31);
    auto mesh = randomSoup(rng, 3000);
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::tQBVHDataFlags(3), buildMedianSplitBVH(*mesh), *mesh);

    std::vector<Query> queries(4000);
    std::uniform_real_distribution<float> signedUnit(-1.0f, 1.0f);
    for (size_t i = 0; i < queries.size(); ++i)
    {
        Query& q = queries[i];
        randomRay(rng, qbvh.getBBox(), i % 2 == 0, q.origin, q.direction);
        q.mode = static_cast<int>(i % 5);
        q.tMin = i % 3 == 0 ? -5.0f : 0.0f;
        if (q.mode == 4)
            for (int p = 0; p < 4; ++p)
            {
                Wm4::Vector3<float> n(signedUnit(rng), signedUnit(rng), signedUnit(rng));
                q.planes.emplace_back(n[0], n[1], n[2], -n.Dot(q.origin) + 0.5f);
            }
    }
    std::vector<Answer> expected;
    int hits = 0;
    for (const Query& q : queries)
    {
        expected.push_back(ask(qbvh, q));
        hits += expected.back().hit;
    }
    ASSERT_GT(hits, 400);

    const int threadCount = 4;
    std::vector<std::vector<Answer>> answers(threadCount, std::vector<Answer>(queries.size()));
    std::vector<std::thread> threads;
    for (int k = 0; k < threadCount; ++k)
        threads.emplace_back([&, k] {
            // Each thread walks the queries from a different start, so that different
            // queries overlap in time.
            for (size_t j = 0; j < queries.size(); ++j)
            {
                const size_t i = (j + static_cast<size_t>(k) * queries.size() / threadCount) % queries.size();
                answers[static_cast<size_t>(k)][i] = ask(qbvh, queries[i]);
            }
        });
    for (std::thread& t : threads)
        t.join();
    for (int k = 0; k < threadCount; ++k)
        for (size_t i = 0; i < queries.size(); ++i)
            ASSERT_EQ(answers[static_cast<size_t>(k)][i], expected[i]) << "thread " << k << " query " << i;
}
