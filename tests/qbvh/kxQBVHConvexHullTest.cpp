#include "kxCapturingLog.h"
#include "kxMedianSplitBVH.h"
#include "kxQBVH.h"
#include "kxQBVHReference.h"
#include "kxQBVHTestUtil.h"
#include "kxTestMeshes.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>

using namespace kxtest;

namespace
{
using Plane = Wm4::Vector4<float>;

struct PlaneSetDeleter
{
    void operator()(kxQBVH::tSOASinglePlaneEqn* set) const { kxQBVH::DeleteSOAPlaneEquationSet(set); }
};
using PlaneSet = std::unique_ptr<kxQBVH::tSOASinglePlaneEqn, PlaneSetDeleter>;

PlaneSet makeSet(const std::vector<Plane>& planes)
{
    return PlaneSet(kxQBVH::CreateSOAPlaneEquationSet(planes.data(), static_cast<unsigned int>(planes.size())));
}

double distanceTo(const Plane& p, const std::array<double, 3>& x, double shift)
{
    return p[0] * x[0] + p[1] * x[1] + p[2] * x[2] + p[3] + shift;
}

// Double-precision clip of one triangle by every plane moved by shift along its normal
// (unit normals); true when a polygon of three or more vertices remains.
bool triangleInside(const std::array<std::array<double, 3>, 3>& corners, const std::vector<Plane>& planes, double shift)
{
    std::vector<std::array<double, 3>> polygon(corners.begin(), corners.end());
    for (const Plane& p : planes)
    {
        std::vector<std::array<double, 3>> clipped;
        for (size_t i = 0; i < polygon.size(); ++i)
        {
            const auto& prev = polygon[(i + polygon.size() - 1) % polygon.size()];
            const auto& cur = polygon[i];
            const double dp = distanceTo(p, prev, shift), dc = distanceTo(p, cur, shift);
            if ((dc > 0) != (dp > 0))
            {
                const double r = dp / (dp - dc);
                clipped.push_back({prev[0] + (cur[0] - prev[0]) * r, prev[1] + (cur[1] - prev[1]) * r,
                                   prev[2] + (cur[2] - prev[2]) * r});
            }
            if (dc > 0)
                clipped.push_back(cur);
        }
        polygon = clipped;
    }
    return polygon.size() > 2;
}

// 1 or 0 when every triangle agrees whether the region is shrunk or grown by a small
// margin, -1 when the answer rests on rounding.
int bruteForce(const kx::kxTriMesh& mesh, const std::vector<Plane>& planes)
{
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    const int triangles = mesh.GetIndexBuffer()->GetIndexQuantity() / 3;
    bool shrunk = false, grown = false;
    for (int t = 0; t < triangles; ++t)
    {
        std::array<std::array<double, 3>, 3> c;
        for (int i = 0; i < 3; ++i)
        {
            const Wm4::Vector3<float>& p = mesh.GetVertexBuffer()->Position3(static_cast<int>(index[3 * t + i]));
            c[static_cast<size_t>(i)] = {p[0], p[1], p[2]};
        }
        shrunk = shrunk || triangleInside(c, planes, -1e-3);
        grown = grown || triangleInside(c, planes, 1e-3);
    }
    return shrunk == grown ? int(shrunk) : -1;
}

Plane planeThrough(const Wm4::Vector3<float>& point, Wm4::Vector3<float> inward)
{
    inward.Normalize();
    return Plane(inward[0], inward[1], inward[2], -inward.Dot(point));
}

std::vector<Plane> randomPlanes(std::mt19937& rng, const kxBBox& box, int kind)
{
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
    auto randomDirection = [&] {
        Wm4::Vector3<float> v(signedUnit(rng), signedUnit(rng), signedUnit(rng));
        return v.Length() > 0.0f ? v : Wm4::Vector3<float>(1.0f, 0.0f, 0.0f);
    };
    Wm4::Vector3<float> centre;
    for (int a = 0; a < 3; ++a)
        centre[a] = box.min[a] + unit(rng) * (box.max[a] - box.min[a]);
    const float size = box.max[0] - box.min[0];
    std::vector<Plane> planes;
    switch (kind)
    {
    case 0: // a frustum looking along a random direction
    {
        Wm4::Vector3<float> forward = randomDirection(), up = randomDirection();
        forward.Normalize();
        Wm4::Vector3<float> right = forward.Cross(up);
        right.Normalize();
        up = right.Cross(forward);
        const float nearD = 0.05f * size * unit(rng), farD = nearD + size * unit(rng), spread = 0.1f + unit(rng);
        planes.push_back(planeThrough(centre + forward * nearD, forward));
        planes.push_back(planeThrough(centre + forward * farD, -forward));
        for (const Wm4::Vector3<float>& side : {right, -right, up, -up})
            planes.push_back(planeThrough(centre, forward * spread - side));
        break;
    }
    case 1: // a slab
    {
        const Wm4::Vector3<float> n = randomDirection();
        const float width = 0.2f * size * unit(rng);
        Wm4::Vector3<float> unitN = n;
        unitN.Normalize();
        planes.push_back(planeThrough(centre, n));
        planes.push_back(planeThrough(centre + unitN * width, -n));
        break;
    }
    case 2: // one half-space
        planes.push_back(planeThrough(centre, randomDirection()));
        break;
    default: // a polytope of planes tangent to a sphere
    {
        const float radius = 0.3f * size * unit(rng);
        const int count = 1 + static_cast<int>(unit(rng) * 9.0f);
        for (int i = 0; i < count; ++i)
        {
            Wm4::Vector3<float> n = randomDirection();
            n.Normalize();
            planes.push_back(planeThrough(centre + n * radius, -n));
        }
    }
    }
    return planes;
}

bool originInside(const std::vector<Plane>& planes)
{
    for (const Plane& p : planes)
        if (!(p[3] > -1e-3f))
            return false;
    return true;
}
} // namespace

TEST(QBVHConvexHull, RandomRegionsMatchAClipOfEveryTriangleAndTheScalarPath)
{
    std::mt19937 rng(99);
    int decided = 0, undecided = 0, inside = 0;
    SoupOptions soup;
    soup.degenerates = true;
    soup.duplicates = true;
    for (int shape = 0; shape < 5; ++shape)
    {
        MedianSplitOptions split;
        split.breadthFirst = shape == 1;
        split.emptyLeaves = shape == 2;
        split.maxLeafSize = shape == 3 ? 400 : 4;
        auto mesh = randomSoup(rng, 300, soup);
        kxQBVH qbvh;
        // The last shape goes through the whole pipeline from the mesh.
        if (shape == 4)
            qbvh.buildFromMesh(kxQBVH::eTrianglesVertices, *mesh, 4);
        else
            qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*mesh, split), *mesh);
        for (int r = 0; r < 400; ++r)
        {
            const std::vector<Plane> planes = randomPlanes(rng, qbvh.getBBox(), r % 4);
            if (originInside(planes))
                continue; // padding lanes would count; checked on their own below
            const PlaneSet set = makeSet(planes);
            const unsigned int count = static_cast<unsigned int>(planes.size());
            const bool got = qbvh.intersectConvexHull(set.get(), count);
            ASSERT_EQ(got, kxQBVHReference::intersectConvexHull(qbvh, set.get(), count));
            const int expected = bruteForce(*mesh, planes);
            if (expected < 0)
            {
                ++undecided;
                continue;
            }
            ++decided;
            inside += expected;
            ASSERT_EQ(got, expected == 1) << "shape " << shape << " region " << r;
        }
        EXPECT_TRUE(qbvh.intersectConvexHull(nullptr, 0));
    }
    EXPECT_GT(decided, 50 * undecided);
    EXPECT_GT(inside, decided / 10);
    EXPECT_LT(inside, decided - decided / 10);
}

TEST(QBVHConvexHull, BoundaryContactIsNotInsideButACutIs)
{
    // One triangle touching the plane x = 0 from x <= 0. The region x > 0 only touches it;
    // x > -1 cuts it (y > 0.5 keeps the origin, where the padding lanes sit, outside).
    auto flat = makeMesh({{0, 1, 1}, {0, 3, 1}, {0, 1, 3}}, {0, 1, 2});
    auto tilted = makeMesh({{0, 1, 1}, {-2, 3, 1}, {-1, 1, 3}}, {0, 1, 2});
    const PlaneSet positiveX = makeSet({Plane(1, 0, 0, 0)});
    const PlaneSet beyondMinusOne = makeSet({Plane(1, 0, 0, 1), Plane(0, 1, 0, -0.5f)});
    for (const auto& mesh : {flat, tilted})
    {
        kxQBVH qbvh;
        qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*mesh), *mesh);
        EXPECT_FALSE(qbvh.intersectConvexHull(positiveX.get(), 1));
        EXPECT_TRUE(qbvh.intersectConvexHull(beyondMinusOne.get(), 2));
    }
}

TEST(QBVHConvexHull, PaddingLanesCountAsTrianglesAtTheOrigin)
{
    // Triangles on the faces of a cube around the origin, none reaching the small cube
    // |x|, |y|, |z| < 1 that contains the origin.
    std::vector<Wm4::Vector3<float>> p;
    std::vector<unsigned int> idx;
    for (int t = 0; t < 8; ++t)
    {
        const float s = t % 2 ? 10.0f : -10.0f;
        const int axis = (t / 2) % 3;
        for (const auto& uv : {std::array<float, 2>{-5, -5}, {5, -5}, {-5, 5}})
        {
            Wm4::Vector3<float> v;
            v[axis] = s;
            v[(axis + 1) % 3] = uv[0] + static_cast<float>(t);
            v[(axis + 2) % 3] = uv[1];
            p.push_back(v);
            idx.push_back(static_cast<unsigned int>(idx.size()));
        }
    }
    std::vector<Plane> cube;
    for (int a = 0; a < 3; ++a)
        for (float s : {1.0f, -1.0f})
        {
            Plane plane(0, 0, 0, 1);
            plane[a] = s;
            cube.push_back(plane);
        }
    const PlaneSet set = makeSet(cube);
    for (int triangles : {5, 8})
    {
        std::vector<unsigned int> prefix(idx.begin(), idx.begin() + 3 * triangles);
        auto mesh = makeMesh(p, prefix);
        kxQBVH qbvh;
        buildWithLeafSize(qbvh, kxQBVH::eTrianglesVertices, *mesh, 8);
        ASSERT_EQ(qbvh.getNodeCount(), 0u);
        EXPECT_EQ(bruteForce(*mesh, cube), 0);
        EXPECT_EQ(qbvh.intersectConvexHull(set.get(), 6), triangles == 5) << triangles << " triangles";
        EXPECT_EQ(kxQBVHReference::intersectConvexHull(qbvh, set.get(), 6), triangles == 5);
    }
}

TEST(QBVHConvexHull, ABoxInsideTheRegionAnswersWithoutLookingAtItsTriangles)
{
    // Leaf 1 holds a triangle far away; leaf 2 holds nothing. Their stored boxes decide.
    auto mesh = makeMesh({{100, 100, 100}, {101, 100, 100}, {100, 101, 100}}, {0, 1, 2});
    const PlaneSet set = makeSet({Plane(1, 0, 0, -1), Plane(-1, 0, 0, 5), Plane(0, 1, 0, -1), Plane(0, -1, 0, 5),
                                  Plane(0, 0, 1, -1), Plane(0, 0, -1, 5)});
    const kxBBox inside({2, 2, 2}, {3, 3, 3}), straddling({0, 0, 0}, {3, 3, 3}), truthful({100, 100, 100}, {101, 101, 100});
    struct Case
    {
        kxBBox first, second;
        bool expected;
    };
    for (const Case& c : {Case{inside, truthful, true}, Case{truthful, inside, true}, Case{truthful, straddling, false},
                          Case{truthful, kxBBox(), false}})
    {
        kxGenericBVH bvh;
        bvh.mPrimitiveIndices = {0};
        bvh.mPrimitiveCount = 1;
        bvh.mNodes.resize(3);
        bvh.mNodeCount = 3;
        bvh.mNodes[0].offset = 1;
        bvh.mNodes[0].count = 2;
        bvh.mNodes[1] = {c.first, kxGNode::eLeafMark, 1};
        bvh.mNodes[2] = {c.second, 1 | kxGNode::eLeafMark, 0};
        kxQBVH qbvh;
        qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, bvh, *mesh);
        EXPECT_EQ(qbvh.intersectConvexHull(set.get(), 6), c.expected);
        EXPECT_EQ(kxQBVHReference::intersectConvexHull(qbvh, set.get(), 6), c.expected);
    }
}

TEST(QBVHConvexHull, WithoutVerticesTheQueryLogsAndAnswersFalse)
{
    std::mt19937 rng(4);
    kxQBVH qbvh;
    buildWithLeafSize(qbvh, kxQBVH::eTrianglesEquations, *randomSoup(rng, 30), 4);
    kx::kxCapturingLog log;
    log.install();
    EXPECT_FALSE(qbvh.intersectConvexHull(nullptr, 0));
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.entries()[0].message,
              "error: QBVH is not built with the right data type (should be kxQBVH::eTrianglesVertices)");
    EXPECT_EQ(log.entries()[0].level, 2);

    auto empty = makeMesh({}, {});
    kxQBVH none;
    none.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*empty), *empty);
    EXPECT_FALSE(none.intersectConvexHull(nullptr, 0));
}
