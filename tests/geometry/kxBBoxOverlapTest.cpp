#include "kxBBox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>

// Boxes and triangles live on the integer grid within [-32, 32]. There every step of the
// single-precision test is exact (also after scaling by a power of two), so its answer
// must equal the exact answer, touching cases included.
namespace
{
struct Case
{
    int v[3][3], lo[3], hi[3];
};

// Gap between the projections of the triangle and of the box on the axis, in integers:
// positive when the axis separates them, zero when they touch.
int64_t gap(const Case& c, const int64_t axis[3])
{
    if (!axis[0] && !axis[1] && !axis[2])
        return -1;
    int64_t tLo = INT64_MAX, tHi = INT64_MIN, bLo = 0, bHi = 0;
    for (int i = 0; i < 3; ++i)
    {
        const int64_t p = axis[0] * c.v[i][0] + axis[1] * c.v[i][1] + axis[2] * c.v[i][2];
        const int64_t lo = axis[i] * c.lo[i], hi = axis[i] * c.hi[i];
        tLo = std::min(tLo, p), tHi = std::max(tHi, p);
        bLo += std::min(lo, hi), bHi += std::max(lo, hi);
    }
    return std::max(tLo - bHi, bLo - tHi);
}

struct Exact
{
    bool overlaps, onlyThePlaneSeparates, touching;
};

// Separating axes: the face normals, every axis-by-edge cross product and the triangle's
// normal. For points and segments the zero axes drop out and the rest still decide.
Exact classify(const Case& c)
{
    int64_t e[3][3], axes[13][3] = {};
    for (int i = 0; i < 3; ++i)
        for (int a = 0; a < 3; ++a)
            e[i][a] = c.v[(i + 1) % 3][a] - c.v[i][a];
    for (int a = 0; a < 3; ++a)
    {
        axes[4 * a][a] = 1;
        for (int i = 0; i < 3; ++i)
        {
            axes[4 * a + 1 + i][(a + 1) % 3] = -e[i][(a + 2) % 3];
            axes[4 * a + 1 + i][(a + 2) % 3] = e[i][(a + 1) % 3];
        }
        axes[12][a] = e[0][(a + 1) % 3] * e[1][(a + 2) % 3] - e[0][(a + 2) % 3] * e[1][(a + 1) % 3];
    }
    int64_t widest = INT64_MIN;
    for (int i = 0; i < 12; ++i)
        widest = std::max(widest, gap(c, axes[i]));
    const int64_t byPlane = gap(c, axes[12]);
    const bool overlaps = widest <= 0 && byPlane <= 0;
    return {overlaps, widest <= 0 && byPlane > 0, overlaps && (widest == 0 || byPlane == 0)};
}

Case makeCase(std::mt19937& rng, int kind)
{
    auto u = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    Case c{};
    for (int a = 0; a < 3; ++a)
        c.hi[a] = (c.lo[a] = u(-6, 6)) + (u(0, 9) == 0 ? 0 : u(1, 8)); // flat boxes now and then
    const int a0 = u(0, 2), plane = (u(0, 1) ? c.hi[a0] : c.lo[a0]) + u(-1, 1);
    const int dir[3] = {u(-3, 3), u(-3, 3), u(-3, 3)}, k[3] = {0, u(0, 4), u(-4, 4)};
    const int n[3] = {u(0, 1) * 2 - 1, u(0, 1) * 2 - 1, u(0, 1) * 2 - 1};
    int level = u(-1, 1);
    for (int a = 0; a < 3; ++a)
        level += n[a] * (n[a] > 0 ? c.hi[a] : c.lo[a]);
    for (int i = 0; i < 3; ++i)
    {
        int* v = c.v[i];
        for (int a = 0; a < 3; ++a)
        {
            const int pick = u(0, 3);
            if (kind == 0) // anywhere around the box
                v[a] = u(-14, 14);
            else if (kind == 1) // snapped to the box's planes: faces, edges and corners touch
                v[a] = pick == 0 ? c.lo[a] : pick == 1 ? c.hi[a] : u(-14, 14);
            else if (kind == 2) // in the plane of a face, or one unit off it
                v[a] = a == a0 ? plane : u(-14, 14);
            else if (kind == 3) // points, segments and collinear triples
                v[a] = i == 0 ? u(c.lo[a] - 4, c.hi[a] + 4) : c.v[0][a] + k[i] * dir[a];
            else // a diagonal plane through or just beside a box corner
                v[a] = u(-16, 16);
        }
        if (kind == 4)
            v[a0] = n[a0] * (level - n[0] * v[0] - n[1] * v[1] - n[2] * v[2] + n[a0] * v[a0]);
    }
    for (const auto& v : c.v)
        for (int x : v)
            if (x < -32 || x > 32)
                return makeCase(rng, kind);
    return c;
}
} // namespace

TEST(BBoxOverlap, MatchesExactSeparatingAxesOnTheGridInEveryVertexOrderAndScale)
{
    const int orders[6][3] = {{0, 1, 2}, {1, 2, 0}, {2, 0, 1}, {0, 2, 1}, {2, 1, 0}, {1, 0, 2}};
    std::mt19937 rng(20240229);
    int overlapping = 0, touching = 0, planeOnly = 0, failures = 0;
    for (int i = 0; i < 100000; ++i)
    {
        const Case c = makeCase(rng, i % 5);
        const Exact exact = classify(c);
        overlapping += exact.overlaps, touching += exact.touching, planeOnly += exact.onlyThePlaneSeparates;
        for (const auto& order : orders)
            for (float s : {1.0f, 0x1p-10f, 0x1p12f})
            {
                auto at = [s](const int* p) { return Wm4::Vector3<float>(p[0] * s, p[1] * s, p[2] * s); };
                const kxBBox box(at(c.lo), at(c.hi));
                if (box.overlapsTriangle(at(c.v[order[0]]), at(c.v[order[1]]), at(c.v[order[2]])) != exact.overlaps &&
                    ++failures <= 10)
                    ADD_FAILURE() << "box " << testing::PrintToString(c.lo) << testing::PrintToString(c.hi)
                                  << " triangle " << testing::PrintToString(c.v) << " order "
                                  << testing::PrintToString(order) << " scale " << s;
            }
    }
    EXPECT_EQ(failures, 0);
    // The generator must reach the cases that matter, or the comparison proves little.
    EXPECT_TRUE(overlapping > 20000 && overlapping < 80000 && touching > 5000 && planeOnly > 1000);
}

TEST(BBoxOverlap, TouchingAFaceOverlapsAndOneUlpBeyondDoesNot)
{
    // Tilted so that only the face normal separates: no other axis may hide slack there.
    using V = Wm4::Vector3<float>;
    const kxBBox box(V(0.0f, 0.0f, 0.0f), V(1.0f, 1.0f, 1.0f));
    for (float x : {1.0f, 1.0f + 0x1p-23f})
        EXPECT_EQ(box.overlapsTriangle(V(x, 0.5f, 0.5f), V(x + 1.0f, 5.0f, 0.5f), V(x + 2.0f, 0.5f, 5.0f)), x == 1.0f);
}
