// kxbvh render and cull on scenes whose picture is known in advance.
#include "kxbvhTestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <set>

using namespace kxbvhtest;

namespace
{
constexpr int kWidth = 160, kHeight = 120;
// A quad off-centre in the plane z = 0, so that a mirrored or flipped picture cannot pass,
// seen from (0, 0, 4) towards the origin with a 40 degree vertical field of view, y up.
constexpr float kLeft = -1.5f, kRight = 0.5f, kBottom = -0.5f, kTop = 1.0f;
const std::vector<std::string> kFacingCamera{"--view",  "0,0,4", "--at", "0,0,0", "--fov", "40", "--width",
                                             std::to_string(kWidth), "--height", std::to_string(kHeight)};

// Where the quad's edges land in the picture: x0, x1, y0 (top), y1 (bottom).
std::array<float, 4> projection()
{
    const float halfHeight = 4.0f * std::tan(20.0f * 3.14159265f / 180.0f), halfWidth = halfHeight * kWidth / kHeight;
    return {0.5f * kWidth * (1.0f + kLeft / halfWidth), 0.5f * kWidth * (1.0f + kRight / halfWidth),
            0.5f * kHeight * (1.0f - kTop / halfHeight), 0.5f * kHeight * (1.0f - kBottom / halfHeight)};
}

ToolResult runFacingQuad(const std::string& command, const TempDir& dir, const std::vector<std::string>& extra)
{
    writeMesh(*quad(kLeft, kBottom, kRight, kTop, 0.0f), dir.file("quad.obj"));
    std::vector<std::string> args{command, dir.file("quad.obj"), "-o", dir.file("out.png")};
    args.insert(args.end(), kFacingCamera.begin(), kFacingCamera.end());
    args.insert(args.end(), extra.begin(), extra.end());
    return runTool(args);
}
} // namespace

TEST(KxbvhRender, AQuadFacingTheCameraCoversExactlyItsProjectionFromTheFront)
{
    TempDir dir;
    const auto [x0, x1, y0, y1] = projection();
    const float margin = 0.02f;
    for (const std::string side : {"all", "front", "back"})
    {
        SCOPED_TRACE(side);
        ASSERT_EQ(runFacingQuad("render", dir, {"--side", side}).status, 0);
        const Png png = readPng(dir.file("out.png"));
        ASSERT_EQ(png.width, kWidth);
        ASSERT_EQ(png.height, kHeight);
        // The quad winds counter-clockwise towards the camera: its back is never seen.
        const bool seen = side != "back";
        int inside = 0;
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
            {
                const float cx = x + 0.5f, cy = y + 0.5f;
                const uint8_t* p = png.at(x, y);
                if (cx > x0 + margin && cx < x1 - margin && cy > y0 + margin && cy < y1 - margin)
                {
                    ++inside;
                    ASSERT_EQ(p[3], seen ? 255 : 0) << "inside at " << x << "," << y;
                    // Normal shading: the facing normal is +z, so blue is twice red and green.
                    if (seen)
                    {
                        EXPECT_EQ(p[0], p[1]);
                        EXPECT_NEAR(p[2], 2 * p[0], 2);
                        EXPECT_GT(p[2], 200);
                    }
                }
                if (cx < x0 - margin || cx > x1 + margin || cy < y0 - margin || cy > y1 + margin)
                {
                    ASSERT_EQ(p[3], 0) << "hit outside at " << x << "," << y;
                }
            }
        EXPECT_GT(inside, 3000);
    }
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
    for (int i = 0; i < 64 * 48; ++i)
    {
        const uint8_t* p = &png.rgba[4 * size_t(i)];
        hits += p[3] == 255;
        colours.insert(uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]);
    }
    // The default camera frames the whole scene: much of it is hit, but not every pixel.
    EXPECT_GT(hits, 64 * 48 / 4);
    EXPECT_LT(hits, 64 * 48);
    EXPECT_GT(colours.size(), 20u);
}

TEST(KxbvhCull, TilesSeeGeometryExactlyWhereTheQuadProjects)
{
    TempDir dir;
    const int tile = 16, columns = (kWidth + tile - 1) / tile, rows = (kHeight + tile - 1) / tile;
    const ToolResult run = runFacingQuad("cull", dir, {"--tile", std::to_string(tile)});
    ASSERT_EQ(run.status, 0) << run.err;
    const Png mask = readPng(dir.file("out.png"));
    ASSERT_EQ(mask.width, kWidth);
    ASSERT_EQ(mask.height, kHeight);
    const auto [x0, x1, y0, y1] = projection();
    int expected = 0;
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column)
        {
            const int tx0 = column * tile, ty0 = row * tile;
            const int tx1 = std::min(tx0 + tile, kWidth), ty1 = std::min(ty0 + tile, kHeight);
            const bool covered = tx0 < x1 && tx1 > x0 && ty0 < y1 && ty1 > y0;
            expected += covered;
            // Tiles that see geometry are veiled in green, the others dimmed.
            const uint8_t green = mask.at((tx0 + tx1) / 2, (ty0 + ty1) / 2)[1];
            EXPECT_TRUE(covered ? green > 60 : green < 40) << "tile " << column << "," << row << ": " << int(green);
        }
    EXPECT_NE(run.out.find(std::to_string(expected) + " of " + std::to_string(columns * rows) + " see geometry"),
              std::string::npos)
        << run.out;
}
