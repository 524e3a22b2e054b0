// kxbvh info against the figures the library computes itself for the same triangles.
#include "kxStandardOutputCapture.h"
#include "kxbvhTestSupport.h"

#include <kxBVHContainers.h>
#include <kxCapturingLog.h>
#include <kxGenericBVHBuilder.h>
#include <kxLinearGenericBVHBuilder.h>
#include <kxQBVH.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>


using namespace kxbvhtest;
using nlohmann::json;

namespace
{
/// What the library says about a hierarchy built over the soup, read the way a client
/// reads it: getBVHInfo with its "max at lvl:" line taken from standard output.
json libraryFigures(const TriangleSoup& soup, const std::string& builder, unsigned leaf)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    const auto mesh = toMesh(soup);
    const kxBVHTriangleContainer container(*mesh);
    kxGenericBVH bvh;
    if (builder == "linear")
    {
        kxLinearGenericBVHBuilder linear;
        linear.setMaxPrimitivesPerLeaf(leaf);
        linear.build(container, bvh, nullptr, 20);
    }
    else
        kxGenericBVHBuilder().build(container, bvh);

    int nodes, leaves, minLeaf, maxLeaf;
    float avgLeaf;
    std::string line;
    {
        const kxStandardOutputCapture printed;
        bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avgLeaf);
        line = printed.text();
    }
    const size_t at = line.find("max at lvl:");
    EXPECT_NE(at, std::string::npos) << line;

    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations), bvh, *mesh);

    json bounds = {{"min", {1e30f, 1e30f, 1e30f}}, {"max", {-1e30f, -1e30f, -1e30f}}};
    for (const Point& p : soup.vertices)
        for (int a = 0; a < 3; ++a)
        {
            bounds["min"][a] = std::min(bounds["min"][a].get<float>(), p[a]);
            bounds["max"][a] = std::max(bounds["max"][a].get<float>(), p[a]);
        }
    return {{"triangles", soup.indices.size() / 3},
            {"bounds", bounds},
            {"nodes", nodes},
            {"leaves", leaves},
            {"min_leaf", minLeaf},
            {"max_leaf", maxLeaf},
            {"avg_leaf", avgLeaf},
            {"largest_leaf_depth", std::stoi(line.substr(at + 11))},
            {"sah_cost", kxComputeSAHCost(bvh)},
            {"memory_bytes", bvh.getMemoryUsed()},
            {"qbvh_nodes", qbvh.getNodeCount()},
            {"qbvh_groups", qbvh.getGroupCount()}};
}

json infoJson(const std::vector<std::string>& args)
{
    const ToolResult run = runTool(args);
    EXPECT_EQ(run.status, 0) << run.err;
    // Standard output must be the JSON object and nothing else.
    return json::parse(run.out);
}

void expectSameFigures(const json& tool, const json& library, const std::string& what)
{
    SCOPED_TRACE(what);
    EXPECT_EQ(tool["mesh"]["triangles"], library["triangles"]);
    for (const char* corner : {"min", "max"})
        for (int a = 0; a < 3; ++a)
            EXPECT_FLOAT_EQ(tool["mesh"]["bounds"][corner][a].get<float>(), library["bounds"][corner][a].get<float>());
    for (const char* field : {"nodes", "leaves", "min_leaf", "max_leaf", "largest_leaf_depth", "memory_bytes"})
        EXPECT_EQ(tool["bvh"][field], library[field]) << field;
    EXPECT_FLOAT_EQ(tool["bvh"]["avg_leaf"].get<float>(), library["avg_leaf"].get<float>());
    EXPECT_DOUBLE_EQ(tool["bvh"]["sah_cost"].get<double>(), library["sah_cost"].get<double>());
    EXPECT_EQ(tool["bvh"]["tree_nodes"].get<int>(), 2 * library["leaves"].get<int>() - 1);
    EXPECT_EQ(tool["qbvh"]["nodes"], library["qbvh_nodes"]);
    EXPECT_EQ(tool["qbvh"]["groups"], library["qbvh_groups"]);
}
} // namespace

TEST(KxbvhInfo, EveryTextFormatGivesTheLibrarysFiguresForTheSameTriangles)
{
    TempDir dir;
    const TriangleSoup soup = randomSoup(300, 7);
    const json expected = libraryFigures(soup, "linear", 4);
    writeObj(soup, dir.file("soup.obj"));
    writePly(soup, dir.file("soup.ply"));
    writeStl(soup, dir.file("soup.stl"));
    writeOff(soup, dir.file("soup.off"));
    for (const char* name : {"soup.obj", "soup.ply", "soup.stl", "soup.off"})
    {
        const json tool = infoJson({"info", dir.file(name), "--json"});
        expectSameFigures(tool, expected, name);
        EXPECT_EQ(tool["mesh"]["vertices"], soup.vertices.size()) << name;
        EXPECT_EQ(tool["build"]["builder"], "linear");
        EXPECT_GT(tool["qbvh"]["memory_bytes"].get<uint64_t>(), 0u);
    }
}

TEST(KxbvhInfo, BuilderAndLeafOptionsReachTheLibrary)
{
    TempDir dir;
    const TriangleSoup soup = randomSoup(900, 11);
    writeObj(soup, dir.file("soup.obj"));
    expectSameFigures(infoJson({"info", dir.file("soup.obj"), "--json", "--builder", "sah"}),
                      libraryFigures(soup, "sah", 4), "sah");
    for (unsigned leaf : {1u, 2u, 7u})
    {
        const json tool = infoJson({"info", dir.file("soup.obj"), "--json", "--leaf", std::to_string(leaf)});
        expectSameFigures(tool, libraryFigures(soup, "linear", leaf), "leaf " + std::to_string(leaf));
        EXPECT_LE(tool["bvh"]["max_leaf"].get<unsigned>(), leaf);
    }
}

TEST(KxbvhInfo, MeshesOfAFileAreMergedWithTheirNodeTransforms)
{
    TempDir dir;
    const TriangleSoup soup = randomSoup(40, 3);
    const std::vector<Placement> placements{{{20.0f, 0.0f, -3.0f}, 1.0f}, {{0.0f, 1.0f, 0.0f}, 2.0f}};
    writeGltf(soup, placements, dir.file("two.gltf"));

    TriangleSoup merged;
    for (const Placement& place : placements)
    {
        const uint32_t base = uint32_t(merged.vertices.size());
        for (const Point& p : soup.vertices)
            merged.vertices.push_back({p[0] * place.scale + place.translation[0], p[1] * place.scale + place.translation[1],
                                       p[2] * place.scale + place.translation[2]});
        for (uint32_t i : soup.indices)
            merged.indices.push_back(base + i);
    }
    expectSameFigures(infoJson({"info", dir.file("two.gltf"), "--json"}), libraryFigures(merged, "linear", 4), "glTF");
}

TEST(KxbvhInfo, TheBuiltInSceneIsTheSameOnEveryRunAndSizedAsAsked)
{
    json first = infoJson({"info", "--triangles", "3000", "--json"});
    json second = infoJson({"info", "--triangles", "3000", "--json"});
    first["mesh"].erase("seconds");
    second["mesh"].erase("seconds");
    EXPECT_EQ(first["mesh"], second["mesh"]);
    EXPECT_EQ(first["bvh"], second["bvh"]);
    EXPECT_EQ(first["qbvh"], second["qbvh"]);
    EXPECT_NEAR(first["mesh"]["triangles"].get<double>(), 3000.0, 300.0);
    EXPECT_EQ(first["mesh"]["source"], "built-in scene");
    const json larger = infoJson({"info", "--triangles", "12000", "--json"});
    EXPECT_NEAR(larger["mesh"]["triangles"].get<double>(), 12000.0, 1200.0);
}

TEST(KxbvhInfo, LibraryLogLinesGoToStandardErrorOnlyWhenVerbose)
{
    const ToolResult quiet = runTool({"info", "--triangles", "500", "--json"});
    ASSERT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_TRUE(json::accept(quiet.out)) << quiet.out;
    EXPECT_EQ(quiet.err.find("kxLinearGenericBVHBuilder"), std::string::npos) << quiet.err;

    const ToolResult verbose = runTool({"info", "--triangles", "500", "--json", "--verbose"});
    ASSERT_EQ(verbose.status, 0) << verbose.err;
    EXPECT_TRUE(json::accept(verbose.out)) << verbose.out;
    EXPECT_NE(verbose.err.find("kxLinearGenericBVHBuilder : allocate"), std::string::npos) << verbose.err;
}
