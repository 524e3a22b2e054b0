#include "kxCapturingLog.h"
#include "kxMedianSplitBVH.h"
#include "kxQBVH.h"
#include "kxQBVHReference.h"
#include "kxQBVHTestUtil.h"
#include "kxTestMeshes.h"

#include <gtest/gtest.h>

using namespace kxtest;

namespace
{
struct RayAnswer
{
    bool hit;
    float t;
    Wm4::Vector2<float> barycentric;
    unsigned int triangle;

    bool operator==(const RayAnswer& o) const
    {
        return hit == o.hit && bitsOf(t) == bitsOf(o.t) && bitsOf(barycentric[0]) == bitsOf(o.barycentric[0]) &&
               bitsOf(barycentric[1]) == bitsOf(o.barycentric[1]) && triangle == o.triangle;
    }
};

const Wm4::Vector2<float> kUntouched(-7.0f, -7.0f);

RayAnswer shoot(const kxQBVH& qbvh, const Wm4::Vector3<float>& o, const Wm4::Vector3<float>& d, float tMin, float tMax,
                int mode, bool reference)
{
    RayAnswer a{false, tMax, kUntouched, 12345u};
    if (mode == 3)
        a.hit = reference ? kxQBVHReference::intersectRaySymmetric(qbvh, o, d, a.t, a.barycentric, a.triangle)
                          : qbvh.intersectRaySymmetric(o, d, a.t, a.barycentric, a.triangle);
    else
    {
        const auto policy = static_cast<kxQBVH::tIntersectionPolicy>(mode);
        a.hit = reference ? kxQBVHReference::intersectRay(qbvh, o, d, tMin, a.t, a.barycentric, a.triangle, policy)
                          : qbvh.intersectRay(o, d, tMin, a.t, a.barycentric, a.triangle, policy);
    }
    return a;
}

// Compares the query with every triangle's own answer. Returns false when a hit that
// rounding in the box tests could hide is as near as the nearest safe hit: such rays
// decide nothing.
bool checkAgainstBruteForce(const kxQBVH& qbvh, const std::map<uint32_t, TriangleSlot>& slots,
                            const Wm4::Vector3<float>& o, const Wm4::Vector3<float>& d, float tMin, float tMax,
                            int mode, const RayAnswer& got)
{
    const bool symmetric = mode == 3;
    const auto policy = static_cast<kxQBVH::tIntersectionPolicy>(symmetric ? 0 : mode);
    float nearestSafe = kInf, nearestUnsafe = kInf;
    std::map<uint32_t, RayCandidate> safe;
    for (const auto& [triangle, slot] : slots)
    {
        const RayCandidate c = rayCandidate(qbvh, slot, o, d, symmetric, policy, tMin, tMax);
        if (!c.accepted)
            continue;
        if (reachableWithMargin(slot, o, d, c.th))
        {
            safe[triangle] = c;
            nearestSafe = std::min(nearestSafe, c.distance);
        }
        else
            nearestUnsafe = std::min(nearestUnsafe, c.distance);
    }
    if (nearestUnsafe != kInf && nearestUnsafe <= nearestSafe)
        return false;
    if (nearestSafe == kInf)
    {
        EXPECT_FALSE(got.hit);
        EXPECT_EQ(got.triangle, kNone);
        EXPECT_EQ(bitsOf(got.t), bitsOf(tMax));
        return true;
    }
    EXPECT_TRUE(got.hit);
    const auto winner = safe.find(got.triangle);
    if (!got.hit || winner == safe.end())
    {
        ADD_FAILURE() << "reported triangle " << got.triangle << " is not a hit";
        return true;
    }
    const RayCandidate& c = winner->second;
    EXPECT_EQ(bitsOf(got.t), bitsOf(nearestSafe));
    EXPECT_EQ(bitsOf(c.distance), bitsOf(nearestSafe));
    EXPECT_EQ(bitsOf(got.barycentric[0]), bitsOf(c.w));
    EXPECT_EQ(bitsOf(got.barycentric[1]), bitsOf(c.u));
    // Among equally near hits of the same leaf, the lower lane wins, then the earlier group.
    const TriangleSlot& ws = slots.at(got.triangle);
    for (const auto& [triangle, other] : safe)
    {
        const TriangleSlot& s = slots.at(triangle);
        if (other.distance == c.distance && s.leafFirstGroup == ws.leafFirstGroup && triangle != got.triangle)
        {
            EXPECT_TRUE(ws.lane < s.lane || (ws.lane == s.lane && ws.group < s.group))
                << "triangle " << got.triangle << " beat " << triangle << " in the same leaf";
        }
    }
    return true;
}

struct Scene
{
    kx::kxPointer<kx::kxTriMesh> mesh;
    kxQBVH qbvh;
};

// A complete binary tree in heap order over 2^k leaves of one primitive each: leaf i holds
// primitive i and has the given box; inner boxes are the unions.
kxGenericBVH leavesWithBoxes(const std::vector<kxBBox>& boxes)
{
    const uint32_t leaves = static_cast<uint32_t>(boxes.size());
    kxGenericBVH bvh;
    bvh.mNodes.resize(2 * leaves - 1);
    bvh.mNodeCount = 2 * leaves - 1;
    bvh.mPrimitiveCount = leaves;
    for (uint32_t i = 0; i < leaves; ++i)
    {
        bvh.mPrimitiveIndices.push_back(i);
        kxGNode& leaf = bvh.mNodes[leaves - 1 + i];
        leaf.offset = i | kxGNode::eLeafMark;
        leaf.count = 1;
        leaf.bbox = boxes[i];
    }
    for (uint32_t n = leaves - 1; n-- > 0;)
    {
        bvh.mNodes[n].offset = (2 * n + 1) | kxBBox::eAxisX;
        bvh.mNodes[n].count = 2 * n + 2;
        bvh.mNodes[n].bbox = bvh.mNodes[2 * n + 1].bbox;
        bvh.mNodes[n].bbox.extend(bvh.mNodes[2 * n + 2].bbox);
    }
    return bvh;
}

// A leaf limit for the whole pipeline from the mesh, or 0 for a median-split hierarchy.
void build(Scene& scene, std::mt19937& rng, int triangles, const SoupOptions& soup, const MedianSplitOptions& split,
           unsigned int fromMeshLeafLimit = 0)
{
    scene.mesh = randomSoup(rng, triangles, soup);
    if (fromMeshLeafLimit > 0)
        scene.qbvh.buildFromMesh(kxQBVH::eTrianglesEquations, *scene.mesh, fromMeshLeafLimit);
    else
        scene.qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, buildMedianSplitBVH(*scene.mesh, split), *scene.mesh);
}
} // namespace

TEST(QBVHRay, RandomRaysMatchBruteForceAndTheScalarPathForEveryPolicyAndInterval)
{
    std::mt19937 rng(20240601);
    const float tMins[] = {-kInf, -4.0f, 0.0f, 3.0f};
    const float tMaxes[] = {kInf, 6.0f};
    int decided = 0, undecided = 0;
    struct Config
    {
        int triangles;
        SoupOptions soup;
        MedianSplitOptions split;
        unsigned int fromMeshLeafLimit;
    };
    SoupOptions all;
    all.degenerates = true;
    all.duplicates = true;
    MedianSplitOptions wide;
    wide.maxLeafSize = 11;
    wide.emptyLeaves = true;
    MedianSplitOptions levels;
    levels.breadthFirst = true;
    levels.spareRecords = 100;
    const Config configs[] = {{400, SoupOptions{}, MedianSplitOptions{}, 0}, {300, all, wide, 0},
                              {350, all, levels, 0},                        {3, SoupOptions{}, MedianSplitOptions{}, 0},
                              {500, all, MedianSplitOptions{}, 4},          {400, SoupOptions{}, MedianSplitOptions{}, 13}};
    for (const Config& config : configs)
    {
        Scene scene;
        build(scene, rng, config.triangles, config.soup, config.split, config.fromMeshLeafLimit);
        const auto slots = locateTriangles(scene.qbvh);
        ASSERT_EQ(slots.size(), static_cast<size_t>(config.triangles));
        for (int r = 0; r < 300; ++r)
        {
            Wm4::Vector3<float> o, d;
            randomRay(rng, scene.qbvh.getBBox(), r % 2 == 0, o, d);
            for (int mode = 0; mode < 4; ++mode)
                for (float tMin : tMins)
                    for (float tMax : tMaxes)
                    {
                        if (mode == 3 && tMin != 0.0f)
                            continue;
                        const RayAnswer got = shoot(scene.qbvh, o, d, tMin, tMax, mode, false);
                        ASSERT_EQ(got, shoot(scene.qbvh, o, d, tMin, tMax, mode, true))
                            << "mode " << mode << " tMin " << tMin << " tMax " << tMax;
                        if (checkAgainstBruteForce(scene.qbvh, slots, o, d, tMin, tMax, mode, got))
                            ++decided;
                        else
                            ++undecided;
                        if (testing::Test::HasFailure())
                            FAIL() << "ray " << r << " mode " << mode << " tMin " << tMin << " tMax " << tMax;
                    }
        }
    }
    EXPECT_GT(decided, 50 * undecided);
}

TEST(QBVHRay, DegenerateRaysAgreeWithTheScalarPathAndMiss)
{
    std::mt19937 rng(7);
    Scene scene;
    build(scene, rng, 200, SoupOptions{}, MedianSplitOptions{});
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const Wm4::Vector3<float> centre = scene.qbvh.getBBox().getCenter();
    const Wm4::Vector3<float> origins[] = {centre, Wm4::Vector3<float>(nan, 0.0f, 0.0f),
                                           Wm4::Vector3<float>(kInf, 1.0f, 2.0f)};
    const Wm4::Vector3<float> directions[] = {Wm4::Vector3<float>(0.0f, 0.0f, 0.0f),
                                              Wm4::Vector3<float>(nan, 1.0f, 0.0f),
                                              Wm4::Vector3<float>(1.0f, -0.0f, 0.0f)};
    for (const auto& o : origins)
        for (const auto& d : directions)
            for (int mode = 0; mode < 4; ++mode)
            {
                const RayAnswer got = shoot(scene.qbvh, o, d, 0.0f, kInf, mode, false);
                EXPECT_EQ(got, shoot(scene.qbvh, o, d, 0.0f, kInf, mode, true));
                const bool finiteRay = o == centre && d[0] == 1.0f;
                if (!finiteRay)
                {
                    EXPECT_FALSE(got.hit);
                    EXPECT_EQ(got.triangle, kNone);
                }
            }
}

TEST(QBVHRay, EqualHitsInOneLeafGoToTheLowerLaneBeforeTheEarlierGroup)
{
    // Eight triangles in one leaf (groups 0 and 1); copies of the same triangle sit in
    // lane 2 of group 0 and lanes 1 and 3 of group 1, the rest lie elsewhere.
    std::vector<Wm4::Vector3<float>> p = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    std::vector<unsigned int> idx;
    for (int t = 0; t < 8; ++t)
    {
        if (t == 2 || t == 5 || t == 7)
            idx.insert(idx.end(), {0, 1, 2});
        else
        {
            const float x = 10.0f + 3.0f * static_cast<float>(t);
            p.insert(p.end(), {{x, 0, 0}, {x + 1, 0, 0}, {x, 1, 0}});
            const unsigned int b = static_cast<unsigned int>(p.size()) - 3;
            idx.insert(idx.end(), {b, b + 1, b + 2});
        }
    }
    // Both queries meet the copies at distance 1, the symmetric one behind its origin.
    auto nearest = [&](unsigned int expected) {
        kxQBVH qbvh;
        buildWithLeafSize(qbvh, kxQBVH::eTrianglesEquations, *makeMesh(p, idx), 8);
        ASSERT_EQ(qbvh.getNodeCount(), 0u);
        ASSERT_EQ(qbvh.getGroupCount(), 2u);
        float t = kInf;
        Wm4::Vector2<float> bary;
        unsigned int triangle = kNone;
        EXPECT_TRUE(qbvh.intersectRay({0.25f, 0.25f, 1.0f}, {0, 0, -1}, 0.0f, t, bary, triangle, kxQBVH::eAllSides));
        EXPECT_EQ(triangle, expected);
        EXPECT_EQ(t, 1.0f);
        t = kInf;
        EXPECT_TRUE(qbvh.intersectRaySymmetric({0.25f, 0.25f, -1.0f}, {0, 0, -1}, t, bary, triangle));
        EXPECT_EQ(triangle, expected);
        EXPECT_EQ(t, 1.0f);
    };
    nearest(5);

    // Without the lane-1 copy, lane 2 of group 0 beats lane 3 of group 1.
    idx[3 * 5] = 3, idx[3 * 5 + 1] = 4, idx[3 * 5 + 2] = 5;
    nearest(2);

    // Same lane, two groups: the earlier group wins.
    idx[3 * 2] = 3, idx[3 * 2 + 1] = 4, idx[3 * 2 + 2] = 5;
    idx[3 * 6] = 0, idx[3 * 6 + 1] = 1, idx[3 * 6 + 2] = 2;
    nearest(6);
}

TEST(QBVHRay, EqualHitsInTwoLeavesGoToTheLeafWhoseBoxTheRayEntersFirst)
{
    // The same triangle in two leaves; whichever leaf box starts nearer to the ray is
    // visited first and keeps the hit.
    auto mesh = makeMesh({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {0, 1, 2, 0, 1, 2});
    for (int nearer = 0; nearer < 2; ++nearer)
    {
        std::vector<kxBBox> boxes;
        for (int leaf = 0; leaf < 2; ++leaf)
            boxes.push_back(kxBBox({0, 0, 0}, {1, 1, leaf == nearer ? 0.5f : 0.0f}));
        const kxGenericBVH bvh = leavesWithBoxes(boxes);
        kxQBVH qbvh;
        qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, bvh, *mesh);
        float t = kInf;
        Wm4::Vector2<float> bary;
        unsigned int triangle = kNone;
        ASSERT_TRUE(
            qbvh.intersectRay({0.25f, 0.25f, 2.0f}, {0, 0, -1}, 0.0f, t, bary, triangle, kxQBVH::eAllSides));
        EXPECT_EQ(triangle, static_cast<unsigned int>(nearer));
        EXPECT_EQ(t, 2.0f);
        EXPECT_EQ(bary[0], 0.5f);
        EXPECT_EQ(bary[1], 0.25f);
    }
}

TEST(QBVHRay, SidePoliciesFollowTheNormalAndTheSymmetricQueryLooksBothWays)
{
    // Counter-clockwise seen from +z: the normal is +z.
    auto mesh = makeMesh({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {0, 1, 2});
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, buildMedianSplitBVH(*mesh), *mesh);
    const Wm4::Vector3<float> above(0.2f, 0.3f, 2.0f), down(0, 0, -1);
    float t = kInf;
    Wm4::Vector2<float> bary;
    unsigned int triangle = kNone;
    EXPECT_TRUE(qbvh.intersectRay(above, down, 0.0f, t, bary, triangle, kxQBVH::eFrontSide));
    t = kInf;
    EXPECT_FALSE(qbvh.intersectRay(above, down, 0.0f, t, bary, triangle, kxQBVH::eBackSide));
    EXPECT_EQ(triangle, kNone);
    t = kInf;
    EXPECT_TRUE(qbvh.intersectRay(above, down, 0.0f, t, bary, triangle, static_cast<kxQBVH::tIntersectionPolicy>(7)));

    // From below, looking away: only the symmetric query sees the triangle, 2 behind.
    const Wm4::Vector3<float> below(0.2f, 0.3f, -2.0f);
    t = kInf;
    EXPECT_FALSE(qbvh.intersectRay(below, down, 0.0f, t, bary, triangle, kxQBVH::eAllSides));
    t = kInf;
    ASSERT_TRUE(qbvh.intersectRaySymmetric(below, down, t, bary, triangle));
    EXPECT_EQ(t, 2.0f);
    EXPECT_EQ(triangle, 0u);
    EXPECT_FLOAT_EQ(bary[0], 0.5f);
    EXPECT_FLOAT_EQ(bary[1], 0.2f);
    t = 1.5f;
    EXPECT_FALSE(qbvh.intersectRaySymmetric(below, down, t, bary, triangle));
    EXPECT_EQ(t, 1.5f);
}

TEST(QBVHRay, QueriesWithoutEquationsAnswerFalseAndOnlyTheDirectedOneLogs)
{
    std::mt19937 rng(3);
    auto mesh = randomSoup(rng, 20);
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesVertices, buildMedianSplitBVH(*mesh), *mesh);
    kx::kxCapturingLog log;
    log.install();
    float t = 5.0f;
    Wm4::Vector2<float> bary(3.0f, 4.0f);
    unsigned int triangle = 99;
    const Wm4::Vector3<float> o = qbvh.getBBox().getCenter(), d(0, 0, 1);
    EXPECT_FALSE(qbvh.intersectRay(o, d, 0.0f, t, bary, triangle, kxQBVH::eAllSides));
    EXPECT_FALSE(qbvh.intersectRaySymmetric(o, d, t, bary, triangle));
    EXPECT_EQ(t, 5.0f);
    EXPECT_EQ(bary, Wm4::Vector2<float>(3.0f, 4.0f));
    EXPECT_EQ(triangle, 99u);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].message,
              "error: QBVH is not built with the right data type (should be kxQBVH::eTrianglesEquations)");
    EXPECT_EQ(entries[0].level, 2);

    log.clear();
    log.setLevelEnabled(2, false);
    EXPECT_FALSE(qbvh.intersectRay(o, d, 0.0f, t, bary, triangle, kxQBVH::eAllSides));
    EXPECT_TRUE(log.entries().empty());
}

TEST(QBVHRay, AnEmptyHierarchyMissesAndReportsNoTriangle)
{
    auto mesh = makeMesh({}, {});
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, buildMedianSplitBVH(*mesh), *mesh);
    EXPECT_EQ(qbvh.getNodeCount(), 0u);
    EXPECT_EQ(qbvh.getGroupCount(), 0u);
    float t = kInf;
    Wm4::Vector2<float> bary;
    unsigned int triangle = 3;
    EXPECT_FALSE(qbvh.intersectRay({0, 0, 0}, {1, 0, 0}, 0.0f, t, bary, triangle, kxQBVH::eAllSides));
    EXPECT_EQ(triangle, kNone);
}

TEST(QBVHRay, AFlatRayOnABoxFaceFollowsTheSseMinMaxRule)
{
    // The ray runs along x with no y component, exactly in the plane of the leaf box's
    // lowest or highest y. On the lowest face (0 - 0) * inf is NaN in the first operand of
    // min: the slab becomes [+inf, +inf] and the box is missed. On the highest face the NaN
    // lands in the second operand of the near/far nesting and the slab is ignored.
    std::vector<Wm4::Vector3<float>> p = {{0.5f, 0, -1}, {0.5f, 0, 1}, {0.5f, 1, 0}};
    std::vector<unsigned int> idx = {0, 1, 2};
    for (int t = 1; t < 8; ++t)
    {
        const float z = 50.0f + 5.0f * static_cast<float>(t);
        p.insert(p.end(), {{0, 0, z}, {1, 0, z}, {0, 1, z}});
        idx.insert(idx.end(), {3u * t, 3u * t + 1, 3u * t + 2});
    }
    kxQBVH qbvh;
    buildWithLeafSize(qbvh, kxQBVH::eTrianglesEquations, *makeMesh(p, idx), 1);
    ASSERT_GT(qbvh.getNodeCount(), 0u);
    const Wm4::Vector3<float> along(1, 0, 0);
    struct Case
    {
        float y;
        bool hit;
    };
    for (const Case c : {Case{0.0f, false}, Case{0.5f, true}, Case{1.0f, true}})
        for (bool reference : {false, true})
        {
            const RayAnswer a = shoot(qbvh, {0, c.y, 0}, along, 0.0f, kInf, 0, reference);
            EXPECT_EQ(a.hit, c.hit) << "y " << c.y << (reference ? " scalar" : " simd");
            if (a.hit)
            {
                EXPECT_EQ(a.triangle, 0u);
                EXPECT_EQ(a.t, 0.5f);
            }
        }
}

TEST(QBVHRay, SlotsAreVisitedInTheOrderOfTheSortingNetworkWhateverTheirKeysAndTies)
{
    // One four-wide node over four one-triangle leaves. The ray runs along +x from the
    // origin; slot k's box is entered at distance key[k] (0: the origin is inside it) or
    // missed (+infinity). Two chosen slots hold the same triangle at distance 5 and the
    // others one the ray misses: of two equal hits the first visited stays, so the answer
    // tells which of the two slots comes first. Every key pattern over {0, 1, 2, 3, miss}
    // and every pair of slots is tried, including the unstable ties of the network.
    const float kMiss = kInf;
    const float values[] = {0.0f, 1.0f, 2.0f, 3.0f, kMiss};
    const std::vector<Wm4::Vector3<float>> corners = {
        {5, -0.5f, -0.5f}, {5, -0.5f, 1}, {5, 1, -0.5f}, {5, 50, 50}, {5, 50, 51}, {5, 51, 50}};
    const auto networkOrder = [](const float key[4]) {
        float k[4] = {key[0], key[1], key[2], key[3]};
        std::vector<int> slot = {0, 1, 2, 3};
        for (const auto& p : {std::make_pair(0, 1), std::make_pair(2, 3), std::make_pair(0, 2),
                              std::make_pair(1, 3), std::make_pair(1, 2)})
            if (k[p.first] > k[p.second])
            {
                std::swap(k[p.first], k[p.second]);
                std::swap(slot[p.first], slot[p.second]);
            }
        std::vector<int> visited;
        for (int i = 0; i < 4 && k[i] != kInf; ++i)
            visited.push_back(slot[i]);
        return visited;
    };
    int checked = 0;
    for (int pattern = 0; pattern < 625; ++pattern)
    {
        float key[4];
        for (int k = 0, p = pattern; k < 4; ++k, p /= 5)
            key[k] = values[p % 5];
        const std::vector<int> order = networkOrder(key);
        for (int a = 0; a < 4; ++a)
            for (int b = a + 1; b < 4; ++b)
            {
                std::vector<unsigned int> indices;
                for (int k = 0; k < 4; ++k)
                    indices.insert(indices.end(), k == a || k == b ? std::initializer_list<unsigned int>{0, 1, 2}
                                                                   : std::initializer_list<unsigned int>{3, 4, 5});
                const auto mesh = makeMesh(corners, indices);
                std::vector<kxBBox> boxes;
                for (int k = 0; k < 4; ++k)
                    boxes.push_back(key[k] == kMiss ? kxBBox({0, 5, -1}, {10, 6, 1})
                                                    : kxBBox({key[k] == 0.0f ? -1.0f : key[k], -1, -1}, {10, 1, 1}));
                kxQBVH qbvh;
                qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, leavesWithBoxes(boxes), *mesh);
                ASSERT_EQ(qbvh.getNodeCount(), 1u);

                unsigned int expected = kNone;
                for (int slot : order)
                    if (slot == a || slot == b)
                    {
                        expected = static_cast<unsigned int>(slot);
                        break;
                    }
                for (int mode : {0, 1, 3})
                {
                    const RayAnswer got = shoot(qbvh, {0, 0, 0}, {1, 0, 0}, 0.0f, kInf, mode, false);
                    EXPECT_EQ(got, shoot(qbvh, {0, 0, 0}, {1, 0, 0}, 0.0f, kInf, mode, true));
                    EXPECT_EQ(got.triangle, expected) << "keys " << key[0] << " " << key[1] << " " << key[2] << " "
                                                      << key[3] << ", slots " << a << " and " << b << ", mode " << mode;
                    if (expected != kNone)
                    {
                        EXPECT_EQ(got.t, 5.0f);
                    }
                    ++checked;
                }
            }
    }
    EXPECT_EQ(checked, 625 * 6 * 3);
}
