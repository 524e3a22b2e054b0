#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxConvexRegions.h"
#include "kxGenericBVHBuilder.h"
#include "kxHighQualityBVHBuilder.h"
#include "kxQBVHReference.h"
#include "kxQBVHStatistics.h"
#include "kxQBVHTestUtil.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <set>

using namespace kxtest;

namespace
{
using V3 = Wm4::Vector3<float>;
constexpr int kSymmetric = 4; // modes 0..2 are the side policies

struct NamedMesh
{
    std::string name;
    kx::kxPointer<kx::kxTriMesh> mesh;
};

kx::kxPointer<kx::kxTriMesh> scaled(const kx::kxTriMesh& mesh, float scale)
{
    std::vector<V3> positions;
    for (int v = 0; v < mesh.GetVertexBuffer()->GetVertexQuantity(); ++v)
        positions.push_back(mesh.GetVertexBuffer()->Position3(v) * scale);
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    return makeMesh(positions, std::vector<unsigned int>(index, index + mesh.GetIndexBuffer()->GetIndexQuantity()));
}

// Long thin triangles in every direction, as CAD exports make them, with fans around
// shared corners.
kx::kxPointer<kx::kxTriMesh> slivers(std::mt19937& rng, int count)
{
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    std::vector<V3> positions;
    std::vector<unsigned int> indices;
    for (int t = 0; t < count; ++t)
    {
        V3 a(unit(rng) * 20, unit(rng) * 20, unit(rng) * 20);
        if (t % 3 && !positions.empty())
            a = positions[positions.size() - 3];
        V3 along(unit(rng), unit(rng), unit(rng)), across(unit(rng), unit(rng), unit(rng));
        along.Normalize();
        const auto base = static_cast<unsigned int>(positions.size());
        positions.insert(positions.end(), {a, a + along * 30.0f, a + along * 15.0f + across * 0.01f});
        indices.insert(indices.end(), {base, base + 1, base + 2});
    }
    return makeMesh(positions, indices);
}

// Cylinders of long slivers, plates of two triangles and small parts, at many scales.
kx::kxPointer<kx::kxTriMesh> cadLike(std::mt19937& rng, int parts)
{
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<V3> positions;
    std::vector<unsigned int> indices;
    for (int part = 0; part < parts; ++part)
    {
        const V3 origin(unit(rng) * 100, unit(rng) * 100, unit(rng) * 100);
        const float radius = 0.2f + 5.0f * unit(rng), length = 5.0f + 60.0f * unit(rng);
        const int axis = part % 3, sides = 12 + part % 20;
        const auto base = static_cast<unsigned int>(positions.size());
        for (int s = 0; s < sides; ++s)
            for (int end = 0; end < 2; ++end)
            {
                const float angle = 6.2831853f * float(s) / float(sides);
                V3 p = origin;
                p[axis] += end * length;
                p[(axis + 1) % 3] += radius * std::cos(angle);
                p[(axis + 2) % 3] += radius * std::sin(angle);
                positions.push_back(p);
            }
        for (int s = 0; s < sides; ++s)
        {
            const unsigned int a = base + 2 * s, b = base + 2 * ((s + 1) % sides);
            indices.insert(indices.end(), {a, b, a + 1, b, b + 1, a + 1});
            if (s > 1) // the end caps as fans
                indices.insert(indices.end(), {base, a - 2, a, base + 1, a + 1, a - 1});
        }
    }
    return makeMesh(positions, indices);
}

std::vector<NamedMesh> testMeshes()
{
    std::mt19937 rng(2024);
    SoupOptions odd;
    odd.degenerates = odd.duplicates = true;
    const auto soup = randomSoup(rng, 1500, odd);
    std::vector<unsigned int> same(3 * 700);
    for (size_t i = 0; i < same.size(); ++i)
        same[i] = static_cast<unsigned int>(i % 3);
    return {{"soup with degenerates and duplicates", soup},
            {"grid", randomTriangleMesh(5, 1200, Layout::Grid)},
            {"clustered", randomTriangleMesh(6, 1500, Layout::Clustered)},
            {"flat", randomTriangleMesh(7, 900, Layout::Flat)},
            {"long slivers", slivers(rng, 1400)},
            {"cad-like", cadLike(rng, 40)},
            {"coincident", makeMesh({{0, 0, 0}, {1, 0.5f, 0.25f}, {0.5f, 1, 0.75f}}, same)},
            {"huge", scaled(*soup, 3e36f)},
            {"near the largest floats, extents overflowing", scaled(*soup, 2.8e37f)},
            {"tiny", scaled(*soup, 1e-30f)}};
}

uint32_t triangleCount(const kx::kxTriMesh& mesh)
{
    return static_cast<uint32_t>(std::max(0, mesh.GetIndexBuffer()->GetIndexQuantity() / 3));
}

V3 corner(const kx::kxTriMesh& mesh, uint32_t t, int k)
{
    return mesh.GetVertexBuffer()->Position3(static_cast<int>(mesh.GetIndexBuffer()->GetData()[3 * t + k]));
}

bool contains(const kxBBox& outer, const kxBBox& inner)
{
    for (int a = 0; a < 3; ++a)
        if (inner.min[a] < outer.min[a] || inner.max[a] > outer.max[a])
            return false;
    return true;
}

// Checks the whole store and returns the leaf boxes that hold each triangle. Every
// triangle must be covered by the boxes of its leaves: points spread over it (corners,
// edges, inside) must each lie in one of them.
std::vector<std::vector<kxBBox>> checkStore(const kxGenericBVH& bvh, const kx::kxTriMesh& mesh, uint32_t limit)
{
    const uint32_t n = triangleCount(mesh);
    std::vector<std::vector<kxBBox>> leafBoxes(n);
    EXPECT_EQ(bvh.mPrimitiveCount, bvh.mPrimitiveIndices.size());
    EXPECT_LE(bvh.mPrimitiveIndices.size(), n + n / 4);
    EXPECT_EQ(bvh.mNodeCount, bvh.mNodes.size());
    if (bvh.mNodes.empty())
        return ADD_FAILURE() << "no root", leafBoxes;
    std::vector<uint8_t> reached(bvh.mNodes.size());
    uint32_t nextPosition = 0;
    std::vector<uint32_t> stack{0};
    while (!stack.empty())
    {
        const uint32_t k = stack.back();
        stack.pop_back();
        if (reached[k]++)
            return ADD_FAILURE() << "record " << k << " reached twice", leafBoxes;
        const kxGNode& node = bvh.mNodes[k];
        if (node.offset < kxGNode::eLeafMark)
        {
            const uint32_t left = node.offset & kxGNode::eIndexMask;
            EXPECT_EQ(node.count, left + 1);
            for (uint32_t child : {left, left + 1})
                EXPECT_TRUE(contains(node.bbox, bvh.mNodes[child].bbox)) << "record " << k << " child " << child;
            stack.push_back(left + 1);
            stack.push_back(left);
            continue;
        }
        // Left-first order visits the runs in array order, each right after the last.
        const uint32_t first = node.offset & kxGNode::eIndexMask;
        EXPECT_EQ(first, nextPosition) << "leaf " << k;
        EXPECT_LE(node.count, limit) << "leaf " << k;
        EXPECT_TRUE(n == 0 || node.count > 0) << "leaf " << k;
        nextPosition = first + node.count;
        std::set<uint32_t> held;
        kxBBox full;
        for (uint32_t p = first; p < first + node.count; ++p)
        {
            const uint32_t t = bvh.mPrimitiveIndices[p];
            EXPECT_TRUE(t < n && held.insert(t).second) << "leaf " << k << " triangle " << t;
            if (t >= n)
                continue;
            leafBoxes[t].push_back(node.bbox);
            for (int c = 0; c < 3; ++c)
                full.extend(corner(mesh, t, c));
        }
        // A clipped box never reaches beyond its triangles.
        EXPECT_TRUE(node.count == 0 || contains(full, node.bbox)) << "leaf " << k;
    }
    EXPECT_EQ(nextPosition, bvh.mPrimitiveIndices.size());
    for (uint32_t t = 0; t < n; ++t)
    {
        if (leafBoxes[t].empty())
        {
            ADD_FAILURE() << "triangle " << t << " is lost";
            continue;
        }
        const V3 c0 = corner(mesh, t, 0), c1 = corner(mesh, t, 1), c2 = corner(mesh, t, 2);
        for (int i = 0; i <= 8; ++i)
            for (int j = 0; i + j <= 8; ++j)
            {
                double p[3];
                for (int a = 0; a < 3; ++a)
                    p[a] = c0[a] + (double(c1[a]) - c0[a]) * i / 8.0 + (double(c2[a]) - c0[a]) * j / 8.0;
                const bool covered = std::any_of(leafBoxes[t].begin(), leafBoxes[t].end(), [&](const kxBBox& b) {
                    for (int a = 0; a < 3; ++a)
                    {
                        const double slack = 1e-12 * (std::fabs(p[a]) + 1e-300);
                        if (p[a] < b.min[a] - slack || p[a] > b.max[a] + slack)
                            return false;
                    }
                    return true;
                });
                if (!covered)
                    return ADD_FAILURE() << "triangle " << t << " point " << i << "," << j << " outside its leaves",
                           leafBoxes;
            }
    }
    return leafBoxes;
}

struct Answer
{
    bool hit;
    float t;
    Wm4::Vector2<float> barycentric;
    unsigned int triangle;
};

Answer shoot(const kxQBVH& qbvh, const V3& o, const V3& d, int mode, bool reference = false)
{
    Answer a{false, kInf, Wm4::Vector2<float>(-7.0f, -7.0f), 12345u};
    if (mode == kSymmetric)
        a.hit = reference ? kxQBVHReference::intersectRaySymmetric(qbvh, o, d, a.t, a.barycentric, a.triangle)
                          : qbvh.intersectRaySymmetric(o, d, a.t, a.barycentric, a.triangle);
    else
        a.hit = reference
                    ? kxQBVHReference::intersectRay(qbvh, o, d, 0.0f, a.t, a.barycentric, a.triangle,
                                                    kxQBVH::tIntersectionPolicy(mode))
                    : qbvh.intersectRay(o, d, 0.0f, a.t, a.barycentric, a.triangle, kxQBVH::tIntersectionPolicy(mode));
    return a;
}

// The equations the collapse stored for every triangle (the same wherever it is stored).
std::vector<std::array<float, 12>> equationsOf(const kxQBVH& qbvh, uint32_t n)
{
    std::vector<std::array<float, 12>> eq(n);
    for (uint32_t g = 0; g < qbvh.getGroupCount(); ++g)
        for (int k = 0; k < 4; ++k)
        {
            const uint32_t t = qbvh.getTriangleIndices()[g].index[k];
            if (t != kNone)
                for (int i = 0; i < 12; ++i)
                    eq[t][i] = qbvh.getTriangleEquations()[g].eq[i][k];
        }
    return eq;
}

// A triangle's own answer, in the query's operation order: accepted, and its distance.
bool accepts(const std::array<float, 12>& e, const V3& o, const V3& d, int mode, float& distance, float& th)
{
    const float denom = e[2] * d[2] + e[1] * d[1] + e[0] * d[0];
    th = -(((e[2] * o[2] + e[3]) + e[1] * o[1] + e[0] * o[0]) / denom);
    const float p[3] = {d[0] * th + o[0], d[1] * th + o[1], d[2] * th + o[2]};
    const float u = e[4] * p[0] + e[5] * p[1] + e[6] * p[2] + e[7];
    const float v = e[8] * p[0] + e[9] * p[1] + e[10] * p[2] + e[11];
    const float w = 1.0f - (u + v);
    const bool side = mode == kSymmetric || mode == kxQBVH::eFrontSide ? denom <= 0.0f
                      : mode == kxQBVH::eBackSide                      ? denom >= 0.0f
                                                                       : !std::isnan(denom);
    distance = mode == kSymmetric ? std::fabs(th) : th;
    return side && (mode == kSymmetric || th >= 0.0f) && w > -0.0001f && v > -0.0001f && u > -0.0001f;
}

// True when the hit at th lies well inside the box, so that no rounding of the walk's
// box tests can hide it.
bool wellInside(const kxBBox& box, const V3& o, const V3& d, float th)
{
    for (int a = 0; a < 3; ++a)
    {
        const double p = o[a] + double(d[a]) * th;
        const double margin = 1e-4 * (double(box.max[a]) - box.min[a]) + 1e-5 * std::fabs(p);
        if (!(p > box.min[a] + margin && p < box.max[a] - margin))
            return false;
    }
    return true;
}

// Brute force over the mesh: the nearest triangle whose hit lies well inside one of its
// leaves must be what the query reports (or one as near); rays whose nearest hit rests on
// rounding decide nothing. Returns whether the ray decided.
bool matchesBruteForce(const std::vector<std::array<float, 12>>& eq, const std::vector<std::vector<kxBBox>>& leaves,
                       const V3& o, const V3& d, int mode, const Answer& got)
{
    float nearestSafe = kInf, nearestUnsafe = kInf;
    std::vector<uint32_t> safe;
    for (uint32_t t = 0; t < eq.size(); ++t)
    {
        float distance, th;
        if (!accepts(eq[t], o, d, mode, distance, th))
            continue;
        const bool inside =
            std::any_of(leaves[t].begin(), leaves[t].end(), [&](const kxBBox& b) { return wellInside(b, o, d, th); });
        if (inside && distance <= nearestSafe)
        {
            if (distance < nearestSafe)
                safe.clear();
            nearestSafe = distance;
            safe.push_back(t);
        }
        else if (!inside)
            nearestUnsafe = std::min(nearestUnsafe, distance);
    }
    if (nearestUnsafe <= nearestSafe && nearestUnsafe != kInf)
        return false;
    if (nearestSafe == kInf)
    {
        EXPECT_FALSE(got.hit) << "reported triangle " << got.triangle;
        return true;
    }
    EXPECT_TRUE(got.hit && got.t == nearestSafe) << "t " << got.t << " expected " << nearestSafe;
    EXPECT_TRUE(std::find(safe.begin(), safe.end(), got.triangle) != safe.end()) << "triangle " << got.triangle;
    return true;
}

void randomRay(std::mt19937& rng, const kxBBox& box, bool inside, V3& o, V3& d)
{
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    auto inBox = [&] {
        V3 p;
        for (int a = 0; a < 3; ++a)
            p[a] = box.min[a] + unit(rng) * (box.max[a] - box.min[a]);
        return p;
    };
    const V3 target = inBox();
    V3 away(signedUnit(rng), signedUnit(rng), signedUnit(rng));
    away.Normalize();
    const float size = std::max({box.max[0] - box.min[0], box.max[1] - box.min[1], box.max[2] - box.min[2]});
    o = inside ? inBox() : target + away * size;
    d = target - o;
    // Boxes of huge meshes can overflow to infinite extents; Wild Magic's checked Sqrt must
    // not see the NaN that makes.
    const float squared = d.SquaredLength();
    if (!(squared > 0.0f) || !std::isfinite(squared))
        d = V3(1.0f, 0.0f, 0.0f);
    d.Normalize();
    if (unit(rng) < 0.1f)
        d[std::uniform_int_distribution<int>(0, 2)(rng)] = 0.0f;
}

kxQBVH collapse(const kxGenericBVH& bvh, const kx::kxTriMesh& mesh)
{
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations), bvh, mesh);
    return qbvh;
}

struct CountingCancel : kx::kxCancelInterfaceReadOnly
{
    bool shouldCancel() const override { return ++polls >= cancelFrom && cancelFrom != 0; }
    uint64_t cancelFrom = 0;
    mutable uint64_t polls = 0;
};

bool isEmptyStore(const kxGenericBVH& bvh)
{
    return bvh.mNodes.empty() && bvh.mPrimitiveIndices.empty() && bvh.mNodeCount == 0 && bvh.mPrimitiveCount == 0;
}
} // namespace

TEST(HighQualityBuilder, StartsWithLeavesOfFourAndSpatialSplitsAndTakesALimitOfZeroAsOne)
{
    kxHighQualityBVHBuilder builder;
    EXPECT_EQ(builder.getMaxPrimitivesPerLeaf(), 4u);
    EXPECT_TRUE(builder.getSpatialSplits());
    builder.setMaxPrimitivesPerLeaf(0);
    EXPECT_EQ(builder.getMaxPrimitivesPerLeaf(), 1u);
    builder.setMaxPrimitivesPerLeaf(9);
    EXPECT_EQ(builder.getMaxPrimitivesPerLeaf(), 9u);
    builder.setSpatialSplits(false);
    EXPECT_FALSE(builder.getSpatialSplits());
}

// Every mesh kind, with and without spatial splits, at three leaf limits: the whole store
// is checked, then rays of every side policy and the symmetric query are compared with the
// scalar walk (bit for bit) and with brute force over the mesh.
TEST(HighQualityBuilder, TreesHoldEveryTriangleAndRaysMatchBruteForceOnEveryMeshKind)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(77);
    int decided = 0, undecided = 0, hits = 0;
    for (const NamedMesh& m : testMeshes())
        for (bool spatial : {true, false})
            for (uint32_t limit : {1u, 4u, 7u})
            {
                SCOPED_TRACE(m.name + (spatial ? ", spatial splits" : "") + ", leaves of " + std::to_string(limit));
                kxHighQualityBVHBuilder builder;
                builder.setSpatialSplits(spatial);
                builder.setMaxPrimitivesPerLeaf(limit);
                kxGenericBVH bvh;
                ASSERT_TRUE(builder.build(*m.mesh, bvh));
                const auto leaves = checkStore(bvh, *m.mesh, limit);
                EXPECT_TRUE(spatial || bvh.mPrimitiveIndices.size() == triangleCount(*m.mesh));
                ASSERT_FALSE(testing::Test::HasFailure());
                const kxQBVH qbvh = collapse(bvh, *m.mesh);
                const auto eq = equationsOf(qbvh, triangleCount(*m.mesh));
                for (int r = 0; r < (limit == 4 ? 400 : 100); ++r)
                {
                    V3 o, d;
                    randomRay(rng, qbvh.getBBox(), r % 2 == 0, o, d);
                    for (int mode : {0, 1, 2, kSymmetric})
                    {
                        const Answer got = shoot(qbvh, o, d, mode);
                        const Answer scalar = shoot(qbvh, o, d, mode, true);
                        ASSERT_TRUE(got.hit == scalar.hit && bitsOf(got.t) == bitsOf(scalar.t) &&
                                    got.triangle == scalar.triangle);
                        const bool decides = matchesBruteForce(eq, leaves, o, d, mode, got);
                        // Near the largest floats the stored equations overflow and no
                        // ray hits; those meshes only show that nothing breaks.
                        const bool counted = m.name.rfind("near", 0) != 0;
                        decided += counted && decides;
                        undecided += counted && !decides;
                        hits += counted && decides && got.hit;
                        if (testing::Test::HasFailure())
                            FAIL() << "ray " << r << " mode " << mode;
                    }
                }
            }
    EXPECT_GT(decided, 20 * undecided);
    EXPECT_GT(hits, decided / 5);
}

TEST(HighQualityBuilder, ConvexRegionsMatchAClipOfEveryTriangle)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(5);
    int decided = 0, inside = 0;
    for (const NamedMesh& m : testMeshes())
    {
        if (m.name == "huge" || m.name == "tiny" || m.name.rfind("near", 0) == 0)
            continue; // the brute force's margins are absolute
        SCOPED_TRACE(m.name);
        kxGenericBVH bvh;
        ASSERT_TRUE(kxHighQualityBVHBuilder().build(*m.mesh, bvh));
        const kxQBVH qbvh = collapse(bvh, *m.mesh);
        for (int r = 0; r < 150; ++r)
        {
            const std::vector<Plane> planes = randomPlanes(rng, qbvh.getBBox(), r % 3);
            // Padding lanes sit at the origin and answer for it (a kept quirk of the query).
            if (std::all_of(planes.begin(), planes.end(), [](const Plane& p) { return p[3] > 0.0f; }))
                continue;
            const auto count = static_cast<unsigned int>(planes.size());
            const std::unique_ptr<kxQBVH::tSOASinglePlaneEqn, void (*)(kxQBVH::tSOASinglePlaneEqn*)> set(
                kxQBVH::CreateSOAPlaneEquationSet(planes.data(), count), kxQBVH::DeleteSOAPlaneEquationSet);
            const bool got = qbvh.intersectConvexHull(set.get(), count);
            ASSERT_EQ(got, kxQBVHReference::intersectConvexHull(qbvh, set.get(), count));
            const int expected = bruteForce(*m.mesh, planes);
            if (expected < 0)
                continue;
            ++decided;
            inside += expected;
            ASSERT_EQ(got, expected == 1) << "region " << r;
        }
    }
    EXPECT_GT(decided, 800);
    EXPECT_GT(inside, decided / 5);
    EXPECT_LT(inside, decided - decided / 5);
}

TEST(HighQualityBuilder, MeshesOfNoneOneAndTwoTrianglesGiveWorkingHierarchies)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    const std::vector<V3> corners = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 2}, {1, 0, 2}, {0, 1, 2}};
    for (uint32_t n : {0u, 1u, 2u})
        for (uint32_t limit : {1u, 4u})
        {
            SCOPED_TRACE(std::to_string(n) + " triangles, leaves of " + std::to_string(limit));
            std::vector<unsigned int> indices(3 * n);
            std::iota(indices.begin(), indices.end(), 0u);
            const auto mesh = makeMesh(corners, indices);
            kxHighQualityBVHBuilder builder;
            builder.setMaxPrimitivesPerLeaf(limit);
            kxGenericBVH bvh;
            ASSERT_TRUE(builder.build(*mesh, bvh));
            checkStore(bvh, *mesh, limit);
            const kxQBVH qbvh = collapse(bvh, *mesh);
            // Straight down through both triangles: the nearest is the one at z = 2.
            const Answer a = shoot(qbvh, V3(0.25f, 0.25f, 5), V3(0, 0, -1), 0);
            EXPECT_EQ(a.hit, n > 0);
            EXPECT_EQ(a.triangle, n == 0 ? kNone : n - 1);
            EXPECT_EQ(a.t, n == 0 ? kInf : n == 1 ? 5.0f : 3.0f);
        }
}

// Counts the polls of an uncancelled build, then cancels one build at every poll: each
// stops right there, answers false and leaves the hierarchy empty.
TEST(HighQualityBuilder, StopsAtEveryPollAndLeavesTheHierarchyEmpty)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(11);
    // Over 1024 long slivers, the top nodes are cut by spatial splits as well.
    for (const auto& mesh : {randomSoup(rng, 60), slivers(rng, 1100)})
    {
        kxHighQualityBVHBuilder builder;
        CountingCancel never;
        kxGenericBVH reference;
        ASSERT_TRUE(builder.build(*mesh, reference, &never));
        ASSERT_GT(never.polls, triangleCount(*mesh));
        for (uint64_t k = 1; k <= never.polls; ++k)
        {
            CountingCancel cancel;
            cancel.cancelFrom = k;
            kxGenericBVH bvh = reference;
            ASSERT_FALSE(builder.build(*mesh, bvh, &cancel)) << "poll " << k;
            ASSERT_EQ(cancel.polls, k) << "polled after giving up";
            ASSERT_TRUE(isEmptyStore(bvh)) << "poll " << k;
        }
        kxGenericBVH again;
        ASSERT_TRUE(builder.build(*mesh, again));
        EXPECT_EQ(again.mPrimitiveIndices, reference.mPrimitiveIndices);
        EXPECT_EQ(again.mNodes.size(), reference.mNodes.size());
    }
}

TEST(HighQualityBuilder, LogsWhatItBuiltAtLevelOneInCategoryBvh)
{
    kx::kxCapturingLog log;
    log.install();
    const auto mesh = randomTriangleMesh(3, 500, Layout::Uniform);
    kxGenericBVH bvh;
    ASSERT_TRUE(kxHighQualityBVHBuilder().build(*mesh, bvh));
    const std::vector<std::string> lines = log.messages();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("for 500 triangles"), std::string::npos) << lines[0];
    EXPECT_NE(lines[2].find(std::to_string(bvh.mNodes.size()) + " nodes, " + std::to_string(bvh.mPrimitiveCount) +
                            " references to 500 triangles"),
              std::string::npos)
        << lines[2];
    for (const kx::kxLog::LogEntry& entry : log.entries())
        EXPECT_TRUE(entry.level == 1 && entry.category == "bvh") << entry.level << " " << entry.category;
}

// On CAD-like meshes (tessellated cylinders of long slivers, fans, parts at many scales)
// the four-wide tree is cheaper than the one collapsed from the binned-SAH builder, and
// spatial splits make it cheaper still.
TEST(HighQualityBuilder, FourWideTreesCostLessThanTheSahBuildersOnCadLikeMeshes)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(8);
    for (const auto& mesh : {cadLike(rng, 150), cadLike(rng, 400)})
    {
        kxGenericBVH sah, plain, spatial;
        kxGenericBVHBuilder().build(kxBVHTriangleContainer(*mesh), sah);
        kxHighQualityBVHBuilder builder;
        ASSERT_TRUE(builder.build(*mesh, spatial));
        builder.setSpatialSplits(false);
        ASSERT_TRUE(builder.build(*mesh, plain));
        const double sahCost = kxComputeQBVHSAHCost(collapse(sah, *mesh));
        const double plainCost = kxComputeQBVHSAHCost(collapse(plain, *mesh));
        const double spatialCost = kxComputeQBVHSAHCost(collapse(spatial, *mesh));
        EXPECT_LT(plainCost, 0.8 * sahCost);
        EXPECT_LT(spatialCost, plainCost);
        EXPECT_GT(spatial.mPrimitiveIndices.size(), triangleCount(*mesh));
    }
}

// Every leaf pads its group of four, so a tree of many small leaves costs memory that
// rays barely repay: the leaves of the default limit come close to the fewest groups
// that can hold the references, on meshes of every shape.
TEST(HighQualityBuilder, LeavesFillTheirGroupsOfFour)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(31);
    const std::vector<NamedMesh> meshes = {{"soup", randomSoup(rng, 3000, SoupOptions())},
                                           {"grid", randomTriangleMesh(11, 4000, Layout::Grid)},
                                           {"clustered", randomTriangleMesh(12, 4000, Layout::Clustered)},
                                           {"cad-like", cadLike(rng, 120)}};
    for (const NamedMesh& m : meshes)
    {
        kxGenericBVH bvh;
        ASSERT_TRUE(kxHighQualityBVHBuilder().build(*m.mesh, bvh)) << m.name;
        uint64_t groups = 0;
        for (uint32_t i = 0; i < bvh.mNodeCount; ++i)
            if ((bvh.mNodes[i].offset & kxGNode::eKindMask) == kxGNode::eLeafMark)
                groups += (bvh.mNodes[i].count + 3) / 4;
        const uint64_t fewest = (uint64_t(bvh.mPrimitiveCount) + 3) / 4;
        EXPECT_LE(double(groups), 1.09 * double(fewest)) << m.name;
        EXPECT_EQ(collapse(bvh, *m.mesh).getGroupCount(), groups) << m.name;
    }
}
