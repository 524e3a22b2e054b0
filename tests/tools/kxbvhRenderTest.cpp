// kxbvh render and cull on scenes whose picture is known in advance.
#include "kxbvhTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

using namespace kxbvhtest;

namespace
{
constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr float kDistance = 4.0f;

/// Where a point of the plane z = 0 lands in a picture taken from (0, 0, kDistance)
/// towards the origin with a 40 degree vertical field of view, y up.
float pictureX(float x)
{
    const float halfWidth = kDistance * std::tan(20.0f * 3.14159265f / 180.0f) * kWidth / kHeight;
    return 0.5f * kWidth * (1.0f + x / halfWidth);
}
float pictureY(float y)
{
    const float halfHeight = kDistance * std::tan(20.0f * 3.14159265f / 180.0f);
    return 0.5f * kHeight * (1.0f - y / halfHeight);
}

const std::vector<std::string> kFacingCamera{"--view",  "0,0,4", "--at", "0,0,0", "--fov", "40", "--width",
                                             std::to_string(kWidth), "--height", std::to_string(kHeight)};

// Off-centre, so that a mirrored or flipped picture cannot pass.
constexpr float kLeft = -1.5f, kRight = 0.5f, kBottom = -0.5f, kTop = 1.0f;

std::vector<std::string> with(std::vector<std::string> args, const std::vector<std::string>& more)
{
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

Png render(const std::string& mesh, const std::string& png, const std::vector<std::string>& extra)
{
    const ToolResult run = runTool(with(with({"render", mesh, "-o", png}, kFacingCamera), extra));
    EXPECT_EQ(run.status, 0) << run.err;
    return readPng(png);
}
} // namespace

TEST(KxbvhRender, AQuadFacingTheCameraCoversExactlyItsProjection)
{
    TempDir dir;
    writeObj(quad(kLeft, kBottom, kRight, kTop, 0.0f), dir.file("quad.obj"));
    const float x0 = pictureX(kLeft), x1 = pictureX(kRight), y0 = pictureY(kTop), y1 = pictureY(kBottom);
    const float margin = 0.02f;

    for (const char* side : {"all", "front"})
    {
        SCOPED_TRACE(side);
        const Png png = render(dir.file("quad.obj"), dir.file("quad.png"), {"--side", side});
        ASSERT_EQ(png.width, kWidth);
        ASSERT_EQ(png.height, kHeight);
        int inside = 0;
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
            {
                const float cx = x + 0.5f, cy = y + 0.5f;
                const bool in = cx > x0 + margin && cx < x1 - margin && cy > y0 + margin && cy < y1 - margin;
                const bool out = cx < x0 - margin || cx > x1 + margin || cy < y0 - margin || cy > y1 + margin;
                if (in)
                {
                    ++inside;
                    ASSERT_EQ(png.at(x, y)[3], 255) << "missed inside at " << x << "," << y;
                    // Normal shading: the facing normal is +z, so blue is twice red and green.
                    const uint8_t* p = png.at(x, y);
                    EXPECT_EQ(p[0], p[1]);
                    EXPECT_NEAR(p[2], 2 * p[0], 2);
                    EXPECT_GT(p[2], 200);
                }
                if (out)
                {
                    ASSERT_EQ(png.at(x, y)[3], 0) << "hit outside at " << x << "," << y;
                }
            }
        EXPECT_GT(inside, 3000);
    }

    // The quad winds counter-clockwise towards the camera: its back is never seen.
    const Png back = render(dir.file("quad.obj"), dir.file("back.png"), {"--side", "back"});
    ASSERT_EQ(back.width, kWidth);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(back.at(x, y)[3], 0) << x << "," << y;
}

TEST(KxbvhRender, DepthShadingDarkensWithDistance)
{
    TempDir dir;
    const TriangleSoup floor{{{-3, -1, 2}, {3, -1, 2}, {3, -1, -20}, {-3, -1, -20}}, {0, 1, 2, 0, 2, 3}};
    writeObj(floor, dir.file("floor.obj"));
    const ToolResult run = runTool({"render", dir.file("floor.obj"), "-o", dir.file("floor.png"), "--shade", "depth",
                                    "--view", "0,0.5,4", "--at", "0,-1,-6", "--width", "64", "--height", "64"});
    ASSERT_EQ(run.status, 0) << run.err;
    const Png png = readPng(dir.file("floor.png"));
    ASSERT_EQ(png.width, 64);
    int previous = 256, nearest = -1, farthest = -1;
    for (int y = png.height - 1; y >= 0; --y)
    {
        const uint8_t* pixel = png.at(32, y);
        if (!pixel[3])
            continue;
        EXPECT_EQ(pixel[0], pixel[1]);
        EXPECT_EQ(pixel[1], pixel[2]);
        EXPECT_LE(pixel[0], previous) << "row " << y << " is brighter than the nearer row below it";
        previous = pixel[0];
        if (nearest < 0)
            nearest = pixel[0];
        farthest = pixel[0];
    }
    ASSERT_GE(nearest, 0) << "the floor was not hit";
    EXPECT_GT(nearest - farthest, 60);
}

TEST(KxbvhRender, TheBuiltInScenePicturesSomethingAndSaysHowFast)
{
    TempDir dir;
    const ToolResult run = runTool({"render", "--triangles", "2000", "--width", "64", "--height", "48", "--threads",
                                    "3", "-o", dir.file("scene.png")});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("on 3 threads"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("rays/s"), std::string::npos) << run.out;
    const Png png = readPng(dir.file("scene.png"));
    ASSERT_EQ(png.width, 64);
    ASSERT_EQ(png.height, 48);
    std::set<uint32_t> colours;
    int hits = 0;
    for (int y = 0; y < png.height; ++y)
        for (int x = 0; x < png.width; ++x)
        {
            const uint8_t* p = png.at(x, y);
            hits += p[3] == 255;
            colours.insert(uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]);
        }
    // The default camera frames the whole scene: much of it is hit, but not every pixel.
    EXPECT_GT(hits, png.width * png.height / 4);
    EXPECT_LT(hits, png.width * png.height);
    EXPECT_GT(colours.size(), 20u);
}

TEST(KxbvhCull, TilesSeeGeometryExactlyWhereTheQuadProjects)
{
    TempDir dir;
    writeObj(quad(kLeft, kBottom, kRight, kTop, 0.0f), dir.file("quad.obj"));
    const int tile = 16;
    const ToolResult run =
        runTool(with(with({"cull", dir.file("quad.obj"), "-o", dir.file("mask.png"), "--tile", std::to_string(tile)},
                          kFacingCamera),
                     {}));
    ASSERT_EQ(run.status, 0) << run.err;
    const Png mask = readPng(dir.file("mask.png"));
    ASSERT_EQ(mask.width, kWidth);
    ASSERT_EQ(mask.height, kHeight);

    const float x0 = pictureX(kLeft), x1 = pictureX(kRight), y0 = pictureY(kTop), y1 = pictureY(kBottom);
    const int columns = (kWidth + tile - 1) / tile, rows = (kHeight + tile - 1) / tile;
    int expected = 0;
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column)
        {
            const int tx0 = column * tile, ty0 = row * tile;
            const int tx1 = std::min(tx0 + tile, kWidth), ty1 = std::min(ty0 + tile, kHeight);
            const bool covered = tx0 < x1 && tx1 > x0 && ty0 < y1 && ty1 > y0;
            expected += covered;
            const uint8_t* centre = mask.at((tx0 + tx1) / 2, (ty0 + ty1) / 2);
            // Tiles that see geometry are veiled in green, the others dimmed.
            if (covered)
            {
                EXPECT_GT(centre[1], 60) << "tile " << column << "," << row << " should see the quad";
            }
            else
            {
                EXPECT_LT(centre[1], 40) << "tile " << column << "," << row << " should see nothing";
            }
        }
    EXPECT_NE(run.out.find(std::to_string(expected) + " of " + std::to_string(columns * rows) + " see geometry"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("queries/s"), std::string::npos) << run.out;
}
