// What a user sees when something is wrong: one line naming the culprit and an exit
// status a script can test (2 bad input, 1 unwritable output, 130 Ctrl-C).
#include "kxbvhTestSupport.h"

#include <kxCommonAddOnsVersion.h>

#include <gtest/gtest.h>

#include <algorithm>

using namespace kxbvhtest;

namespace
{
int lineCount(const std::string& text)
{
    return int(std::count(text.begin(), text.end(), '\n'));
}

void expectOneErrorLine(const ToolResult& run, int status, const std::string& culprit, const std::string& reason)
{
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_EQ(lineCount(run.err), 1) << run.err;
    EXPECT_EQ(run.err.rfind("kxbvh: error: ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find(culprit), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(reason), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
}
} // namespace

TEST(KxbvhErrors, BadMeshFilesAreNamedAndRejectedWithStatus2)
{
    TempDir dir;
    const std::string missing = dir.file("missing.obj");
    writeText(dir.file("lines.obj"), "v 0 0 0\nv 1 0 0\nv 0 1 0\nl 1 2\nl 2 3\n");
    writeText(dir.file("points.obj"), "v 0 0 0\nv 1 0 0\n");
    writeText(dir.file("nan.obj"), "v 0 0 0\nv 1 0 0\nv 0 1 0\nv nan 1 1\nf 1 2 3\nf 2 3 4\n");
    writeText(dir.file("bad-index.obj"), "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n");
    writeText(dir.file("noise.stl"), std::string("\x01\x02 not a mesh \xff\xfe", 17));
    writeText(dir.file("header.ply"), "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nbogus\n");
    writeText(dir.file("empty.obj"), "");

    const struct
    {
        std::string file;
        std::string reason;
    } cases[] = {{missing, "No such file or directory"},
                 {dir.file(""), "is a directory"},
                 {dir.file("lines.obj"), "contains no triangles"},
                 {dir.file("points.obj"), "contains no triangles"},
                 {dir.file("nan.obj"), "not all finite numbers: (nan, 1, 1)"},
                 {dir.file("bad-index.obj"), "cannot read"},
                 {dir.file("noise.stl"), "cannot read"},
                 {dir.file("header.ply"), "not a valid PLY file"},
                 {dir.file("empty.obj"), "is empty"}};
    for (const auto& c : cases)
    {
        expectOneErrorLine(runTool({"info", c.file}), 2, c.file, c.reason);
        expectOneErrorLine(runTool({"bench", c.file}), 2, c.file, c.reason);
        expectOneErrorLine(runTool({"render", c.file, "-o", dir.file("x.png")}), 2, c.file, c.reason);
        expectOneErrorLine(runTool({"cull", c.file, "-o", dir.file("x.png")}), 2, c.file, c.reason);
    }
}

TEST(KxbvhErrors, BadOptionValuesAreNamedAndRejectedWithStatus2)
{
    const std::vector<std::vector<std::string>> cases{
        {"render", "--width", "0"},          {"render", "--height", "many"},     {"cull", "--tile", "0"},
        {"info", "--leaf", "0"},             {"info", "--builder", "fast"},      {"render", "--shade", "phong"},
        {"render", "--side", "left"},        {"render", "--view", "1,2"},        {"render", "--at", "1,2,x"},
        {"render", "--fov", "180"},          {"info", "--triangles", "5"},       {"bench", "--repeat", "0"},
        {"render", "--threads", "-1"},       {"--progress", "sometimes", "info"}, {"info", "--no-such-option"},
        {"info", "--leaf", "2", "--builder", "sah"}};
    for (const auto& args : cases)
    {
        SCOPED_TRACE(args[0] + " " + args[1]);
        const std::string option = args[0].rfind("--", 0) == 0 ? args[0] : args[1];
        expectOneErrorLine(runTool(args), 2, option, "");
    }
    const ToolResult unknown = runTool({"frobnicate"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("frobnicate"), std::string::npos) << unknown.err;

    TempDir dir;
    writeObj(quad(0, 0, 1, 1, 0), dir.file("quad.obj"));
    expectOneErrorLine(runTool({"render", dir.file("quad.obj"), "--view", "1,1,1", "--at", "1,1,1", "-o",
                                dir.file("x.png")}),
                       2, "--view", "same point");
    expectOneErrorLine(runTool({"render", dir.file("quad.obj"), "--view", "0,5,0", "--at", "0,0,0", "-o",
                                dir.file("x.png")}),
                       2, "--up", "parallel");
    expectOneErrorLine(runTool({"info", dir.file("quad.obj"), "--triangles", "1000"}), 2, "--triangles", "");
}

TEST(KxbvhErrors, AnUnwritablePictureFailsWithStatus1BeforeAnyWork)
{
    TempDir dir;
    writeObj(quad(0, 0, 1, 1, 0), dir.file("quad.obj"));
    for (const char* command : {"render", "cull"})
    {
        SCOPED_TRACE(command);
        const std::string inMissingFolder = dir.file("no/such/folder/out.png");
        expectOneErrorLine(runTool({command, dir.file("quad.obj"), "-o", inMissingFolder}), 1, inMissingFolder,
                           "No such file or directory");
        expectOneErrorLine(runTool({command, dir.file("quad.obj"), "-o", dir.file("")}), 1, dir.file(""),
                           "is a directory");
    }
}

TEST(KxbvhErrors, CtrlCDuringABuildCancelsItWithStatus130)
{
    // Large enough that the build is still running when the signal arrives.
    const ToolResult run = interruptToolWhen({"--progress", "always", "info", "--triangles", "8000000"},
                                             "building the BVH");
    EXPECT_EQ(run.status, 130) << run.err;
    EXPECT_NE(run.err.find("kxbvh: cancelled while building the BVH\n"), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
}

TEST(KxbvhErrors, HelpAndVersionAnswerWithStatus0)
{
    const ToolResult version = runTool({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out,
              std::string("kxbvh ") + kxCommonAddOns::Version::GetDescStringMajorMinorReleaseRevisionDate() + "\n");

    const struct
    {
        const char* command;
        std::vector<const char*> options;
    } commands[] = {{"info", {"--builder", "--leaf", "--json", "--triangles"}},
                    {"render", {"--output", "--width", "--view", "--at", "--shade", "--side", "--threads"}},
                    {"cull", {"--output", "--tile", "--view"}},
                    {"bench", {"--repeat", "--threads", "--json"}}};
    for (const auto& c : commands)
    {
        const ToolResult help = runTool({c.command, "--help"});
        EXPECT_EQ(help.status, 0) << c.command;
        for (const char* option : c.options)
            EXPECT_NE(help.out.find(option), std::string::npos) << c.command << " --help lacks " << option;
    }
    const ToolResult top = runTool({"--help"});
    EXPECT_EQ(top.status, 0);
    for (const char* command : {"info", "render", "cull", "bench"})
        EXPECT_NE(top.out.find(command), std::string::npos) << command;
}
