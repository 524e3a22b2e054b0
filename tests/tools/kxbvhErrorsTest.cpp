// What a user sees when something is wrong: one line naming the culprit and an exit
// status a script can test (2 bad input, 1 unwritable output, 130 Ctrl-C).
#include "kxbvhTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace kxbvhtest;

namespace
{
void expectOneErrorLine(const ToolResult& run, int status, const std::string& culprit, const std::string& reason)
{
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_EQ(run.err.rfind("kxbvh: error: ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find(culprit), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(reason), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
}
} // namespace

TEST(KxbvhErrors, BadMeshFilesAreNamedAndRejectedWithStatus2ByEveryCommand)
{
    TempDir dir;
    const struct
    {
        const char* name;
        const char* reason;
        std::string content;
        bool exists = true;
    } cases[] = {{"missing.obj", "No such file or directory", "", false},
                 {"", "is a directory", "", false},
                 {"lines.obj", "contains no triangles", "v 0 0 0\nv 1 0 0\nv 0 1 0\nl 1 2\nl 2 3\n"},
                 {"points.obj", "contains no triangles", "v 0 0 0\nv 1 0 0\n"},
                 {"nan.obj", "not all finite numbers: (nan, 1, 1)",
                  "v 0 0 0\nv 1 0 0\nv 0 1 0\nv nan 1 1\nf 1 2 3\nf 2 3 4\n"},
                 {"bad-index.obj", "cannot read", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n"},
                 {"noise.stl", "cannot read", std::string("\x01\x02 not a mesh \xff\xfe", 17)},
                 {"header.ply", "not a valid PLY file",
                  "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nbogus\n"},
                 {"empty.obj", "is empty", ""}};
    for (const auto& c : cases)
    {
        const std::string file = dir.file(c.name);
        if (c.exists)
            writeText(file, c.content);
        expectOneErrorLine(runTool({"info", file}), 2, file, c.reason);
        expectOneErrorLine(runTool({"bench", file}), 2, file, c.reason);
        expectOneErrorLine(runTool({"render", file, "-o", dir.file("x.png")}), 2, file, c.reason);
        expectOneErrorLine(runTool({"cull", file, "-o", dir.file("x.png")}), 2, file, c.reason);
    }
}

TEST(KxbvhErrors, BadOptionValuesAreNamedAndRejectedWithStatus2)
{
    TempDir dir;
    writeMesh(*quad(0, 0, 1, 1, 0), dir.file("quad.obj"));
    const std::string quadFile = dir.file("quad.obj"), png = dir.file("x.png");
    const struct
    {
        std::vector<std::string> args;
        const char* culprit;
        const char* reason;
    } cases[] = {{{"render", "--width", "0"}, "--width", ""},
                 {{"render", "--height", "many"}, "--height", ""},
                 {{"cull", "--tile", "0"}, "--tile", ""},
                 {{"info", "--leaf", "0"}, "--leaf", ""},
                 {{"info", "--builder", "fast"}, "--builder", ""},
                 {{"render", "--shade", "phong"}, "--shade", ""},
                 {{"render", "--side", "left"}, "--side", ""},
                 {{"render", "--view", "1,2"}, "--view", ""},
                 {{"render", "--at", "1,2,x"}, "--at", ""},
                 {{"render", "--fov", "180"}, "--fov", ""},
                 {{"info", "--triangles", "5"}, "--triangles", ""},
                 {{"bench", "--repeat", "0"}, "--repeat", ""},
                 {{"render", "--threads", "-1"}, "--threads", ""},
                 {{"--progress", "sometimes", "info"}, "--progress", ""},
                 {{"info", "--no-such-option"}, "--no-such-option", ""},
                 {{"info", "--leaf", "2", "--builder", "sah"}, "--leaf", ""},
                 {{"info", quadFile, "--triangles", "1000"}, "--triangles", ""},
                 {{"render", quadFile, "--view", "1,1,1", "--at", "1,1,1", "-o", png}, "--view", "same point"},
                 {{"render", quadFile, "--view", "0,5,0", "--at", "0,0,0", "-o", png}, "--up", "parallel"}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        expectOneErrorLine(runTool(c.args), 2, c.culprit, c.reason);
    }
    const ToolResult unknown = runTool({"frobnicate"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("frobnicate"), std::string::npos) << unknown.err;
}

TEST(KxbvhErrors, AnUnwritablePictureFailsWithStatus1)
{
    TempDir dir;
    writeMesh(*quad(0, 0, 1, 1, 0), dir.file("quad.obj"));
    for (const char* command : {"render", "cull"})
        for (const auto& [output, reason] : {std::pair<std::string, const char*>{dir.file("no/such/out.png"),
                                                                                "No such file or directory"},
                                             {dir.file(""), "is a directory"}})
            expectOneErrorLine(runTool({command, dir.file("quad.obj"), "-o", output}), 1, output, reason);
}

TEST(KxbvhErrors, CtrlCDuringABuildCancelsItWithStatus130)
{
    // Large enough that the build is still running when the signal arrives.
    const ToolResult run =
        runTool({"--progress", "always", "info", "--triangles", "8000000"}, "building the BVH");
    EXPECT_EQ(run.status, 130) << run.err;
    EXPECT_NE(run.err.find("kxbvh: cancelled while building the BVH\n"), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
}
