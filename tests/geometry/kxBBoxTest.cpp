#include "kxBBox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>

namespace
{
using V3 = Wm4::Vector3<float>;
using V2 = Wm4::Vector2<float>;
} // namespace

TEST(BBox, ExtendingTheEmptyBoxGivesComponentwiseMinimaAndMaxima)
{
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> coord(-100.0f, 100.0f);
    for (int round = 0; round < 200; ++round)
    {
        kxBBox byPoints, byBoxes, pair;
        kxBBox2D flat, flatByBoxes, flatPair;
        float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
        for (int i = 0; i <= round % 17; ++i)
        {
            const V3 v(coord(rng), coord(rng), coord(rng));
            byPoints.extend(v), pair.extend(v), flat.extend(V2(v[0], v[1])), flatPair.extend(V2(v[0], v[1]));
            for (int a = 0; a < 3; ++a)
                lo[a] = std::min(lo[a], v[a]), hi[a] = std::max(hi[a], v[a]);
            // Boxes of two points each; the last one may stay empty and must change nothing.
            if (i % 2 || i == round % 17)
                byBoxes.extend(pair), flatByBoxes.extend(flatPair), pair = kxBBox(), flatPair = kxBBox2D();
        }
        byBoxes.extend(pair), flatByBoxes.extend(flatPair);
        EXPECT_EQ(byPoints, kxBBox(V3(lo[0], lo[1], lo[2]), V3(hi[0], hi[1], hi[2])));
        EXPECT_EQ(flat, kxBBox2D(V2(lo[0], lo[1]), V2(hi[0], hi[1])));
        EXPECT_TRUE(byBoxes == byPoints && flatByBoxes == flat);
    }
}

TEST(BBox, ExtentQueriesBreakTiesYBeforeZBeforeX)
{
    // Every triple of extents from {1, 2, 3}, ties included.
    for (int i = 0; i < 27; ++i)
    {
        const float e[3] = {float(1 + i % 3), float(1 + (i / 3) % 3), float(1 + i / 9)};
        const kxBBox box(V3(1.0f, -2.0f, 3.0f), V3(1.0f + e[0], -2.0f + e[1], 3.0f + e[2]));
        for (bool largest : {true, false})
        {
            const float best = largest ? std::max({e[0], e[1], e[2]}) : std::min({e[0], e[1], e[2]});
            const kxBBox::tAxis preferred =
                e[1] == best ? kxBBox::eAxisY : e[2] == best ? kxBBox::eAxisZ : kxBBox::eAxisX;
            kxBBox::tAxis axis = kxBBox::eAxisX;
            EXPECT_EQ(largest ? box.getMaxExtent(axis) : box.getMinExtent(axis), best);
            EXPECT_EQ(axis, preferred) << e[0] << ' ' << e[1] << ' ' << e[2] << (largest ? " largest" : " smallest");
        }
        // Any value other than the x and y words selects z.
        EXPECT_EQ(box.getExtent(kxBBox::tAxis(0xC0000000u)), e[2]);
    }
}

TEST(BBox, CentresOf3DAnd2DBoxesRoundDifferently)
{
    // (-1 + 16777218) * 0.5 rounds the sum to 16777216 first; -1 + 16777219 * 0.5 rounds
    // the extent to 16777220. The exact centre 8388608.5 lies between them.
    const kxBBox box(V3(-1.0f, -1.0f, 2.0f), V3(16777218.0f, 16777218.0f, 6.0f));
    EXPECT_EQ(box.getCenter(), V3(8388608.0f, 8388608.0f, 4.0f));
    EXPECT_EQ(kxBBox2D(V2(-1.0f, 2.0f), V2(16777218.0f, 6.0f)).getCenter(), V2(8388609.0f, 4.0f));

    const Wm4::Box3<float> oriented = kxBBox(V3(-1.0f, 2.0f, 10.0f), V3(3.0f, 2.5f, 40.0f)).convert();
    EXPECT_EQ(oriented.Center, V3(1.0f, 2.25f, 25.0f));
    EXPECT_EQ(oriented.Axis[1], V3(0.0f, 1.0f, 0.0f));
    EXPECT_EQ(V3(oriented.Extent[0], oriented.Extent[1], oriented.Extent[2]), V3(2.0f, 0.25f, 15.0f));
}

TEST(BBox, SplittingClipsOneAxisAndNeverChecksThePlane)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> coord(-10.0f, 10.0f);
    for (int round = 0; round < 300; ++round)
    {
        kxBBox box, left, right;
        box.extend(V3(coord(rng), coord(rng), coord(rng)));
        box.extend(V3(coord(rng), coord(rng), coord(rng)));
        const int c = round % 3;
        // Planes inside, outside (leaving a negative extent) and on the faces.
        const float p = round % 7 == 0 ? box.min[c] : round % 7 == 1 ? box.max[c] : coord(rng) * 1.5f;
        left = right = box;
        left.max[c] = std::min(box.max[c], p);
        right.min[c] = std::max(box.min[c], p);
        const kxBBox::tAxis axis = kxBBox::tAxis(uint32_t(c) << 30);
        EXPECT_TRUE(box.splitLeft(axis, p) == left && box.splitRight(axis, p) == right);
        EXPECT_TRUE(box.split(axis, p) == right && box == left);
    }
}

TEST(BBox, StreamsMinimumThenMaximum)
{
    std::ostringstream out;
    out << kxBBox(V3(1.0f, 2.0f, 3.0f), V3(4.0f, 5.5f, 6.0f)) << ' ' << kxBBox2D() << ' '
        << kxBBox2D(V2(-1.0f, 0.0f), V2(2.0f, 3.0f));
    EXPECT_EQ(out.str(), "(1,2,3)(4,5.5,6) (inf,inf)(-inf,-inf) (-1,0)(2,3)");
}
