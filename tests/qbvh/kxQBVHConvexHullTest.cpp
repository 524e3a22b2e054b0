#include "kxCapturingLog.h"
#include "kxQBVHReference.h"
#include "kxConvexRegions.h"
#include "kxQBVHTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>

using namespace kxtest;

namespace
{
using V3 = Wm4::Vector3<float>;

// The query's answer, checked against the scalar path on the way.
bool query(const kxQBVH& qbvh, const std::vector<Plane>& planes)
{
    const auto count = static_cast<unsigned int>(planes.size());
    const std::unique_ptr<kxQBVH::tSOASinglePlaneEqn, void (*)(kxQBVH::tSOASinglePlaneEqn*)> set(
        kxQBVH::CreateSOAPlaneEquationSet(planes.data(), count), kxQBVH::DeleteSOAPlaneEquationSet);
    const bool got = qbvh.intersectConvexHull(set.get(), count);
    EXPECT_EQ(got, kxQBVHReference::intersectConvexHull(qbvh, set.get(), count));
    return got;
}

} // namespace

TEST(QBVHConvexHull, RandomRegionsMatchAClipOfEveryTriangleAndTheScalarPath)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(99);
    int decided = 0, undecided = 0, inside = 0;
    SoupOptions soup;
    soup.degenerates = soup.duplicates = true;
    // Depth first, level order, with empty leaves, a root leaf, and through buildFromMesh.
    const MedianSplitOptions splits[] = {{4, false, false, 0}, {4, true, false, 0}, {4, false, true, 0}, {400}};
    for (int shape = 0; shape < 5; ++shape)
    {
        auto mesh = randomSoup(rng, 300, soup);
        kxQBVH qbvh;
        if (shape == 4)
            qbvh.buildFromMesh(kxQBVH::eTrianglesVertices, *mesh, 4);
        else
            qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*mesh, splits[shape]), *mesh);
        EXPECT_TRUE(query(qbvh, {}));
        for (int r = 0; r < 400; ++r)
        {
            const std::vector<Plane> planes = randomPlanes(rng, qbvh.getBBox(), r % 3);
            const bool got = query(qbvh, planes);
            // With the origin inside, padding lanes would count: they have a test of their own.
            if (std::all_of(planes.begin(), planes.end(), [](const Plane& p) { return p[3] > -1e-3f; }))
                continue;
            const int expected = bruteForce(*mesh, planes);
            decided += expected >= 0;
            undecided += expected < 0;
            inside += expected == 1;
            ASSERT_TRUE(expected < 0 || got == (expected == 1)) << "shape " << shape << " region " << r;
        }
    }
    EXPECT_GT(decided, 50 * undecided);
    EXPECT_TRUE(inside > decided / 10 && inside < decided - decided / 10) << inside << " of " << decided;
}

TEST(QBVHConvexHull, BoundaryContactIsNotInsideButACutIs)
{
    // Triangles touching the plane x = 0 from x <= 0. The region x > 0 only touches them;
    // x > -1 cuts them (y > 0.5 keeps the origin, where padding lanes sit, outside).
    for (const auto& mesh : {makeMesh({{0, 1, 1}, {0, 3, 1}, {0, 1, 3}}, {0, 1, 2}),
                             makeMesh({{0, 1, 1}, {-2, 3, 1}, {-1, 1, 3}}, {0, 1, 2})})
    {
        kxQBVH qbvh;
        qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*mesh), *mesh);
        EXPECT_FALSE(query(qbvh, {Plane(1, 0, 0, 0)}));
        EXPECT_TRUE(query(qbvh, {Plane(1, 0, 0, 1), Plane(0, 1, 0, -0.5f)}));
    }
}

TEST(QBVHConvexHull, PaddingLanesCountAsTrianglesAtTheOriginInAnyBoxNotOutside)
{
    // Triangles far outside the cube |x|, |y|, |z| < 1 around the origin, in a leaf of two
    // groups whose box only touches the cube: five leave three padding lanes, eight none.
    std::vector<V3> p;
    std::vector<unsigned int> idx;
    for (unsigned int t = 0; t < 8; ++t)
    {
        const float x = 10.0f + static_cast<float>(t);
        p.insert(p.end(), {{x, 0, 0}, {x + 1, 0, 0}, {x, 1, 0}});
        idx.insert(idx.end(), {3 * t, 3 * t + 1, 3 * t + 2});
    }
    const std::vector<Plane> cube = {Plane(1, 0, 0, 1), Plane(-1, 0, 0, 1), Plane(0, 1, 0, 1),
                                     Plane(0, -1, 0, 1), Plane(0, 0, 1, 1), Plane(0, 0, -1, 1)};
    for (unsigned int triangles : {5u, 8u})
    {
        auto mesh = makeMesh(p, std::vector<unsigned int>(idx.begin(), idx.begin() + 3 * triangles));
        kxQBVH qbvh;
        const kxBBox touching(V3(1, 0, 0), V3(19, 1, 0));
        qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, leafTree({touching, kxBBox()}, {triangles, 0}), *mesh);
        EXPECT_EQ(bruteForce(*mesh, cube), 0);
        EXPECT_EQ(query(qbvh, cube), triangles == 5) << triangles << " triangles";
    }
}

TEST(QBVHConvexHull, ABoxInsideTheRegionAnswersWithoutLookingAtItsTriangles)
{
    // The region is the cube 1 < x, y, z < 5. Leaf 0 holds one triangle far away, leaf 1
    // nothing; the boxes stored for them decide.
    auto mesh = makeMesh({{100, 100, 100}, {101, 100, 100}, {100, 101, 100}}, {0, 1, 2});
    const std::vector<Plane> cube = {Plane(1, 0, 0, -1), Plane(-1, 0, 0, 5), Plane(0, 1, 0, -1),
                                     Plane(0, -1, 0, 5), Plane(0, 0, 1, -1), Plane(0, 0, -1, 5)};
    // A box touching a face from inside is not inside.
    const kxBBox inside(V3(2, 2, 2), V3(3, 3, 3)), straddling(V3(0, 0, 0), V3(3, 3, 3)),
        touching(V3(1, 2, 2), V3(3, 3, 3)), truthful(V3(100, 100, 100), V3(101, 101, 100));
    const std::vector<std::vector<kxBBox>> boxes = {
        {inside, truthful}, {truthful, inside}, {truthful, straddling}, {touching, truthful}, {truthful, kxBBox()}};
    for (size_t c = 0; c < boxes.size(); ++c)
    {
        kxQBVH qbvh;
        qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, leafTree(boxes[c], {1, 0}), *mesh);
        EXPECT_EQ(query(qbvh, cube), c < 2) << c;
    }
}
