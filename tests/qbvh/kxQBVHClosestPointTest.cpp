#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxGenericBVHBuilder.h"
#include "kxQBVHTestUtil.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>

using namespace kxtest;

namespace
{
using V3 = Wm4::Vector3<float>;
using Real = long double;

struct P3
{
    Real x, y, z;
    P3(const V3& v) : x(v[0]), y(v[1]), z(v[2]) {}
    P3(Real a, Real b, Real c) : x(a), y(b), z(c) {}
};
P3 operator-(const P3& a, const P3& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
P3 operator+(const P3& a, const P3& b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
P3 operator*(const P3& a, Real s) { return {a.x * s, a.y * s, a.z * s}; }
Real dot(const P3& a, const P3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
P3 cross(const P3& a, const P3& b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }

Real segmentDistance(const P3& p, const P3& a, const P3& b)
{
    const P3 e = b - a;
    const Real ee = dot(e, e);
    const Real t = ee > 0 ? std::clamp(dot(p - a, e) / ee, Real(0), Real(1)) : Real(0);
    const P3 d = p - (a + e * t);
    return std::sqrt(dot(d, d));
}

// Distance from p to a triangle in extended precision: to its plane when the foot of the
// perpendicular lies inside, otherwise to the nearest of its edges.
Real triangleDistance(const P3& p, const P3& a, const P3& b, const P3& c)
{
    Real best = std::min({segmentDistance(p, a, b), segmentDistance(p, b, c), segmentDistance(p, c, a)});
    const P3 n = cross(b - a, c - a);
    const Real nn = dot(n, n);
    if (nn > 1e-24L * dot(b - a, b - a) * dot(c - a, c - a) && dot(cross(b - a, p - a), n) >= 0 &&
        dot(cross(c - b, p - b), n) >= 0 && dot(cross(a - c, p - c), n) >= 0)
        best = std::min(best, std::fabs(dot(n, p - a)) / std::sqrt(nn));
    return best;
}

struct Mesh
{
    std::vector<V3> positions;
    std::vector<unsigned int> indices;
    V3 corner(unsigned int triangle, int k) const { return positions[indices[3 * triangle + k]]; }
    unsigned int triangles() const { return static_cast<unsigned int>(indices.size() / 3); }
};

// A soup with sliver caps (a corner a hair from the opposite edge), needles, segments,
// points and repeated triangles beside ordinary ones, shifted away from the origin so
// that the padding lanes' corners at the origin lie far from everything.
Mesh randomMesh(std::mt19937& rng, int triangles, float extent, V3 shift)
{
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    std::uniform_real_distribution<float> size(0.01f, 2.0f);
    Mesh m;
    const auto point = [&](float s) { return V3(unit(rng), unit(rng), unit(rng)) * s; };
    for (int t = 0; t < triangles; ++t)
    {
        const V3 a = shift + point(extent);
        V3 b = a + point(size(rng)), c = a + point(size(rng));
        switch (rng() % 8)
        {
        case 0: c = a + (b - a) * 0.37f + point(1e-6f); break; // cap
        case 1: c = b + point(1e-5f); break;                   // needle
        case 2: c = a + (b - a) * 0.5f; break;                 // segment
        case 3: c = a; break;                                  // segment with a double corner
        case 4: b = c = a; break;                              // point
        default: break;
        }
        if (t > 0 && rng() % 10 == 0)
            m.positions.insert(m.positions.end(), m.positions.end() - 3, m.positions.end());
        else
            m.positions.insert(m.positions.end(), {a, b, c});
    }
    m.indices.resize(m.positions.size());
    std::iota(m.indices.begin(), m.indices.end(), 0u);
    return m;
}

// A tree in which every triangle is stored twice, once in each half of its box split
// across its longest axis, as builders with spatial splits store them: a leaf box then
// bounds only part of its triangle.
kxGenericBVH splitFragmentTree(const Mesh& m)
{
    std::vector<kxBBox> fragments;
    std::vector<uint32_t> owner;
    for (unsigned int t = 0; t < m.triangles(); ++t)
    {
        kxBBox box;
        for (int k = 0; k < 3; ++k)
            box.extend(m.corner(t, k));
        int axis = 0;
        for (int a = 1; a < 3; ++a)
            if (box.max[a] - box.min[a] > box.max[axis] - box.min[axis])
                axis = a;
        const float middle = 0.5f * (box.min[axis] + box.max[axis]);
        kxBBox low = box, high = box;
        low.max[axis] = middle;
        high.min[axis] = middle;
        fragments.insert(fragments.end(), {low, high});
        owner.insert(owner.end(), {t, t});
    }
    kxGenericBVH bvh;
    kxGenericBVHBuilder().build(BoxContainer(fragments), bvh);
    for (uint32_t& index : bvh.mPrimitiveIndices)
        index = owner[index];
    return bvh;
}

struct Query
{
    bool found;
    float distance;
    V3 closest;
    Wm4::Vector2<float> barycentric;
    unsigned int triangle;
};

Query ask(const kxQBVH& qbvh, const V3& p, float limit)
{
    Query q{false, limit, V3(-7, -7, -7), Wm4::Vector2<float>(-7, -7), 12345u};
    q.found = qbvh.findClosestPoint(p, q.distance, q.closest, q.barycentric, q.triangle);
    return q;
}

// Checks one answer against the brute force over every triangle. Returns whether the
// limit decided it (false when the true distance lies within rounding of the limit).
bool checkAnswer(const Mesh& m, const V3& p, float limit, const Query& q, float scale)
{
    Real nearest = INFINITY;
    for (unsigned int t = 0; t < m.triangles(); ++t)
        nearest = std::min(nearest, triangleDistance(p, m.corner(t, 0), m.corner(t, 1), m.corner(t, 2)));
    // A few float steps of the coordinates' scale (or of a larger distance).
    const Real tolerance = 4 * std::ldexp(Real(std::max<Real>(scale, nearest)), -23);
    if (std::fabs(nearest - limit) <= tolerance)
        return false;
    if (nearest > limit)
    {
        EXPECT_TRUE(!q.found && q.distance == limit && q.triangle == 12345u) << "found beyond the limit";
        return true;
    }
    if (!q.found)
    {
        ADD_FAILURE() << "nothing found, nearest at " << double(nearest);
        return true;
    }
    EXPECT_NEAR(double(q.distance), double(nearest), double(tolerance));
    EXPECT_LT(q.triangle, m.triangles());
    if (q.triangle >= m.triangles())
        return true;
    const P3 a = m.corner(q.triangle, 0), b = m.corner(q.triangle, 1), c = m.corner(q.triangle, 2);
    EXPECT_NEAR(double(triangleDistance(p, a, b, c)), double(nearest), double(tolerance)) << "not a nearest triangle";
    // The point lies on the triangle where its barycentric pair says, at the distance given.
    const Real w0 = q.barycentric[0], w1 = q.barycentric[1], w2 = 1 - w0 - w1;
    EXPECT_TRUE(w0 >= -1e-6L && w1 >= -1e-6L && w2 >= -1e-6L) << w0 << " " << w1;
    const P3 onTriangle = a * w0 + b * w1 + c * w2;
    const P3 gap = onTriangle - P3(q.closest), toPoint = P3(q.closest) - P3(p);
    EXPECT_LE(double(std::sqrt(dot(gap, gap))), double(tolerance));
    EXPECT_NEAR(double(std::sqrt(dot(toPoint, toPoint))), double(q.distance), double(tolerance));
    return true;
}
} // namespace

TEST(QBVHClosestPoint, FindsTheBruteForceDistanceOnEveryTreeShapeWithinALimit)
{
    std::mt19937 rng(90210);
    int decided = 0, undecided = 0, found = 0;
    // Median-split trees, a root leaf, the linear builder, SAH, and triangles split over
    // two leaves each; meshes near the origin and far from it.
    for (int shape = 0; shape < 6; ++shape)
        for (float offset : {0.0f, 1000.0f})
        {
            SCOPED_TRACE("shape " + std::to_string(shape) + " offset " + std::to_string(offset));
            const Mesh m = randomMesh(rng, shape == 1 ? 3 : 300, 10.0f, V3(offset, -0.5f * offset, 2.0f * offset));
            const auto mesh = makeMesh(m.positions, m.indices);
            kxQBVH qbvh;
            const auto flags = kxQBVH::eTrianglesVertices;
            if (shape == 2)
                qbvh.buildFromMesh(flags, *mesh, 4);
            else if (shape == 3)
            {
                kxGenericBVH sah;
                kxGenericBVHBuilder().build(kxBVHTriangleContainer(*mesh), sah);
                qbvh.buildFromBVH(flags, sah, *mesh);
            }
            else if (shape == 4)
                qbvh.buildFromBVH(flags, splitFragmentTree(m), *mesh);
            else
            {
                const MedianSplitOptions splits[] = {{}, {}, {}, {}, {}, {11, false, true, 0}};
                qbvh.buildFromBVH(flags, buildMedianSplitBVH(*mesh, splits[shape]), *mesh);
            }
            const kxBBox& box = qbvh.getBBox();
            float scale = 0.0f;
            for (int a = 0; a < 3; ++a)
                scale = std::max({scale, std::fabs(box.min[a]), std::fabs(box.max[a])});
            std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
            for (int i = 0; i < 300; ++i)
            {
                // On a triangle, a little off it, at a corner, anywhere in a box three times
                // the mesh's, and at the origin.
                const unsigned int t = rng() % m.triangles();
                float u = unit(rng), v = unit(rng);
                if (u + v > 1.0f)
                    u = 1.0f - u, v = 1.0f - v;
                V3 p = m.corner(t, 0) + (m.corner(t, 1) - m.corner(t, 0)) * u + (m.corner(t, 2) - m.corner(t, 0)) * v;
                const int kind = i % 5;
                if (kind == 1)
                    p += V3(signedUnit(rng), signedUnit(rng), signedUnit(rng)) * 0.01f;
                else if (kind == 2)
                    p = m.corner(t, i % 3);
                else if (kind == 3)
                    for (int a = 0; a < 3; ++a)
                        p[a] = box.min[a] + (3.0f * unit(rng) - 1.0f) * (box.max[a] - box.min[a]);
                else if (kind == 4 && i % 3 == 0)
                    p = V3(0, 0, 0);
                const Query all = ask(qbvh, p, kInf);
                ASSERT_TRUE(all.found);
                const float scaleHere = std::max({scale, std::fabs(p[0]), std::fabs(p[1]), std::fabs(p[2])});
                checkAnswer(m, p, kInf, all, scaleHere);
                // Limits around the answer cut it off or keep it; the distance found is
                // itself a limit that keeps it.
                const float step = 12.0f * std::ldexp(std::max(scaleHere, all.distance), -23);
                const Query again = ask(qbvh, p, all.distance);
                EXPECT_TRUE(again.found && bitsOf(again.distance) == bitsOf(all.distance));
                for (float limit : {0.0f, 0.5f * all.distance, all.distance - step, all.distance + step,
                                    2.0f * all.distance})
                {
                    // On the surface only a limit above rounding decides anything.
                    if (all.distance <= 2.0f * step && limit != all.distance + step)
                        continue;
                    const Query q = ask(qbvh, p, limit);
                    const bool decides = checkAnswer(m, p, limit, q, scaleHere);
                    decided += decides;
                    undecided += !decides;
                    found += decides && q.found;
                }
                if (testing::Test::HasFailure())
                    FAIL() << "point " << i << " (" << p[0] << ", " << p[1] << ", " << p[2] << ")";
            }
        }
    EXPECT_GT(decided, 20 * undecided);
    EXPECT_GT(found, decided / 3);
}

TEST(QBVHClosestPoint, DegenerateTrianglesAnswerAsTheirSegmentsAndPoints)
{
    // A point, a segment given with a repeated corner and a segment with its middle corner
    // on it; the nearest point and its weights are known exactly.
    const std::vector<V3> corners = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0},   {10, 0, 0}, {10, 0, 0},
                                     {14, 0, 0}, {20, 0, 0}, {22, 0, 0}, {24, 0, 0}};
    std::vector<unsigned int> indices(9);
    std::iota(indices.begin(), indices.end(), 0u);
    const auto mesh = makeMesh(corners, indices);
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*mesh, {1}), *mesh);
    const struct
    {
        V3 p;
        float distance;
        V3 closest;
        unsigned int triangle;
    } cases[] = {{{-3, 4, 0}, 5, {0, 0, 0}, 0}, {{13, 0, 3}, 3, {13, 0, 0}, 1}, {{16, 0, 0}, 2, {14, 0, 0}, 1},
                 {{23, -1, 0}, 1, {23, 0, 0}, 2}, {{30, 0, 0}, 6, {24, 0, 0}, 2}};
    for (const auto& c : cases)
    {
        const Query q = ask(qbvh, c.p, kInf);
        ASSERT_TRUE(q.found);
        EXPECT_EQ(q.triangle, c.triangle);
        EXPECT_EQ(q.distance, c.distance);
        EXPECT_EQ(q.closest, c.closest);
        const V3 fromWeights = corners[3 * q.triangle] * q.barycentric[0] + corners[3 * q.triangle + 1] * q.barycentric[1] +
                               corners[3 * q.triangle + 2] * (1.0f - q.barycentric[0] - q.barycentric[1]);
        EXPECT_LT((fromWeights - c.closest).Length(), 1e-5f);
    }
}

TEST(QBVHClosestPoint, ATreeDeeperThanItsStackAndPaddingAtTheOriginGiveTheNearestRealTriangle)
{
    // Every leaf holds one triangle, so every group has three padding lanes with corners
    // at the origin, where the query stands; the chain of boxes is deeper than the stack.
    std::mt19937 rng(8);
    const Mesh m = randomMesh(rng, 200, 10.0f, V3(40, 0, 0));
    const auto mesh = makeMesh(m.positions, m.indices);
    kxGenericBVH chain;
    const kxBBox box(V3(-100, -100, -100), V3(100, 100, 100));
    chain.mNodes.resize(2 * m.triangles() - 1);
    chain.mNodeCount = 2 * m.triangles() - 1;
    for (uint32_t i = 0; i + 1 < m.triangles(); ++i)
    {
        chain.mNodes[2 * i] = {box, 2 * i + 1, 2 * i + 2};
        chain.mNodes[2 * i + 1] = {box, i | kxGNode::eLeafMark, 1};
    }
    chain.mNodes[2 * m.triangles() - 2] = {box, (m.triangles() - 1) | kxGNode::eLeafMark, 1};
    chain.mPrimitiveCount = m.triangles();
    chain.mPrimitiveIndices.resize(m.triangles());
    std::iota(chain.mPrimitiveIndices.begin(), chain.mPrimitiveIndices.end(), 0u);
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, chain, *mesh);
    for (const V3& p : {V3(0, 0, 0), V3(40, 1, 2), V3(55, -3, 9)})
    {
        const Query q = ask(qbvh, p, kInf);
        ASSERT_TRUE(q.found);
        checkAnswer(m, p, kInf, q, 60.0f);
    }
}

TEST(QBVHClosestPoint, RefusesWhatHasNoNearestPointAndLeavesTheOutputsAlone)
{
    std::mt19937 rng(4);
    const auto mesh = randomSoup(rng, 30);
    kx::kxCapturingLog log;
    log.install();
    kxQBVH equationsOnly, vertices;
    equationsOnly.buildFromBVH(kxQBVH::eTrianglesEquations, buildMedianSplitBVH(*mesh), *mesh);
    vertices.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*mesh), *mesh);
    const Query untouched{false, 3.0f, V3(-7, -7, -7), Wm4::Vector2<float>(-7, -7), 12345u};
    const auto same = [&](const Query& q) {
        return !q.found && bitsOf(q.distance) == bitsOf(untouched.distance) && q.closest == untouched.closest &&
               q.barycentric == untouched.barycentric && q.triangle == untouched.triangle;
    };
    const auto askWith = [&](const kxQBVH& qbvh, const V3& p, float limit) {
        Query q = untouched;
        q.distance = limit;
        q.found = qbvh.findClosestPoint(p, q.distance, q.closest, q.barycentric, q.triangle);
        if (!q.found && bitsOf(q.distance) == bitsOf(limit))
            q.distance = untouched.distance;
        return q;
    };
    EXPECT_TRUE(same(askWith(equationsOnly, V3(0, 0, 0), 3.0f)));
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.entries()[0].message,
              "error: QBVH is not built with the right data type (should be kxQBVH::eTrianglesVertices)");
    EXPECT_EQ(log.entries()[0].level, 2);
    log.clear();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const V3& p : {V3(nan, 0, 0), V3(0, kInf, 0), V3(0, 0, -kInf)})
        EXPECT_TRUE(same(askWith(vertices, p, kInf)));
    for (float limit : {-1.0f, nan})
        EXPECT_TRUE(same(askWith(vertices, V3(0, 0, 0), limit)));
    EXPECT_TRUE(log.entries().empty());
    const auto empty = makeMesh({}, {});
    kxQBVH none;
    none.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*empty), *empty);
    EXPECT_TRUE(same(askWith(none, V3(0, 0, 0), kInf)));
}

TEST(QBVHClosestPoint, ConcurrentQueriesGiveTheSingleThreadedAnswers)
{
    std::mt19937 rng(12);
    const auto mesh = randomSoup(rng, 3000);
    kxQBVH qbvh;
    qbvh.buildFromMesh(kxQBVH::eTrianglesVertices, *mesh, 4);
    std::uniform_real_distribution<float> unit(-15.0f, 15.0f);
    std::vector<V3> points(3000);
    for (V3& p : points)
        p = V3(unit(rng), unit(rng), unit(rng));
    std::vector<Query> expected;
    for (const V3& p : points)
        expected.push_back(ask(qbvh, p, kInf));
    std::vector<std::vector<Query>> answers(4, std::vector<Query>(points.size()));
    std::vector<std::thread> threads;
    for (size_t k = 0; k < answers.size(); ++k)
        threads.emplace_back([&, k] {
            for (size_t j = 0; j < points.size(); ++j)
            {
                const size_t i = (j + k * points.size() / answers.size()) % points.size();
                answers[k][i] = ask(qbvh, points[i], kInf);
            }
        });
    for (std::thread& t : threads)
        t.join();
    for (size_t k = 0; k < answers.size(); ++k)
        for (size_t i = 0; i < points.size(); ++i)
            ASSERT_TRUE(answers[k][i].found && bitsOf(answers[k][i].distance) == bitsOf(expected[i].distance) &&
                        answers[k][i].triangle == expected[i].triangle && answers[k][i].closest == expected[i].closest)
                    << "thread " << k << " point " << i;
}
