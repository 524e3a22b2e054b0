#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxGenericBVHBuilder.h"
#include "kxQBVH.h"
#include "kxQBVHTestUtil.h"
#include "kxRandomGeometry.h"
#include "kxTestMeshes.h"

#include <gtest/gtest.h>

using namespace kxtest;

namespace
{
// Nearest distance among the triangles' own answers, or NaN when a hit that rounding in
// the box tests could hide is as near: such a ray decides nothing.
float bruteForceNearest(const kxQBVH& qbvh, const std::map<uint32_t, TriangleSlot>& slots,
                        const Wm4::Vector3<float>& o, const Wm4::Vector3<float>& d)
{
    float safe = kInf, unsafe = kInf;
    for (const auto& entry : slots)
    {
        const RayCandidate c = rayCandidate(qbvh, entry.second, o, d, false, kxQBVH::eAllSides, 0.0f, kInf);
        if (!c.accepted)
            continue;
        float& nearest = reachableWithMargin(entry.second, o, d, c.th) ? safe : unsafe;
        nearest = std::min(nearest, c.distance);
    }
    return unsafe <= safe && unsafe != kInf ? std::numeric_limits<float>::quiet_NaN() : safe;
}
} // namespace

// SAH trees bring what the linear builder never makes: leaves of up to 1024 primitives and
// more, empty leaves, and node arrays longer than the tree.
TEST(QBVHFromSAH, AnswersRaysAsTheLinearHierarchyAndBruteForceDo)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(31);
    const std::pair<const char*, kx::kxPointer<kx::kxTriMesh>> meshes[] = {
        {"soup", randomSoup(rng, 3000)},
        {"sparse", randomTriangleMesh(2, 3000, Layout::Uniform)},
        {"lattice", randomTriangleMesh(3, 3000, Layout::Grid)},
        {"one place", randomTriangleMesh(4, 1500, Layout::Identical)}};
    for (const auto& [name, mesh] : meshes)
    {
        SCOPED_TRACE(name);
        const kxBVHTriangleContainer container(*mesh);
        kxGenericBVH sahTree;
        kxGenericBVHBuilder().build(container, sahTree);
        kxQBVH fromSAH, fromLinear;
        fromSAH.buildFromBVH(kxQBVH::eTrianglesEquations, sahTree, *mesh);
        fromLinear.buildFromMesh(kxQBVH::eTrianglesEquations, *mesh, 4);
        const auto slots = locateTriangles(fromSAH);
        ASSERT_EQ(slots.size(), container.getQuantity());

        int decided = 0, hits = 0;
        const int rays = 400;
        for (int r = 0; r < rays; ++r)
        {
            Wm4::Vector3<float> o, d;
            randomRay(rng, fromSAH.getBBox(), r % 2 == 0, o, d);
            if (r % 3 == 0)
            {
                // Aim at the centroid of some triangle: sparse meshes are rarely hit otherwise.
                const auto t = std::uniform_int_distribution<unsigned int>(0, container.getQuantity() - 1)(rng);
                const unsigned int* corner = mesh->GetIndexBuffer()->GetData() + 3 * t;
                const kx::kxVertexBuffer& v = *mesh->GetVertexBuffer();
                d = (v.Position3(int(corner[0])) + v.Position3(int(corner[1])) + v.Position3(int(corner[2]))) / 3.0f - o;
            }
            float t[2] = {kInf, kInf};
            Wm4::Vector2<float> barycentric[2];
            unsigned int triangle[2];
            const bool hit[2] = {
                fromSAH.intersectRay(o, d, 0.0f, t[0], barycentric[0], triangle[0], kxQBVH::eAllSides),
                fromLinear.intersectRay(o, d, 0.0f, t[1], barycentric[1], triangle[1], kxQBVH::eAllSides)};
            const float nearest = bruteForceNearest(fromSAH, slots, o, d);
            if (std::isnan(nearest))
                continue;
            ++decided;
            hits += nearest != kInf;
            for (int k = 0; k < 2; ++k)
            {
                EXPECT_EQ(hit[k], nearest != kInf) << (k ? "linear" : "SAH") << ", ray " << r;
                EXPECT_EQ(bitsOf(t[k]), bitsOf(nearest)) << (k ? "linear" : "SAH") << ", ray " << r;
            }
        }
        EXPECT_GT(decided, rays * 9 / 10);
        EXPECT_GT(hits, rays / 10);
    }
}
