#include "kxBVHContainers.h"
#include "kxCapturingLog.h"
#include "kxGenericBVHBuilder.h"
#include "kxQBVHReference.h"
#include "kxQBVHTestUtil.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>
#include <random>

using namespace kxtest;

namespace
{
using V3 = Wm4::Vector3<float>;
// Modes 0..2 are the policies, 3 a value no policy has (it must act as 0), 4 the symmetric query.
constexpr int kSymmetric = 4;

struct Answer
{
    bool hit;
    float t;
    Wm4::Vector2<float> barycentric;
    unsigned int triangle;
    bool operator==(const Answer& o) const
    {
        return hit == o.hit && bitsOf(t) == bitsOf(o.t) && bitsOf(barycentric[0]) == bitsOf(o.barycentric[0]) &&
               bitsOf(barycentric[1]) == bitsOf(o.barycentric[1]) && triangle == o.triangle;
    }
};

Answer shoot(const kxQBVH& qbvh, const V3& o, const V3& d, float tMin, float tMax, int mode, bool reference = false)
{
    Answer a{false, tMax, Wm4::Vector2<float>(-7.0f, -7.0f), 12345u};
    const auto policy = static_cast<kxQBVH::tIntersectionPolicy>(mode);
    if (mode == kSymmetric)
        a.hit = reference ? kxQBVHReference::intersectRaySymmetric(qbvh, o, d, a.t, a.barycentric, a.triangle)
                          : qbvh.intersectRaySymmetric(o, d, a.t, a.barycentric, a.triangle);
    else
        a.hit = reference ? kxQBVHReference::intersectRay(qbvh, o, d, tMin, a.t, a.barycentric, a.triangle, policy)
                          : qbvh.intersectRay(o, d, tMin, a.t, a.barycentric, a.triangle, policy);
    return a;
}

// Where a triangle is stored, and the box of its leaf (every box on its path contains it).
struct Slot { uint32_t group; int lane; uint32_t leafFirstGroup; kxBBox leafBox; };

std::map<uint32_t, Slot> locateTriangles(const kxQBVH& qbvh)
{
    std::map<uint32_t, Slot> slots;
    auto addLeaf = [&](uint32_t first, uint32_t count, const kxBBox& box) {
        for (uint32_t g = first; g < first + count; ++g)
            for (int k = 0; k < 4; ++k)
                if (qbvh.getTriangleIndices()[g].index[k] != kNone)
                    slots[qbvh.getTriangleIndices()[g].index[k]] = Slot{g, k, first, box};
    };
    auto walk = [&](auto&& self, uint32_t index) -> void {
        const kxQBVH::tQBVHNode& node = qbvh.getNodes()[index];
        for (int k = 0; k < 4; ++k)
            if (node.count[k] == kNone)
                self(self, node.child[k]);
            else
                addLeaf(node.child[k], node.count[k],
                        kxBBox(V3(node.bboxMin[0][k], node.bboxMin[1][k], node.bboxMin[2][k]),
                               V3(node.bboxMax[0][k], node.bboxMax[1][k], node.bboxMax[2][k])));
    };
    if (qbvh.getNodeCount() > 0)
        walk(walk, 0);
    else
        addLeaf(0, qbvh.getGroupCount(), kxBBox(V3(-kInf, -kInf, -kInf), V3(kInf, kInf, kInf)));
    return slots;
}

// One triangle's answer, from its stored equations in the query's own operation order.
struct Candidate { bool accepted; float th, distance, w, u; };

Candidate candidate(const kxQBVH& qbvh, const Slot& slot, const V3& o, const V3& d, int mode, float tMin, float tMax)
{
    float e[12];
    for (int i = 0; i < 12; ++i)
        e[i] = qbvh.getTriangleEquations()[slot.group].eq[i][slot.lane];
    const float denom = e[2] * d[2] + e[1] * d[1] + e[0] * d[0];
    const float th = -(((e[2] * o[2] + e[3]) + e[1] * o[1] + e[0] * o[0]) / denom);
    const float p[3] = {d[0] * th + o[0], d[1] * th + o[1], d[2] * th + o[2]};
    const float u = e[4] * p[0] + e[5] * p[1] + e[6] * p[2] + e[7];
    const float v = e[8] * p[0] + e[9] * p[1] + e[10] * p[2] + e[11];
    const float w = 1.0f - (u + v);
    const bool symmetric = mode == kSymmetric;
    const bool side = symmetric || mode == kxQBVH::eFrontSide ? denom <= 0.0f
                      : mode == kxQBVH::eBackSide         ? denom >= 0.0f
                                                          : !std::isnan(denom);
    const float distance = symmetric ? std::fabs(th) : th;
    // A hit must come strictly before t to replace it, so a negative t stops the
    // symmetric query although its box and triangle tests use |t|.
    const bool inRange = symmetric ? distance <= std::fabs(tMax) && distance < tMax : tMin <= th && th < tMax;
    return {side && inRange && w > -0.0001f && v > -0.0001f && u > -0.0001f, th, distance, w, u};
}

// True when th lies well inside the slab interval of the leaf box, so that no rounding in
// the box tests can hide this hit.
bool reachableWithMargin(const kxBBox& box, const V3& o, const V3& d, float th)
{
    const double margin = 1e-3 * (1.0 + std::fabs(th));
    double lo = -kInf, hi = kInf;
    for (int a = 0; a < 3; ++a)
    {
        if (d[a] == 0.0f)
        {
            if (!(o[a] > box.min[a] && o[a] < box.max[a]))
                return false;
            continue;
        }
        const double t1 = (double(box.min[a]) - o[a]) / d[a], t2 = (double(box.max[a]) - o[a]) / d[a];
        lo = std::max(lo, std::min(t1, t2));
        hi = std::min(hi, std::max(t1, t2));
    }
    return lo + margin < th && th < hi - margin;
}

// Compares the query with every triangle's own answer. Returns false when a hit that
// rounding in the box tests could hide is as near as the nearest safe hit: such rays
// decide nothing.
bool checkAgainstBruteForce(const kxQBVH& qbvh, const std::map<uint32_t, Slot>& slots, const V3& o, const V3& d,
                            float tMin, float tMax, int mode, const Answer& got)
{
    float nearestSafe = kInf, nearestUnsafe = kInf;
    std::map<uint32_t, Candidate> safe;
    for (const auto& [triangle, slot] : slots)
    {
        const Candidate c = candidate(qbvh, slot, o, d, mode, tMin, tMax);
        if (c.accepted && reachableWithMargin(slot.leafBox, o, d, c.th))
        {
            safe[triangle] = c;
            nearestSafe = std::min(nearestSafe, c.distance);
        }
        else if (c.accepted)
            nearestUnsafe = std::min(nearestUnsafe, c.distance);
    }
    if (nearestUnsafe != kInf && nearestUnsafe <= nearestSafe)
        return false;
    if (nearestSafe == kInf)
    {
        // A miss still writes the triangle number; t and the weights are left alone.
        EXPECT_TRUE(!got.hit && got.triangle == kNone && bitsOf(got.t) == bitsOf(tMax) &&
                    got.barycentric == Wm4::Vector2<float>(-7.0f, -7.0f));
        return true;
    }
    const auto winner = safe.find(got.triangle);
    if (!got.hit || winner == safe.end())
    {
        ADD_FAILURE() << "reported triangle " << got.triangle << " is not a hit";
        return true;
    }
    const Candidate& c = winner->second;
    EXPECT_TRUE(bitsOf(got.t) == bitsOf(nearestSafe) && bitsOf(c.distance) == bitsOf(nearestSafe));
    EXPECT_TRUE(bitsOf(got.barycentric[0]) == bitsOf(c.w) && bitsOf(got.barycentric[1]) == bitsOf(c.u));
    // Among equally near hits of the same leaf, the lower lane wins, then the earlier group.
    const Slot& ws = slots.at(got.triangle);
    for (const auto& [triangle, other] : safe)
    {
        const Slot& s = slots.at(triangle);
        const bool tied = other.distance == c.distance && s.leafFirstGroup == ws.leafFirstGroup;
        EXPECT_TRUE(!tied || triangle == got.triangle || ws.lane < s.lane || (ws.lane == s.lane && ws.group < s.group))
                << "triangle " << got.triangle << " beat " << triangle << " in the same leaf";
    }
    return true;
}

// From inside the box or from a shell around it towards a point of the box, some
// directions with zero components, lengths between 0.5 and 2.
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
    o = inside ? inBox() : box.getCenter() + away * (box.max[0] - box.min[0] + box.max[1] - box.min[1] + 1.0f);
    d = target - o;
    if (d.Length() == 0.0f)
        d = V3(1.0f, 0.0f, 0.0f);
    d.Normalize();
    if (unit(rng) < 0.15f)
        d[std::uniform_int_distribution<int>(0, 2)(rng)] = 0.0f;
    d *= 0.5f + 1.5f * unit(rng);
}

} // namespace

TEST(QBVHRay, RandomRaysMatchBruteForceAndTheScalarPathOnEveryTreeShape)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    std::mt19937 rng(20240601);
    SoupOptions all;
    all.degenerates = all.duplicates = true;
    // Every twentieth ray has a NaN or infinite origin, or a zero or NaN direction.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const V3 badOrigins[] = {V3(nan, 0.0f, 0.0f), V3(kInf, 1.0f, 2.0f)};
    const V3 badDirections[] = {V3(0.0f, 0.0f, 0.0f), V3(nan, 1.0f, 0.0f)};
    std::vector<unsigned int> sameCorners(3000);
    for (unsigned int i = 0; i < 3000; ++i)
        sameCorners[i] = i % 3;
    int decided = 0, undecided = 0, hits = 0;
    // Median-split trees (depth first; wide leaves and empty ones; level order with spare
    // records; a root leaf), the linear builder through buildFromMesh, SAH trees, whose leaf
    // grows huge over identical triangles, and a median split of those, where every key ties.
    for (int shape = 0; shape < 9; ++shape)
    {
        SCOPED_TRACE("shape " + std::to_string(shape));
        const int sizes[] = {400, 300, 350, 3, 500, 400, 1500, 1000, 1000};
        const auto mesh = shape >= 7 ? makeMesh({{0, 0, 0}, {1, 0.5f, 0.25f}, {0.5f, 1, 0.75f}}, sameCorners)
                                     : randomSoup(rng, sizes[shape], shape % 3 ? all : SoupOptions{});
        const MedianSplitOptions splits[] = {{}, {11, false, true, 0}, {4, true, false, 100}, {}};
        kxQBVH qbvh;
        if (shape == 4 || shape == 5)
            qbvh.buildFromMesh(kxQBVH::eTrianglesEquations, *mesh, shape == 4 ? 4 : 13);
        else if (shape == 6 || shape == 7)
        {
            kxGenericBVH sah;
            kxGenericBVHBuilder().build(kxBVHTriangleContainer(*mesh), sah);
            qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, sah, *mesh);
        }
        else
            qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, buildMedianSplitBVH(*mesh, splits[shape % 8]), *mesh);
        const auto slots = locateTriangles(qbvh);
        ASSERT_EQ(slots.size(), size_t(sizes[shape]));
        for (int r = 0; r < 200; ++r)
        {
            V3 o, d;
            randomRay(rng, qbvh.getBBox(), r % 2 == 0, o, d);
            if (r % 20 == 19)
            {
                const int k = r / 20 % 4;
                if (k < 2)
                    o = badOrigins[k];
                else
                    d = badDirections[k - 2];
            }
            for (int mode = 0; mode <= kSymmetric; ++mode)
                for (float tMin : {-kInf, -4.0f, 0.0f, 3.0f})
                    for (float tMax : {kInf, 6.0f, -6.0f})
                    {
                        if (mode == kSymmetric && tMin != 0.0f)
                            continue;
                        const Answer got = shoot(qbvh, o, d, tMin, tMax, mode);
                        ASSERT_EQ(got, shoot(qbvh, o, d, tMin, tMax, mode, true));
                        const bool decides = checkAgainstBruteForce(qbvh, slots, o, d, tMin, tMax, mode, got);
                        decided += decides;
                        undecided += !decides;
                        hits += decides && got.hit;
                        if (testing::Test::HasFailure())
                            FAIL() << "ray " << r << " mode " << mode << " tMin " << tMin << " tMax " << tMax;
                    }
        }
    }
    EXPECT_GT(decided, 50 * undecided);
    EXPECT_GT(hits, decided / 10);
}

TEST(QBVHRay, SlotsAreVisitedInTheOrderOfTheSortingNetworkWhateverTheirKeysAndTies)
{
    // One four-wide node over four one-triangle leaves. The ray runs along +x from the
    // origin; slot k's box is entered at distance key[k] (0: the origin is inside it) or
    // missed (+infinity). Two chosen slots hold the same triangle at distance 5 and the
    // others one the ray misses: of two equal hits the first visited stays, so the answer
    // tells which of the two slots comes first. Every key pattern over {0, 1, 2, 3, miss}
    // and every pair of slots is tried, including the unstable ties of the network. The
    // symmetric query also runs along -x with the triangle turned round: boxes wholly
    // behind the origin are keyed by their far ends, -key[k].
    const float values[] = {0.0f, 1.0f, 2.0f, 3.0f, kInf};
    const std::vector<V3> corners = {{5, -0.5f, -0.5f}, {5, -0.5f, 1}, {5, 1, -0.5f},
                                     {5, 50, 50},       {5, 50, 51},    {5, 51, 50}};
    const auto visiting = [](std::array<float, 4> key) {
        std::array<int, 4> slot = {0, 1, 2, 3};
        for (const auto& [i, j] : {std::pair{0, 1}, {2, 3}, {0, 2}, {1, 3}, {1, 2}})
            if (key[i] > key[j])
            {
                std::swap(key[i], key[j]);
                std::swap(slot[i], slot[j]);
            }
        std::vector<int> order;
        for (int i = 0; i < 4 && key[i] != kInf; ++i)
            order.push_back(slot[i]);
        return order;
    };
    for (int pattern = 0; pattern < 625; ++pattern)
    {
        std::array<float, 4> key, behind;
        std::vector<kxBBox> boxes;
        for (int k = 0, p = pattern; k < 4; ++k, p /= 5)
        {
            key[k] = values[p % 5];
            behind[k] = key[k] == kInf ? kInf : -key[k];
            boxes.push_back(key[k] == kInf ? kxBBox(V3(0, 5, -1), V3(10, 6, 1))
                                           : kxBBox(V3(key[k] == 0.0f ? -1.0f : key[k], -1, -1), V3(10, 1, 1)));
        }
        for (int a = 0; a < 4; ++a)
            for (int b = a + 1; b < 4; ++b)
                for (bool mirrored : {false, true})
                {
                    std::vector<unsigned int> indices;
                    for (int k = 0; k < 4; ++k)
                        indices.insert(indices.end(), k != a && k != b ? std::initializer_list<unsigned int>{3, 4, 5}
                                                      : mirrored       ? std::initializer_list<unsigned int>{0, 2, 1}
                                                                       : std::initializer_list<unsigned int>{0, 1, 2});
                    kxQBVH qbvh;
                    qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, leafTree(boxes, {1, 1, 1, 1}),
                                      *makeMesh(corners, indices));
                    unsigned int expected = kNone;
                    for (int slot : visiting(mirrored ? behind : key))
                        if (expected == kNone && (slot == a || slot == b))
                            expected = static_cast<unsigned int>(slot);
                    const V3 d(mirrored ? -1.0f : 1.0f, 0.0f, 0.0f);
                    for (int mode : {kSymmetric, int(kxQBVH::eAllSides), int(kxQBVH::eFrontSide)})
                    {
                        if (mirrored && mode != kSymmetric)
                            break;
                        const Answer got = shoot(qbvh, V3(0, 0, 0), d, 0.0f, kInf, mode);
                        ASSERT_EQ(got, shoot(qbvh, V3(0, 0, 0), d, 0.0f, kInf, mode, true));
                        ASSERT_EQ(got.triangle, expected) << "keys " << key[0] << " " << key[1] << " " << key[2]
                                                          << " " << key[3] << ", slots " << a << " and " << b
                                                          << ", mode " << mode << (mirrored ? ", behind" : "");
                        ASSERT_EQ(got.t, expected == kNone ? kInf : 5.0f);
                    }
                }
    }
}

TEST(QBVHRay, AFlatRayOnABoxFaceFollowsTheSseMinMaxRule)
{
    // The ray runs along x with no y component, in the plane of the leaf box's lowest or
    // highest y. On the lowest face (0 - 0) * inf is NaN in the first operand of min: the
    // slab becomes [+inf, +inf] and the box is missed. On the highest face the NaN lands in
    // the second operand of the near/far nesting and the slab is ignored.
    std::vector<V3> p = {{0.5f, 0, -1}, {0.5f, 0, 1}, {0.5f, 1, 0}};
    for (int t = 1; t < 8; ++t)
        p.insert(p.end(), {{0, 0, 50.0f + 5.0f * t}, {1, 0, 50.0f + 5.0f * t}, {0, 1, 50.0f + 5.0f * t}});
    std::vector<unsigned int> idx(p.size());
    std::iota(idx.begin(), idx.end(), 0u);
    kxQBVH qbvh;
    const auto mesh = makeMesh(p, idx);
    qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, buildMedianSplitBVH(*mesh, {1}), *mesh);
    for (float y : {0.0f, 0.5f, 1.0f})
        for (bool reference : {false, true})
        {
            const Answer a = shoot(qbvh, {0, y, 0}, {1, 0, 0}, 0.0f, kInf, 0, reference);
            EXPECT_TRUE(a.hit == (y > 0.0f) && a.triangle == (y > 0.0f ? 0u : kNone) && a.t == (y > 0.0f ? 0.5f : kInf))
                << "y " << y << (reference ? " scalar" : " simd");
        }
}

TEST(QBVHQueries, WithoutTheirDataQueriesAnswerFalseAndTheLoggingOnesSaySo)
{
    std::mt19937 rng(3);
    auto mesh = randomSoup(rng, 20);
    kx::kxCapturingLog log;
    log.install();
    for (unsigned int flags : {1u, 2u})
    {
        kxQBVH qbvh;
        qbvh.buildFromBVH(kxQBVH::tQBVHDataFlags(flags), buildMedianSplitBVH(*mesh), *mesh);
        const V3 o = qbvh.getBBox().getCenter(), d(0, 0, 1);
        Answer a{false, 5.0f, Wm4::Vector2<float>(3.0f, 4.0f), 99};
        auto ask = [&] {
            return flags == 1 ? qbvh.intersectRay(o, d, 0.0f, a.t, a.barycentric, a.triangle, kxQBVH::eAllSides)
                              : qbvh.intersectConvexHull(nullptr, 0);
        };
        log.clear();
        EXPECT_FALSE(ask());
        EXPECT_FALSE(flags == 1 && qbvh.intersectRaySymmetric(o, d, a.t, a.barycentric, a.triangle));
        EXPECT_EQ(a, (Answer{false, 5.0f, Wm4::Vector2<float>(3.0f, 4.0f), 99}));
        const std::string needed = flags == 1 ? "kxQBVH::eTrianglesEquations" : "kxQBVH::eTrianglesVertices";
        ASSERT_EQ(log.entries().size(), 1u);
        EXPECT_EQ(log.entries()[0].message,
                  "error: QBVH is not built with the right data type (should be " + needed + ")");
        EXPECT_EQ(log.entries()[0].level, 2);
        log.clear();
        log.setLevelEnabled(2, false);
        EXPECT_FALSE(ask());
        EXPECT_TRUE(log.entries().empty());
        log.setLevelEnabled(2, true);
    }
    auto empty = makeMesh({}, {});
    kxQBVH none;
    none.buildFromBVH(kxQBVH::tQBVHDataFlags(3), buildMedianSplitBVH(*empty), *empty);
    EXPECT_FALSE(none.intersectConvexHull(nullptr, 0));
    EXPECT_EQ(shoot(none, V3(0, 0, 0), V3(1, 0, 0), 0.0f, kInf, 0).triangle, kNone);
}
