#include "kxCapturingLog.h"
#include "kxQBVH.h"
#include "kxTestMeshes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <vector>

namespace
{
using V3 = Wm4::Vector3<float>;
constexpr float kInf = std::numeric_limits<float>::infinity();

// One query's whole answer, floats as bit patterns: threads must agree bit for bit.
struct Answer
{
    bool hit = false;
    uint32_t t = 0, w = 0, u = 0, triangle = 0;
    bool operator==(const Answer& o) const
    {
        return hit == o.hit && t == o.t && w == o.w && u == o.u && triangle == o.triangle;
    }
};

uint32_t bitsOf(float f)
{
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

// Modes 0 to 2 are the side policies of intersectRay, 3 the symmetric query and 4 the
// convex-hull query over the query's box of six planes.
struct Query
{
    int mode;
    V3 origin, direction;
    float tMin;
    std::vector<kxQBVH::tSOASinglePlaneEqn> planes;
};

Answer ask(const kxQBVH& qbvh, const Query& q)
{
    Answer a;
    float t = q.mode == 3 ? 40.0f : kInf;
    Wm4::Vector2<float> barycentric(-7.0f, -7.0f);
    unsigned int triangle = 12345u;
    if (q.mode == 4)
        a.hit = qbvh.intersectConvexHull(q.planes.data(), static_cast<unsigned int>(q.planes.size()));
    else if (q.mode == 3)
        a.hit = qbvh.intersectRaySymmetric(q.origin, q.direction, t, barycentric, triangle);
    else
        a.hit = qbvh.intersectRay(q.origin, q.direction, q.tMin, t, barycentric, triangle,
                                  static_cast<kxQBVH::tIntersectionPolicy>(q.mode));
    a.t = bitsOf(t), a.w = bitsOf(barycentric[0]), a.u = bitsOf(barycentric[1]), a.triangle = triangle;
    return a;
}

std::vector<Query> randomQueries(std::mt19937& rng, const kxBBox& box, size_t count)
{
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    auto pointNear = [&](float margin) {
        V3 p;
        for (int a = 0; a < 3; ++a)
            p[a] = box.min[a] - margin + unit(rng) * (box.max[a] - box.min[a] + 2.0f * margin);
        return p;
    };
    std::vector<Query> queries(count);
    for (size_t i = 0; i < count; ++i)
    {
        Query& q = queries[i];
        q.mode = static_cast<int>(i % 5);
        q.origin = pointNear(5.0f);
        q.direction = pointNear(0.0f) - q.origin;
        q.tMin = i % 3 == 0 ? -5.0f : 0.0f;
        if (q.mode != 4)
            continue;
        // A small box around a random point: some reach triangles, some fall between them.
        const V3 centre = pointNear(0.0f);
        const float half = 0.05f + 0.5f * unit(rng);
        std::vector<Wm4::Vector4<float>> faces;
        for (int a = 0; a < 3; ++a)
            for (float side : {1.0f, -1.0f})
            {
                Wm4::Vector4<float> plane(0.0f, 0.0f, 0.0f, half - side * centre[a]);
                plane[a] = side;
                faces.push_back(plane);
            }
        q.planes.resize(faces.size());
        kxQBVH::InitSOAPlaneEquationSet(faces.data(), q.planes.data(), static_cast<unsigned int>(faces.size()));
    }
    return queries;
}
} // namespace

// Every query kind, rays with and without a negative tMin, on one hierarchy from four
// threads that start at different queries, so that different queries overlap in time.
TEST(QBVHQueries, ConcurrentQueriesOnOneHierarchyGiveTheSingleThreadedAnswers)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(31);
    auto mesh = kxtest::randomSoup(rng, 3000);
    kxQBVH qbvh;
    qbvh.buildFromMesh(kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations), *mesh, 4);
    const std::vector<Query> queries = randomQueries(rng, qbvh.getBBox(), 2500);
    std::vector<Answer> expected;
    int hits[5] = {};
    for (const Query& q : queries)
    {
        expected.push_back(ask(qbvh, q));
        hits[q.mode] += expected.back().hit;
    }
    for (int mode = 0; mode < 5; ++mode)
        ASSERT_TRUE(hits[mode] > 50 && hits[mode] < 450) << "mode " << mode << " decides nothing: " << hits[mode];

    const size_t threadCount = 4;
    std::vector<std::vector<Answer>> answers(threadCount, std::vector<Answer>(queries.size()));
    std::vector<std::thread> threads;
    for (size_t k = 0; k < threadCount; ++k)
        threads.emplace_back([&, k] {
            for (size_t j = 0; j < queries.size(); ++j)
            {
                const size_t i = (j + k * queries.size() / threadCount) % queries.size();
                answers[k][i] = ask(qbvh, queries[i]);
            }
        });
    for (std::thread& t : threads)
        t.join();
    for (size_t k = 0; k < threadCount; ++k)
        for (size_t i = 0; i < queries.size(); ++i)
            ASSERT_EQ(answers[k][i], expected[i]) << "thread " << k << " query " << i << " mode " << queries[i].mode;
}
