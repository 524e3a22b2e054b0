#include "kxBBox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <vector>

// Boxes and triangles live on the integer grid within [-32, 32]. There every step of the
// single-precision test is exact (edge products stay below 2^13, the plane products
// below 2^20, and the final product's sign survives rounding), so its answer must equal
// the exact answer, touching cases included.
namespace
{
using i128 = __int128;

i128 checkedMul(i128 a, i128 b)
{
    i128 r;
    if (__builtin_mul_overflow(a, b, &r))
        throw std::overflow_error("rational reference overflowed");
    return r;
}

i128 checkedAdd(i128 a, i128 b)
{
    i128 r;
    if (__builtin_add_overflow(a, b, &r))
        throw std::overflow_error("rational reference overflowed");
    return r;
}

struct Rational
{
    i128 n = 0;
    i128 d = 1;
};

Rational reduced(i128 n, i128 d)
{
    if (d < 0)
        n = -n, d = -d;
    i128 a = n < 0 ? -n : n, b = d;
    while (b)
    {
        const i128 t = a % b;
        a = b;
        b = t;
    }
    if (a > 1)
        n /= a, d /= a;
    return {n, d};
}

Rational operator-(const Rational& x, const Rational& y)
{
    return reduced(checkedAdd(checkedMul(x.n, y.d), -checkedMul(y.n, x.d)), checkedMul(x.d, y.d));
}
Rational operator+(const Rational& x, const Rational& y)
{
    return reduced(checkedAdd(checkedMul(x.n, y.d), checkedMul(y.n, x.d)), checkedMul(x.d, y.d));
}
Rational operator*(const Rational& x, const Rational& y)
{
    return reduced(checkedMul(x.n, y.n), checkedMul(x.d, y.d));
}
Rational operator/(const Rational& x, const Rational& y)
{
    return reduced(checkedMul(x.n, y.d), checkedMul(x.d, y.n));
}

using Point = std::array<Rational, 3>;

struct Case
{
    int v[3][3];
    int lo[3];
    int hi[3];
};

// Sutherland-Hodgman against one closed half-space; works for degenerate polygons too,
// because the cycle through the vertices covers their convex hull.
std::vector<Point> clip(const std::vector<Point>& poly, int axis, int bound, bool keepBelow)
{
    std::vector<Point> out;
    const Rational plane{bound, 1};
    auto inside = [&](const Point& p) { return keepBelow ? plane - p[axis] : p[axis] - plane; };
    for (size_t i = 0; i < poly.size(); ++i)
    {
        const Point& p = poly[i];
        const Point& q = poly[(i + 1) % poly.size()];
        const Rational vp = inside(p), vq = inside(q);
        if (vp.n >= 0)
            out.push_back(p);
        if ((vp.n >= 0) != (vq.n >= 0))
        {
            const Rational t = vp / (vp - vq);
            Point x;
            for (int a = 0; a < 3; ++a)
                x[a] = p[a] + t * (q[a] - p[a]);
            out.push_back(x);
        }
    }
    return out;
}

bool clippedTriangleIsNonEmpty(const Case& c)
{
    std::vector<Point> poly;
    for (const auto& v : c.v)
        poly.push_back({Rational{v[0], 1}, Rational{v[1], 1}, Rational{v[2], 1}});
    for (int a = 0; a < 3 && !poly.empty(); ++a)
    {
        poly = clip(poly, a, c.hi[a], true);
        poly = clip(poly, a, c.lo[a], false);
    }
    return !poly.empty();
}

struct AxisVerdict
{
    bool separated = false;
    bool touching = false;
};

// Projects all three vertices and all eight corners on the axis, in integers.
AxisVerdict projectOn(const Case& c, const int64_t axis[3])
{
    AxisVerdict verdict;
    if (axis[0] == 0 && axis[1] == 0 && axis[2] == 0)
        return verdict;
    int64_t tLo = INT64_MAX, tHi = INT64_MIN, bLo = INT64_MAX, bHi = INT64_MIN;
    for (const auto& v : c.v)
    {
        const int64_t p = axis[0] * v[0] + axis[1] * v[1] + axis[2] * v[2];
        tLo = std::min(tLo, p), tHi = std::max(tHi, p);
    }
    for (int corner = 0; corner < 8; ++corner)
    {
        int64_t p = 0;
        for (int a = 0; a < 3; ++a)
            p += axis[a] * ((corner >> a) & 1 ? c.hi[a] : c.lo[a]);
        bLo = std::min(bLo, p), bHi = std::max(bHi, p);
    }
    verdict.separated = tLo > bHi || bLo > tHi;
    verdict.touching = tLo == bHi || bLo == tHi;
    return verdict;
}

struct Classification
{
    bool overlaps;
    bool onlyThePlaneSeparates;
    bool touching;
    bool degenerate;
};

// An exact separating-axis verdict over the 13 candidate axes, kept apart from the
// clipping verdict so that the two references check each other.
Classification classify(const Case& c)
{
    int64_t edge[3][3];
    for (int e = 0; e < 3; ++e)
        for (int a = 0; a < 3; ++a)
            edge[e][a] = c.v[(e + 1) % 3][a] - c.v[e][a];
    std::vector<std::array<int64_t, 3>> axes;
    for (int a = 0; a < 3; ++a)
    {
        std::array<int64_t, 3> unit{0, 0, 0};
        unit[a] = 1;
        axes.push_back(unit);
        for (const auto& e : edge)
            axes.push_back({unit[1] * e[2] - unit[2] * e[1], unit[2] * e[0] - unit[0] * e[2],
                            unit[0] * e[1] - unit[1] * e[0]});
    }
    const int64_t normal[3] = {edge[0][1] * edge[1][2] - edge[0][2] * edge[1][1],
                               edge[0][2] * edge[1][0] - edge[0][0] * edge[1][2],
                               edge[0][0] * edge[1][1] - edge[0][1] * edge[1][0]};

    Classification result{};
    bool separatedByTwelve = false, touching = false;
    for (const auto& axis : axes)
    {
        const AxisVerdict v = projectOn(c, axis.data());
        separatedByTwelve |= v.separated;
        touching |= v.touching;
    }
    const AxisVerdict byNormal = projectOn(c, normal);
    result.overlaps = !separatedByTwelve && !byNormal.separated;
    result.onlyThePlaneSeparates = !separatedByTwelve && byNormal.separated;
    result.touching = result.overlaps && (touching || byNormal.touching);
    result.degenerate = normal[0] == 0 && normal[1] == 0 && normal[2] == 0;
    return result;
}

bool underTest(const Case& c, const int order[3], float scale)
{
    const kxBBox box(Wm4::Vector3<float>(c.lo[0] * scale, c.lo[1] * scale, c.lo[2] * scale),
                     Wm4::Vector3<float>(c.hi[0] * scale, c.hi[1] * scale, c.hi[2] * scale));
    Wm4::Vector3<float> v[3];
    for (int i = 0; i < 3; ++i)
        v[i] = Wm4::Vector3<float>(c.v[order[i]][0] * scale, c.v[order[i]][1] * scale, c.v[order[i]][2] * scale);
    return box.overlapsTriangle(v[0], v[1], v[2]);
}

class CaseGenerator
{
public:
    explicit CaseGenerator(unsigned seed) : mRng(seed) {}

    Case next(int kind)
    {
        for (;;)
        {
            Case c = make(kind);
            bool inRange = true;
            for (const auto& v : c.v)
                for (int x : v)
                    inRange &= x >= -32 && x <= 32;
            if (inRange)
                return c;
        }
    }

private:
    int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(mRng); }

    Case make(int kind)
    {
        Case c{};
        for (int a = 0; a < 3; ++a)
        {
            c.lo[a] = uniform(-6, 6);
            // Flat boxes now and then.
            c.hi[a] = c.lo[a] + (uniform(0, 9) == 0 ? 0 : uniform(1, 8));
        }
        switch (kind)
        {
        case 0: // anywhere around the box
            for (auto& v : c.v)
                for (int& x : v)
                    x = uniform(-14, 14);
            break;
        case 1: // coordinates snapped to the box's planes: faces, edges and corners touch
            for (auto& v : c.v)
                for (int a = 0; a < 3; ++a)
                {
                    const int pick = uniform(0, 3);
                    v[a] = pick == 0 ? c.lo[a] : pick == 1 ? c.hi[a] : uniform(-14, 14);
                }
            break;
        case 2: // in the plane of a face, or one unit off it
        {
            const int a = uniform(0, 2);
            const int plane = (uniform(0, 1) ? c.hi[a] : c.lo[a]) + uniform(-1, 1);
            for (auto& v : c.v)
                for (int b = 0; b < 3; ++b)
                    v[b] = b == a ? plane : uniform(-14, 14);
            break;
        }
        case 3: // points and segments, collinear triples
        {
            for (int a = 0; a < 3; ++a)
                c.v[0][a] = uniform(c.lo[a] - 4, c.hi[a] + 4);
            const int dir[3] = {uniform(-3, 3), uniform(-3, 3), uniform(-3, 3)};
            const int k1 = uniform(0, 4), k2 = uniform(-4, 4);
            for (int a = 0; a < 3; ++a)
            {
                c.v[1][a] = c.v[0][a] + k1 * dir[a];
                c.v[2][a] = c.v[0][a] + k2 * dir[a];
            }
            break;
        }
        default: // a diagonal plane through or just beside a box corner
        {
            const int n[3] = {uniform(0, 1) ? 1 : -1, uniform(0, 1) ? 1 : -1, uniform(0, 1) ? 1 : -1};
            int corner = 0;
            for (int a = 0; a < 3; ++a)
                corner += n[a] * (n[a] > 0 ? c.hi[a] : c.lo[a]);
            const int level = corner + uniform(-1, 1);
            const int solveFor = uniform(0, 2);
            for (auto& v : c.v)
            {
                int rest = level;
                for (int a = 0; a < 3; ++a)
                    if (a != solveFor)
                    {
                        v[a] = uniform(-16, 16);
                        rest -= n[a] * v[a];
                    }
                v[solveFor] = rest * n[solveFor];
            }
            break;
        }
        }
        return c;
    }

    std::mt19937 mRng;
};
} // namespace

TEST(BBoxOverlap, MatchesExactReferencesOnTheGridInEveryVertexOrderAndScale)
{
    const int orders[6][3] = {{0, 1, 2}, {1, 2, 0}, {2, 0, 1}, {0, 2, 1}, {2, 1, 0}, {1, 0, 2}};
    // Powers of two keep every operation exact.
    const float scales[3] = {1.0f, 0.0009765625f, 4096.0f};
    CaseGenerator generate(20240229);
    int overlapping = 0, touching = 0, planeOnly = 0, degenerate = 0, degenerateOverlapping = 0, failures = 0;
    const int casesPerKind = 20000;
    for (int kind = 0; kind < 5; ++kind)
        for (int i = 0; i < casesPerKind; ++i)
        {
            const Case c = generate.next(kind);
            const Classification exact = classify(c);
            ASSERT_EQ(clippedTriangleIsNonEmpty(c), exact.overlaps) << "references disagree";
            overlapping += exact.overlaps;
            touching += exact.touching;
            planeOnly += exact.onlyThePlaneSeparates;
            degenerate += exact.degenerate;
            degenerateOverlapping += exact.degenerate && exact.overlaps;
            for (const auto& order : orders)
                for (float scale : scales)
                    if (underTest(c, order, scale) != exact.overlaps && ++failures <= 10)
                        ADD_FAILURE() << "kind " << kind << " box (" << c.lo[0] << ',' << c.lo[1] << ','
                                      << c.lo[2] << ")-(" << c.hi[0] << ',' << c.hi[1] << ',' << c.hi[2]
                                      << ") triangle (" << c.v[0][0] << ',' << c.v[0][1] << ',' << c.v[0][2]
                                      << ") (" << c.v[1][0] << ',' << c.v[1][1] << ',' << c.v[1][2] << ") ("
                                      << c.v[2][0] << ',' << c.v[2][1] << ',' << c.v[2][2] << ") order "
                                      << order[0] << order[1] << order[2] << " scale " << scale
                                      << ": expected " << exact.overlaps;
        }
    EXPECT_EQ(failures, 0);
    // The generator must reach the cases that matter, or the comparison proves little.
    const int total = 5 * casesPerKind;
    EXPECT_GT(overlapping, total / 5);
    EXPECT_LT(overlapping, total * 4 / 5);
    EXPECT_GT(touching, 5000);
    EXPECT_GT(planeOnly, 1000);
    EXPECT_GT(degenerate, 15000);
    EXPECT_GT(degenerateOverlapping, 1500);
}

TEST(BBoxOverlap, TouchingIsOverlapAndOneStepAwayIsNot)
{
    const kxBBox box(Wm4::Vector3<float>(0.0f, 0.0f, 0.0f), Wm4::Vector3<float>(1.0f, 1.0f, 1.0f));
    using V = Wm4::Vector3<float>;
    // On the face x = 1, and just beyond it.
    EXPECT_TRUE(box.overlapsTriangle(V(1.0f, -1.0f, -1.0f), V(1.0f, 3.0f, -1.0f), V(1.0f, -1.0f, 3.0f)));
    EXPECT_FALSE(box.overlapsTriangle(V(1.0f + 0x1p-23f, -1.0f, -1.0f), V(1.0f + 0x1p-23f, 3.0f, -1.0f),
                                      V(1.0f + 0x1p-23f, -1.0f, 3.0f)));
    // Touching only the corner (1, 1, 1) with a vertex, and with the plane x + y + z = 3.
    EXPECT_TRUE(box.overlapsTriangle(V(1.0f, 1.0f, 1.0f), V(2.0f, 1.0f, 1.0f), V(1.0f, 2.0f, 1.0f)));
    EXPECT_TRUE(box.overlapsTriangle(V(3.0f, 0.0f, 0.0f), V(0.0f, 3.0f, 0.0f), V(0.0f, 0.0f, 3.0f)));
    // A degenerate triangle: a point inside, a point outside, a segment crossing the box.
    EXPECT_TRUE(box.overlapsTriangle(V(0.5f, 0.5f, 0.5f), V(0.5f, 0.5f, 0.5f), V(0.5f, 0.5f, 0.5f)));
    EXPECT_FALSE(box.overlapsTriangle(V(2.0f, 0.5f, 0.5f), V(2.0f, 0.5f, 0.5f), V(2.0f, 0.5f, 0.5f)));
    EXPECT_TRUE(box.overlapsTriangle(V(-1.0f, 0.5f, 0.5f), V(2.0f, 0.5f, 0.5f), V(2.0f, 0.5f, 0.5f)));
}

TEST(BBoxOverlap, APlanePassingBesideTheCornerIsRejectedByThePlaneTestAlone)
{
    // x + y + z = 3.25 misses the unit box's corner (1, 1, 1), but the triangle spans the box
    // on every face normal and on every edge cross product.
    const Case c{{{13, 0, 0}, {0, 13, 0}, {0, 0, 13}}, {0, 0, 0}, {4, 4, 4}};
    const Classification exact = classify(c);
    ASSERT_TRUE(exact.onlyThePlaneSeparates);
    const kxBBox box(Wm4::Vector3<float>(0.0f, 0.0f, 0.0f), Wm4::Vector3<float>(1.0f, 1.0f, 1.0f));
    using V = Wm4::Vector3<float>;
    EXPECT_FALSE(box.overlapsTriangle(V(3.25f, 0.0f, 0.0f), V(0.0f, 3.25f, 0.0f), V(0.0f, 0.0f, 3.25f)));
    EXPECT_TRUE(box.overlapsTriangle(V(2.75f, 0.0f, 0.0f), V(0.0f, 2.75f, 0.0f), V(0.0f, 0.0f, 2.75f)));
}
