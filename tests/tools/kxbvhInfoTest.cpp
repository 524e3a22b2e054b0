// kxbvh info and bench against what the library computes itself for the same triangles.
#include "kxStandardOutputCapture.h"
#include "kxbvhTestSupport.h"

#include <kxBVHContainers.h>
#include <kxCapturingLog.h>
#include <kxGenericBVHBuilder.h>
#include <kxQBVH.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <set>

using namespace kxbvhtest;
using nlohmann::json;

namespace
{
json infoJson(const std::vector<std::string>& args)
{
    const ToolResult run = runTool(args);
    EXPECT_EQ(run.status, 0) << run.err;
    // Standard output must be the JSON object and nothing else.
    return json::parse(run.out);
}

// Compares the tool's figures with what the library says about a hierarchy built over the
// same mesh, read the way a client reads it: getBVHInfo with its "max at lvl:" line.
void expectLibraryFigures(const json& tool, const kx::kxTriMesh& mesh, const std::string& builder, unsigned leaf)
{
    SCOPED_TRACE(builder + " " + std::to_string(leaf));
    kx::kxCapturingLog quiet;
    quiet.install();
    const kxBVHTriangleContainer container(mesh);
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
    ASSERT_NE(line.find("max at lvl:"), std::string::npos) << line;
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, bvh, mesh);

    EXPECT_EQ(tool["mesh"]["triangles"], container.getQuantity());
    for (int a = 0; a < 3; ++a)
    {
        EXPECT_FLOAT_EQ(tool["mesh"]["bounds"]["min"][a].get<float>(), qbvh.getBBox().min[a]);
        EXPECT_FLOAT_EQ(tool["mesh"]["bounds"]["max"][a].get<float>(), qbvh.getBBox().max[a]);
    }
    const json& b = tool["bvh"];
    EXPECT_EQ(b["nodes"], nodes);
    EXPECT_EQ(b["leaves"], leaves);
    EXPECT_EQ(b["tree_nodes"], 2 * leaves - 1);
    EXPECT_EQ(b["min_leaf"], minLeaf);
    EXPECT_EQ(b["max_leaf"], maxLeaf);
    EXPECT_FLOAT_EQ(b["avg_leaf"].get<float>(), avgLeaf);
    EXPECT_EQ(b["largest_leaf_depth"], std::stoi(line.substr(line.find("max at lvl:") + 11)));
    EXPECT_DOUBLE_EQ(b["sah_cost"].get<double>(), kxComputeSAHCost(bvh));
    EXPECT_EQ(b["memory_bytes"], bvh.getMemoryUsed());
    EXPECT_EQ(tool["qbvh"]["nodes"], qbvh.getNodeCount());
    EXPECT_EQ(tool["qbvh"]["groups"], qbvh.getGroupCount());
}
struct Placement
{
    float translation[3];
    float scale;
};

// A glTF file holding the mesh once, placed by one node per placement, with its data in a
// .bin file beside it.
void writeGltf(const kx::kxTriMesh& mesh, const std::vector<Placement>& placements, const TempDir& dir)
{
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const int vertexCount = vertices.GetVertexQuantity();
    const int indexCount = mesh.GetIndexBuffer()->GetIndexQuantity();
    std::ofstream bin(dir.file("placed.bin"), std::ios::binary);
    for (int v = 0; v < vertexCount; ++v)
        bin.write(reinterpret_cast<const char*>(&vertices.Position3(v)[0]), 3 * sizeof(float));
    bin.write(reinterpret_cast<const char*>(mesh.GetIndexBuffer()->GetData()), indexCount * sizeof(unsigned int));
    bin.close();

    const int positionBytes = vertexCount * 12;
    json nodes = json::array(), roots = json::array();
    for (const Placement& p : placements)
    {
        roots.push_back(nodes.size());
        nodes.push_back({{"mesh", 0},
                         {"translation", {p.translation[0], p.translation[1], p.translation[2]}},
                         {"scale", {p.scale, p.scale, p.scale}}});
    }
    const json gltf = {
        {"asset", {{"version", "2.0"}}},
        {"scene", 0},
        {"scenes", {{{"nodes", roots}}}},
        {"nodes", nodes},
        {"meshes", {{{"primitives", {{{"attributes", {{"POSITION", 0}}}, {"indices", 1}, {"mode", 4}}}}}}},
        {"buffers", {{{"uri", "placed.bin"}, {"byteLength", positionBytes + indexCount * 4}}}},
        {"bufferViews",
         {{{"buffer", 0}, {"byteOffset", 0}, {"byteLength", positionBytes}},
          {{"buffer", 0}, {"byteOffset", positionBytes}, {"byteLength", indexCount * 4}}}},
        {"accessors",
         {{{"bufferView", 0}, {"componentType", 5126}, {"count", vertexCount}, {"type", "VEC3"}},
          {{"bufferView", 1}, {"componentType", 5125}, {"count", indexCount}, {"type", "SCALAR"}}}}};
    writeText(dir.file("placed.gltf"), gltf.dump());
}
} // namespace

TEST(KxbvhInfo, MeshesOfAFileAreMergedWithTheirNodeTransforms)
{
    TempDir dir;
    std::mt19937 rng(3);
    const auto mesh = kxtest::randomSoup(rng, 40);
    const std::vector<Placement> placements{{{20.0f, 0.0f, -3.0f}, 1.0f}, {{0.0f, 1.0f, 0.0f}, 2.0f}};
    writeGltf(*mesh, placements, dir);

    std::vector<Wm4::Vector3<float>> positions;
    std::vector<unsigned int> indices;
    const kx::kxVertexBuffer& vertices = *mesh->GetVertexBuffer();
    for (const Placement& p : placements)
    {
        const unsigned int base = static_cast<unsigned int>(positions.size());
        for (int v = 0; v < vertices.GetVertexQuantity(); ++v)
        {
            const Wm4::Vector3<float>& q = vertices.Position3(v);
            positions.emplace_back(q[0] * p.scale + p.translation[0], q[1] * p.scale + p.translation[1],
                                   q[2] * p.scale + p.translation[2]);
        }
        for (int i = 0; i < mesh->GetIndexBuffer()->GetIndexQuantity(); ++i)
            indices.push_back(base + mesh->GetIndexBuffer()->GetData()[i]);
    }
    expectLibraryFigures(infoJson({"info", dir.file("placed.gltf"), "--json"}), *kxtest::makeMesh(positions, indices),
                         "linear", 4);
}

TEST(KxbvhInfo, EveryFileFormatBuilderAndLeafSizeGivesTheLibrarysFigures)
{
    TempDir dir;
    std::mt19937 rng(7);
    kxtest::SoupOptions distinct;
    distinct.shareVertices = false;
    const auto mesh = kxtest::randomSoup(rng, 300, distinct);
    for (const char* name : {"soup.obj", "soup.ply", "soup.stl"})
    {
        writeMesh(*mesh, dir.file(name));
        const json tool = infoJson({"info", dir.file(name), "--json"});
        expectLibraryFigures(tool, *mesh, "linear", 4);
        EXPECT_EQ(tool["mesh"]["vertices"], 900) << name;
    }
    expectLibraryFigures(infoJson({"info", dir.file("soup.obj"), "--json", "--builder", "sah"}), *mesh, "sah", 4);
    for (unsigned leaf : {1u, 7u})
        expectLibraryFigures(infoJson({"info", dir.file("soup.obj"), "--json", "--leaf", std::to_string(leaf)}), *mesh,
                             "linear", leaf);
}

TEST(KxbvhInfo, TheBuiltInSceneIsTheSameOnEveryRunSizedAsAskedAndLogsOnlyWhenVerbose)
{
    json first = infoJson({"info", "--triangles", "3000", "--json"});
    const ToolResult verbose = runTool({"info", "--triangles", "3000", "--json", "--verbose"});
    json second = json::parse(verbose.out);
    first["mesh"].erase("seconds");
    second["mesh"].erase("seconds");
    for (const char* part : {"mesh", "bvh", "qbvh"})
        EXPECT_EQ(first[part], second[part]) << part;
    EXPECT_EQ(first["mesh"]["source"], "built-in scene");
    EXPECT_NEAR(first["mesh"]["triangles"].get<double>(), 3000.0, 300.0);
    const json larger = infoJson({"info", "--triangles", "12000", "--json"});
    EXPECT_NEAR(larger["mesh"]["triangles"].get<double>(), 12000.0, 1200.0);

    const ToolResult quiet = runTool({"info", "--triangles", "500"});
    EXPECT_EQ(quiet.err.find("kxLinearGenericBVHBuilder"), std::string::npos) << quiet.err;
    EXPECT_NE(verbose.err.find("kxLinearGenericBVHBuilder : allocate"), std::string::npos) << verbose.err;
}

TEST(KxbvhBench, BothHierarchiesFindTheSameHitsOnEveryThreadCount)
{
    TempDir dir;
    std::mt19937 rng(21);
    writeMesh(*kxtest::randomSoup(rng, 2000), dir.file("soup.obj"));
    const ToolResult run = runTool({"bench", dir.file("soup.obj"), "--json", "--width", "48", "--height", "32",
                                    "--repeat", "1", "--threads", "2"});
    ASSERT_EQ(run.status, 0) << run.err;
    const json figures = json::parse(run.out);
    EXPECT_EQ(figures["rays"], 48 * 32);
    // Hit or miss is a property of the triangles, not of the tree or the thread count.
    std::set<uint64_t> hits;
    for (const json& trace : figures["trace"])
        if (trace["name"].get<std::string>().rfind("kxbvh", 0) == 0)
            hits.insert(trace["hits"].get<uint64_t>());
    ASSERT_EQ(hits.size(), 1u) << figures["trace"];
    EXPECT_GT(*hits.begin(), 48u * 32u / 10u);
}
