#include "kxBBox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <type_traits>

namespace
{
uint32_t bitsOf(float v)
{
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

kxBBox boxWithExtents(float ex, float ey, float ez)
{
    return kxBBox(Wm4::Vector3<float>(1.0f, -2.0f, 3.0f), Wm4::Vector3<float>(1.0f + ex, -2.0f + ey, 3.0f + ez));
}

// Written as "largest value, then the preferred axis among equals": y, then z, then x.
kxBBox::tAxis preferredAmong(const float e[3], bool largest)
{
    float best = e[0];
    for (int i = 1; i < 3; ++i)
        if (largest ? e[i] > best : e[i] < best)
            best = e[i];
    if (e[1] == best)
        return kxBBox::eAxisY;
    if (e[2] == best)
        return kxBBox::eAxisZ;
    return kxBBox::eAxisX;
}
} // namespace

TEST(BBox, LayoutIsSixFloatsMinimaThenMaxima)
{
    static_assert(std::is_standard_layout<kxBBox>::value, "kxBBox is embedded word for word");
    EXPECT_EQ(sizeof(kxBBox), 6 * sizeof(float));
    EXPECT_EQ(offsetof(kxBBox, min), 0u);
    EXPECT_EQ(offsetof(kxBBox, max), 3 * sizeof(float));
    EXPECT_EQ(sizeof(kxBBox2D), 4 * sizeof(float));
    EXPECT_EQ(offsetof(kxBBox2D, max), 2 * sizeof(float));
    EXPECT_EQ(kxBBox::eAxisX, 0u);
    EXPECT_EQ(kxBBox::eAxisY, 0x40000000u);
    EXPECT_EQ(kxBBox::eAxisZ, 0x80000000u);
}

TEST(BBox, EmptyBoxHasInfinityBitPatternsAndNegativeInfiniteExtents)
{
    const kxBBox box;
    for (int a = 0; a < 3; ++a)
    {
        EXPECT_EQ(bitsOf(box.min[a]), 0x7F800000u);
        EXPECT_EQ(bitsOf(box.max[a]), 0xFF800000u);
    }
    for (kxBBox::tAxis a : {kxBBox::eAxisX, kxBBox::eAxisY, kxBBox::eAxisZ})
        EXPECT_EQ(bitsOf(box.getExtent(a)), 0xFF800000u);

    const kxBBox2D flat;
    for (int a = 0; a < 2; ++a)
    {
        EXPECT_EQ(bitsOf(flat.min[a]), 0x7F800000u);
        EXPECT_EQ(bitsOf(flat.max[a]), 0xFF800000u);
    }
}

TEST(BBox, ExtendingTheEmptyBoxMatchesComponentwiseMinAndMax)
{
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> coord(-100.0f, 100.0f);
    for (int round = 0; round < 200; ++round)
    {
        kxBBox byPoints, byBoxes;
        float lo[3], hi[3];
        const int n = 1 + round % 9;
        for (int i = 0; i < n; ++i)
        {
            const Wm4::Vector3<float> p(coord(rng), coord(rng), coord(rng));
            byPoints.extend(p);
            byBoxes.extend(kxBBox(p, p));
            for (int a = 0; a < 3; ++a)
            {
                lo[a] = i == 0 ? p[a] : std::min(lo[a], p[a]);
                hi[a] = i == 0 ? p[a] : std::max(hi[a], p[a]);
            }
            if (i == 0)
            {
                EXPECT_EQ(byPoints, kxBBox(p, p)) << "the first point must give exactly that point";
            }
        }
        for (int a = 0; a < 3; ++a)
        {
            EXPECT_EQ(byPoints.min[a], lo[a]);
            EXPECT_EQ(byPoints.max[a], hi[a]);
        }
        EXPECT_EQ(byPoints, byBoxes);
    }

    kxBBox2D flat;
    flat.extend(Wm4::Vector2<float>(3.0f, -1.0f));
    flat.extend(Wm4::Vector2<float>(-2.0f, 4.0f));
    kxBBox2D merged;
    merged.extend(flat);
    EXPECT_EQ(merged, kxBBox2D(Wm4::Vector2<float>(-2.0f, -1.0f), Wm4::Vector2<float>(3.0f, 4.0f)));
}

TEST(BBox, ExtentQueriesBreakTiesYBeforeZBeforeX)
{
    // Every ordering of three extents drawn from {1, 2, 3}, ties included.
    for (int i = 0; i < 27; ++i)
    {
        const float e[3] = {float(1 + i % 3), float(1 + (i / 3) % 3), float(1 + i / 9)};
        const kxBBox box = boxWithExtents(e[0], e[1], e[2]);
        kxBBox::tAxis axis = kxBBox::eAxisX;
        const float largest = box.getMaxExtent(axis);
        EXPECT_EQ(axis, preferredAmong(e, true)) << e[0] << ' ' << e[1] << ' ' << e[2];
        EXPECT_EQ(largest, std::max({e[0], e[1], e[2]}));
        const float smallest = box.getMinExtent(axis);
        EXPECT_EQ(axis, preferredAmong(e, false)) << e[0] << ' ' << e[1] << ' ' << e[2];
        EXPECT_EQ(smallest, std::min({e[0], e[1], e[2]}));

        EXPECT_EQ(box.getExtent(kxBBox::eAxisX), e[0]);
        EXPECT_EQ(box.getExtent(kxBBox::eAxisY), e[1]);
        EXPECT_EQ(box.getExtent(kxBBox::eAxisZ), e[2]);
        // Any value other than the x and y enumerators selects z.
        EXPECT_EQ(box.getExtent(static_cast<kxBBox::tAxis>(0xC0000000u)), e[2]);
        EXPECT_EQ(box.getExtent(static_cast<kxBBox::tAxis>(1u)), e[2]);
    }
}

TEST(BBox, CentreFormulasOf3DAnd2DBoxesRoundDifferently)
{
    // -1 + 16777218 = 16777217 rounds to 16777216 in float, so half the sum is 8388608;
    // 16777218 - (-1) = 16777219 rounds to 16777220, so minimum plus half the extent is
    // 8388609. The exact centre, 8388608.5, lies between them.
    const kxBBox box(Wm4::Vector3<float>(-1.0f, -1.0f, 2.0f), Wm4::Vector3<float>(16777218.0f, 16777218.0f, 6.0f));
    const Wm4::Vector3<float> c3 = box.getCenter();
    EXPECT_EQ(c3[0], 8388608.0f);
    EXPECT_EQ(c3[1], 8388608.0f);
    EXPECT_EQ(c3[2], 4.0f);

    const kxBBox2D flat(Wm4::Vector2<float>(-1.0f, 2.0f), Wm4::Vector2<float>(16777218.0f, 6.0f));
    const Wm4::Vector2<float> c2 = flat.getCenter();
    EXPECT_EQ(c2[0], 8388609.0f);
    EXPECT_EQ(c2[1], 4.0f);
}

TEST(BBox, ConvertGivesTheCentreUnitAxesAndHalfExtents)
{
    const kxBBox box(Wm4::Vector3<float>(-1.0f, 2.0f, 10.0f), Wm4::Vector3<float>(3.0f, 2.5f, 40.0f));
    const Wm4::Box3<float> oriented = box.convert();
    EXPECT_EQ(oriented.Center, Wm4::Vector3<float>(1.0f, 2.25f, 25.0f));
    EXPECT_EQ(oriented.Axis[0], Wm4::Vector3<float>(1.0f, 0.0f, 0.0f));
    EXPECT_EQ(oriented.Axis[1], Wm4::Vector3<float>(0.0f, 1.0f, 0.0f));
    EXPECT_EQ(oriented.Axis[2], Wm4::Vector3<float>(0.0f, 0.0f, 1.0f));
    EXPECT_EQ(oriented.Extent[0], 2.0f);
    EXPECT_EQ(oriented.Extent[1], 0.25f);
    EXPECT_EQ(oriented.Extent[2], 15.0f);
}

TEST(BBox, SplittingClipsOneAxisAndNeverChecksThePlane)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> coord(-10.0f, 10.0f);
    const kxBBox::tAxis axes[3] = {kxBBox::eAxisX, kxBBox::eAxisY, kxBBox::eAxisZ};
    for (int round = 0; round < 300; ++round)
    {
        kxBBox box;
        box.extend(Wm4::Vector3<float>(coord(rng), coord(rng), coord(rng)));
        box.extend(Wm4::Vector3<float>(coord(rng), coord(rng), coord(rng)));
        const int c = round % 3;
        // Planes inside and outside the box, and on its faces.
        float p = coord(rng) * 1.5f;
        if (round % 7 == 0)
            p = box.min[c];
        if (round % 7 == 1)
            p = box.max[c];

        const kxBBox left = box.splitLeft(axes[c], p);
        const kxBBox right = box.splitRight(axes[c], p);
        kxBBox clipped = box;
        const kxBBox returned = clipped.split(axes[c], p);
        EXPECT_EQ(clipped, left);
        EXPECT_EQ(returned, right);

        for (int a = 0; a < 3; ++a)
        {
            EXPECT_EQ(left.min[a], box.min[a]);
            EXPECT_EQ(right.max[a], box.max[a]);
            EXPECT_EQ(left.max[a], a == c ? std::min(box.max[a], p) : box.max[a]);
            EXPECT_EQ(right.min[a], a == c ? std::max(box.min[a], p) : box.min[a]);
        }
    }

    // A plane below the box: this box keeps a negative extent, the returned part is the
    // unchanged box.
    const kxBBox unit(Wm4::Vector3<float>(0.0f, 0.0f, 0.0f), Wm4::Vector3<float>(1.0f, 1.0f, 1.0f));
    kxBBox box = unit;
    const kxBBox right = box.split(kxBBox::eAxisY, -2.0f);
    EXPECT_EQ(right, unit);
    EXPECT_EQ(box.max[1], -2.0f);
    EXPECT_EQ(box.getExtent(kxBBox::eAxisY), -2.0f);
}

TEST(BBox, StreamsMinimumThenMaximum)
{
    std::ostringstream out;
    out << kxBBox(Wm4::Vector3<float>(1.0f, 2.0f, 3.0f), Wm4::Vector3<float>(4.0f, 5.5f, 6.0f)) << ' '
        << kxBBox2D(Wm4::Vector2<float>(-1.0f, 0.0f), Wm4::Vector2<float>(2.0f, 3.0f));
    EXPECT_EQ(out.str(), "(1,2,3)(4,5.5,6) (-1,0)(2,3)");
}
