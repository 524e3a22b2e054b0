// Runs the kxbvh program as a user would and checks what it prints and writes against
// what the library computes itself for the same triangles.
#include "kxStandardOutputCapture.h"
#include "kxTestMeshes.h"

#include <kxBVHContainers.h>
#include <kxCapturingLog.h>
#include <kxGenericBVHBuilder.h>
#include <kxHighQualityBVHBuilder.h>
#include <kxQBVH.h>
#include <kxQBVHStatistics.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

#define STB_IMAGE_IMPLEMENTATION
#include <stb/stb_image.h>

using nlohmann::json;

namespace
{
struct ToolResult
{
    int status = -1; // the exit status, or 128 + the signal that ended the process
    std::string out;
    std::string err;
    double seconds = 0.0;     // from start to end
    uint64_t peakBytes = 0;   // resident memory at its largest
};

// A fresh folder, removed with its files at the end of the test.
class TempDir
{
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "kxbvh-test-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp");
        mPath = pattern;
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    std::string file(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

struct Png
{
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgba;
    const uint8_t* at(int x, int y) const { return &rgba[(size_t(y) * width + x) * 4]; }
};

// Runs the tool to its end, or kills it after the time limit as hung; with a marker, presses
// Ctrl-C (SIGINT) once the marker shows on its standard error.
ToolResult runTool(const std::vector<std::string>& args, const std::string& interruptMarker = "",
                   double limitSeconds = 300.0)
{
    const auto start = std::chrono::steady_clock::now();
    TempDir dir;
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        throw std::runtime_error("pipe");
    std::vector<std::string> words(1, KXBVH_PATH);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
    {
        const int out = open(dir.file("stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, STDOUT_FILENO);
        dup2(pipeFds[1], STDERR_FILENO);
        close(pipeFds[0]);
        signal(SIGINT, SIG_DFL);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(pipeFds[1]);
    ToolResult result;
    bool sent = false;
    char buffer[4096];
    pollfd readable{pipeFds[0], POLLIN, 0};
    bool killed = false;
    while (true)
    {
        const double left =
            limitSeconds - std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!killed && (left <= 0.0 || poll(&readable, 1, static_cast<int>(left * 1000) + 1) == 0))
        {
            killed = kill(pid, SIGKILL) == 0;
            result.err += "(killed as hung)\n";
        }
        const ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
        if (n <= 0)
            break;
        result.err.append(buffer, size_t(n));
        if (!sent && !interruptMarker.empty() && result.err.find(interruptMarker) != std::string::npos)
            sent = kill(pid, SIGINT) == 0;
    }
    close(pipeFds[0]);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    result.peakBytes = uint64_t(usage.ru_maxrss) * 1024;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    std::ostringstream out;
    out << std::ifstream(dir.file("stdout")).rdbuf();
    result.out = out.str();
    return result;
}

void writeText(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

// The mesh as .obj, ASCII .ply, or ASCII .stl, which repeats the corners of every triangle.
void writeMesh(const kx::kxTriMesh& mesh, const std::string& path)
{
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    const int triangles = mesh.GetIndexBuffer()->GetIndexQuantity() / 3;
    const std::string format = path.substr(path.size() - 3);
    auto point = [&](unsigned int v) {
        char text[64];
        const Wm4::Vector3<float>& p = vertices.Position3(int(v));
        std::snprintf(text, sizeof text, "%.9g %.9g %.9g\n", p[0], p[1], p[2]);
        return std::string(text);
    };
    std::string text = format == "stl" ? "solid mesh\n" : "";
    if (format == "ply")
        text = "ply\nformat ascii 1.0\nelement vertex " + std::to_string(vertices.GetVertexQuantity()) +
               "\nproperty float x\nproperty float y\nproperty float z\nelement face " + std::to_string(triangles) +
               "\nproperty list uchar int vertex_indices\nend_header\n";
    for (int v = 0; v < vertices.GetVertexQuantity() && format != "stl"; ++v)
        text += (format == "obj" ? "v " : "") + point(unsigned(v));
    for (int t = 0; t < triangles; ++t)
    {
        const unsigned int* c = index + 3 * t;
        if (format == "stl")
            text += "facet normal 0 0 0\nouter loop\nvertex " + point(c[0]) + "vertex " + point(c[1]) + "vertex " +
                    point(c[2]) + "endloop\nendfacet\n";
        else
            text += (format == "obj" ? "f " + std::to_string(c[0] + 1) + ' ' + std::to_string(c[1] + 1) + ' ' +
                                           std::to_string(c[2] + 1)
                                     : "3 " + std::to_string(c[0]) + ' ' + std::to_string(c[1]) + ' ' +
                                           std::to_string(c[2])) +
                    '\n';
    }
    writeText(path, format == "stl" ? text + "endsolid mesh\n" : text);
}

kx::kxPointer<kx::kxTriMesh> quad(float x0, float y0, float x1, float y1, float z)
{
    return kxtest::makeMesh({{x0, y0, z}, {x1, y0, z}, {x1, y1, z}, {x0, y1, z}}, {0, 1, 2, 0, 2, 3});
}

Png readPng(const std::string& path)
{
    Png png;
    int channels = 0;
    stbi_uc* pixels = stbi_load(path.c_str(), &png.width, &png.height, &channels, 4);
    if (!pixels)
        return Png{};
    png.rgba.assign(pixels, pixels + size_t(png.width) * png.height * 4);
    stbi_image_free(pixels);
    return png;
}

void expectOneErrorLine(const ToolResult& run, int status, const std::string& culprit, const std::string& reason)
{
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_TRUE(std::count(run.err.begin(), run.err.end(), '\n') == 1 && run.err.rfind("kxbvh: error: ", 0) == 0 &&
                run.err.find(culprit) != std::string::npos && run.err.find(reason) != std::string::npos)
        << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
}

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
    else if (builder == "hq")
    {
        kxHighQualityBVHBuilder hq;
        hq.setMaxPrimitivesPerLeaf(leaf);
        hq.build(mesh, bvh);
    }
    else
        kxGenericBVHBuilder().build(container, bvh);
    int nodes, leaves, minLeaf, maxLeaf;
    float avgLeaf;
    const kxStandardOutputCapture printed;
    bvh.getBVHInfo(nodes, leaves, minLeaf, maxLeaf, avgLeaf);
    const std::string line = printed.text();
    ASSERT_NE(line.find("max at lvl:"), std::string::npos) << line;
    kxQBVH qbvh;
    qbvh.buildFromBVH(kxQBVH::eTrianglesEquations, bvh, mesh);

    EXPECT_EQ(tool["mesh"]["triangles"], container.getQuantity());
    for (int a = 0; a < 3; ++a)
        EXPECT_TRUE(tool["mesh"]["bounds"]["min"][a].get<float>() == qbvh.getBBox().min[a] &&
                    tool["mesh"]["bounds"]["max"][a].get<float>() == qbvh.getBBox().max[a]);
    const json& b = tool["bvh"];
    EXPECT_EQ(b["nodes"], nodes);
    EXPECT_TRUE(b["leaves"] == leaves && b["tree_nodes"] == 2 * leaves - 1);
    EXPECT_TRUE(b["min_leaf"] == minLeaf && b["max_leaf"] == maxLeaf);
    EXPECT_FLOAT_EQ(b["avg_leaf"].get<float>(), avgLeaf);
    EXPECT_EQ(b["largest_leaf_depth"], std::stoi(line.substr(line.find("max at lvl:") + 11)));
    EXPECT_DOUBLE_EQ(b["sah_cost"].get<double>(), kxComputeSAHCost(bvh));
    EXPECT_EQ(b["memory_bytes"], bvh.getMemoryUsed());
    EXPECT_TRUE(tool["qbvh"]["nodes"] == qbvh.getNodeCount() && tool["qbvh"]["groups"] == qbvh.getGroupCount());
    EXPECT_DOUBLE_EQ(tool["qbvh"]["sah_cost"].get<double>(), kxComputeQBVHSAHCost(qbvh));
    EXPECT_EQ(b["references"], bvh.mPrimitiveIndices.size());

    // Each phase's peak holds at least what the phase leaves behind, on top of what came
    // before it: the boxes, then the tree, then the QBVH (with vertices, as the tool builds it).
    const json& peak = tool["build"]["peak_bytes"];
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_TRUE(peak.is_null()) << "the sanitizer's allocator is not counted";
#else
    const uint64_t boxes = uint64_t{container.getQuantity()} * sizeof(kxBBox);
    EXPECT_GE(peak["container"].get<uint64_t>(), boxes);
    EXPECT_GE(peak["binary"].get<uint64_t>(), boxes + b["memory_bytes"].get<uint64_t>());
    EXPECT_GE(peak["qbvh"].get<uint64_t>(), boxes + tool["qbvh"]["memory_bytes"].get<uint64_t>());
    EXPECT_EQ(peak["total"], std::max({peak["container"], peak["binary"], peak["qbvh"]}));
    EXPECT_LT(peak["total"].get<uint64_t>(), 4u << 20) << "a few hundred triangles";
#endif
}

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
                 {"nan.obj", "not all finite numbers: (nan, 1, 1)",
                  "v 0 0 0\nv 1 0 0\nv 0 1 0\nv nan 1 1\nf 1 2 3\nf 2 3 4\n"},
                 {"bad-index.obj", "cannot read", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n"},
                 {"noise.stl", "cannot read", std::string("\x01\x02 not a mesh \xff\xfe", 17)},
                 {"header.ply", "not a valid PLY file",
                  "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nbogus\n"},
                 {"empty.obj", "is empty", ""}};
    writeText(dir.file("points.obj"), "v 0 0 0\n");
    for (const auto& c : cases)
    {
        const std::string file = dir.file(c.name);
        if (c.exists)
            writeText(file, c.content);
        expectOneErrorLine(runTool({"info", file}), 2, file, c.reason);
        expectOneErrorLine(runTool({"bench", file}), 2, file, c.reason);
        expectOneErrorLine(runTool({"render", file, "-o", dir.file("x.png")}), 2, file, c.reason);
        expectOneErrorLine(runTool({"cull", file, "-o", dir.file("x.png")}), 2, file, c.reason);
        expectOneErrorLine(runTool({"distance", file, dir.file("points.obj")}), 2, file, c.reason);
    }
}

TEST(KxbvhErrors, FacesWithoutCornersAreDroppedRatherThanStoppingTheProgram)
{
    // Assimp's triangulation asserts on such faces, beside triangles or alone.
    TempDir dir;
    const std::string header = "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
                               "property float z\nelement face 2\nproperty list uchar int vertex_indices\n"
                               "end_header\n0 0 0\n1 0 0\n0 1 0\n";
    const std::string file = dir.file("empty-face.ply");
    writeText(file, header + "0\n3 0 1 2\n");
    EXPECT_EQ(infoJson({"info", file, "--json"})["mesh"]["triangles"], 1);
    writeText(file, header + "0\n0\n");
    expectOneErrorLine(runTool({"info", file}), 2, file, "contains no triangles");
}

TEST(KxbvhErrors, HeadersThatWouldMakeAssimpLoopOrAllocateWithoutBoundAreRejectedAtOnceInOneLine)
{
    TempDir dir;
    const std::string plyHeader = "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
                                  "property float z\nelement face 1\nproperty list uchar int vertex_indices\n";
    const std::string plyData = "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n";
    auto withCount = [&](const std::string& format, const std::string& count) {
        std::string header = plyHeader;
        header.replace(header.find("ascii"), 5, format);
        return header.replace(header.find("vertex 3"), 8, "vertex " + count) + "end_header\n" + plyData;
    };
    const struct
    {
        const char* name;
        const char* reason;
        std::string content;
    } cases[] = {
        // Assimp searches for ever for a line whose first word is exactly end_header.
        {"no-end.ply", "its header has no end_header line", plyHeader + plyData},
        {"suffixed-end.ply", "its header has no end_header line", plyHeader + "end_headerx\n" + plyData},
        {"commented-end.ply", "its header has no end_header line", plyHeader + "comment end_header\n" + plyData},
        {"capital-end.ply", "its header has no end_header line", plyHeader + "END_HEADER\n" + plyData},
        {"format-only.ply", "its header has no end_header line", "ply\nformat ascii 1.0\n"},
        // It walks through every declared element, present or not (10 million: half a minute).
        {"many.ply", "declares 10,000,000 'vertex', 1 'face' elements", withCount("ascii", "10000000")},
        {"many-binary.ply", "declares 3,000,000,000 'vertex'", withCount("binary_little_endian", "3000000000")},
        // It allocates the declared vertices before reading one (16 GB for these 300 bytes).
        {"huge.off", "declares 353,535,235,358 vertices and 6 faces",
         "OFF\n353535235358 6 0\n-0.5 -0.5 0.5\n0.5 -0.5 0.5\n-0.5 0.5 0.5\n0.5 0.5 0.5\n-0.5 0.5 -0.5\n"
         "0.5 0.5 -0.5\n-0.5 -0.5 -0.5\n0.5 -0.5 -0.5\n4 0 1 3 2\n4 2 3 5 4\n4 4 5 7 6\n4 6 7 1 0\n"
         "4 1 7 5 3\n4 6 0 2 4\n"},
        {"headerless.off", "declares 4,000,000,000 vertices", "4000000000 1 0\n0 0 0\n3 0 0 0\n"},
        {"commented.off", "declares 100,000,000 vertices", "# colours\nCOFF\n100000000 1 0\n0 0 0 1 1 1 1\n3 0 0 0\n"},
        {"dimension.off", "declares 50,000,000 vertices", "nOFF 2\n50000000 1 0\n0 0\n3 0 0 0\n"},
        // An element declared twice makes it write past its buffers and abort.
        {"twice.ply", "declares the element 'vertex' twice",
         plyHeader + "element vertex 4\nproperty float x\nend_header\n" + plyData}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::string file = dir.file(c.name);
        writeText(file, c.content);
        const ToolResult run = runTool({"info", file}, "", 20.0);
        expectOneErrorLine(run, 2, file, c.reason);
        // Nothing the size of the declared data was allocated.
        EXPECT_LT(run.peakBytes, uint64_t(512) << 20);
    }
}

TEST(KxbvhErrors, AFileNeedingMoreMemoryToReadThanAllowedIsRejectedInOneLine)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "under AddressSanitizer the tool sets no memory limit";
#endif
    // Each subdivision level quadruples the quad's faces: level 12 makes 16 million.
    TempDir dir;
    auto subdivided = [&](int level) {
        const std::string file = dir.file("quad" + std::to_string(level) + ".ac");
        writeText(file, "AC3Db\nOBJECT world\nkids 1\nOBJECT poly\nsubdiv " +
                            std::to_string(level) +
                            "\nnumvert 4\n0 0 0\n1 0 0\n1 1 0\n0 1 0\nnumsurf 1\nSURF 0x20\nrefs 4\n"
                            "0 0 0\n1 0 0\n2 0 0\n3 0 0\nkids 0\n");
        return file;
    };
    const std::string small = subdivided(2), large = subdivided(12);
    EXPECT_EQ(infoJson({"info", small, "--json", "--read-memory", "64MB"})["mesh"]["triangles"], 32);
    const ToolResult run = runTool({"info", large, "--read-memory", "64MB"}, "", 60.0);
    expectOneErrorLine(run, 2, large, "needs more than 64.0 MiB of memory to read (--read-memory)");
    EXPECT_LT(run.peakBytes, uint64_t(256) << 20);
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
        const char* reason = "";
    } cases[] = {{{"render", "--width", "0"}, "--width"},
                 {{"cull", "--tile", "0"}, "--tile"},
                 {{"info", "--leaf", "0"}, "--leaf"},
                 {{"info", "--builder", "fast"}, "--builder"},
                 {{"render", "--shade", "phong"}, "--shade"},
                 {{"render", "--side", "left"}, "--side"},
                 {{"render", "--view", "1,2"}, "--view"},
                 {{"render", "--at", "1,2,x"}, "--at"},
                 {{"render", "--fov", "180"}, "--fov"},
                 {{"info", "--triangles", "5"}, "--triangles"},
                 {{"bench", "--repeat", "0"}, "--repeat"},
                 {{"render", "--threads", "-1"}, "--threads"},
                 {{"info", "--leaf", "2", "--builder", "sah"}, "--leaf"},
                 {{"info", quadFile, "--triangles", "1000"}, "--triangles"},
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

/// A glTF document placing one mesh by each of `nodes`, its positions and 32-bit indices in
/// buffer 0 (`buffer`, given its byteLength here); `bin` receives the buffer's bytes.
json gltfOf(const kx::kxTriMesh& mesh, const json& nodes, json buffer, std::string& bin)
{
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const int vertexCount = vertices.GetVertexQuantity(), indexCount = mesh.GetIndexBuffer()->GetIndexQuantity();
    const int positionBytes = vertexCount * 12;
    bin.assign(reinterpret_cast<const char*>(&vertices.Position3(0)[0]), size_t(positionBytes));
    bin.append(reinterpret_cast<const char*>(mesh.GetIndexBuffer()->GetData()), size_t(indexCount) * 4);
    buffer["byteLength"] = bin.size();
    json scene = json::array();
    for (size_t i = 0; i < nodes.size(); ++i)
        scene.push_back(i);
    return {{"asset", {{"version", "2.0"}}},
            {"scene", 0},
            {"scenes", {{{"nodes", scene}}}},
            {"nodes", nodes},
            {"meshes", {{{"primitives", {{{"attributes", {{"POSITION", 0}}}, {"indices", 1}, {"mode", 4}}}}}}},
            {"buffers", {buffer}},
            {"bufferViews",
             {{{"buffer", 0}, {"byteOffset", 0}, {"byteLength", positionBytes}},
              {{"buffer", 0}, {"byteOffset", positionBytes}, {"byteLength", indexCount * 4}}}},
            {"accessors",
             {{{"bufferView", 0}, {"componentType", 5126}, {"count", vertexCount}, {"type", "VEC3"}},
              {{"bufferView", 1}, {"componentType", 5125}, {"count", indexCount}, {"type", "SCALAR"}}}}};
}

TEST(KxbvhInfo, MeshesOfAFileAreMergedWithTheirNodeTransforms)
{
    // One mesh, in a .bin beside the glTF file, placed by two nodes: a translation and a
    // translated uniform scale.
    TempDir dir;
    std::mt19937 rng(3);
    const auto mesh = kxtest::randomSoup(rng, 40);
    const kx::kxVertexBuffer& vertices = *mesh->GetVertexBuffer();
    const int vertexCount = vertices.GetVertexQuantity(), indexCount = mesh->GetIndexBuffer()->GetIndexQuantity();
    const float placements[2][4] = {{20.0f, 0.0f, -3.0f, 1.0f}, {0.0f, 1.0f, 0.0f, 2.0f}};
    std::vector<Wm4::Vector3<float>> positions;
    std::vector<unsigned int> indices;
    json nodes = json::array();
    for (const auto& p : placements)
    {
        nodes.push_back({{"mesh", 0}, {"translation", {p[0], p[1], p[2]}}, {"scale", {p[3], p[3], p[3]}}});
        for (int i = 0; i < indexCount; ++i)
            indices.push_back(static_cast<unsigned int>(positions.size()) + mesh->GetIndexBuffer()->GetData()[i]);
        for (int v = 0; v < vertexCount; ++v)
        {
            const Wm4::Vector3<float>& q = vertices.Position3(v);
            positions.emplace_back(q[0] * p[3] + p[0], q[1] * p[3] + p[1], q[2] * p[3] + p[2]);
        }
    }
    std::string bin;
    const json gltf = gltfOf(*mesh, nodes, {{"uri", "placed.bin"}}, bin);
    writeText(dir.file("placed.bin"), bin);
    writeText(dir.file("placed.gltf"), gltf.dump());
    expectLibraryFigures(infoJson({"info", dir.file("placed.gltf"), "--json"}), *kxtest::makeMesh(positions, indices),
                         "linear", 4);
}

TEST(KxbvhInfo, ABinaryGltfIsReadWholeAndOneDeclaringMoreBytesThanItHoldsIsRejectedInOneLine)
{
    TempDir dir;
    std::mt19937 rng(5);
    const auto mesh = kxtest::randomSoup(rng, 60);
    std::string bin;
    const json gltf = gltfOf(*mesh, json::array({json{{"mesh", 0}}}), json::object(), bin);
    std::string text = gltf.dump();
    text.append((4 - text.size() % 4) % 4, ' ');
    auto word = [](uint64_t value) {
        std::string bytes(4, '\0');
        for (int i = 0; i < 4; ++i)
            bytes[i] = char(value >> (8 * i) & 0xFF);
        return bytes;
    };
    // Magic, version, length; a JSON chunk and a binary chunk, each behind its length and kind.
    auto glb = [&](uint64_t total, uint64_t jsonLength, uint64_t binLength) {
        return "glTF" + word(2) + word(total) + word(jsonLength) + "JSON" + text + word(binLength) + "BIN" +
               std::string(1, '\0') + bin;
    };
    const uint64_t size = 12 + 8 + text.size() + 8 + bin.size();
    writeText(dir.file("whole.glb"), glb(size, text.size(), bin.size()));
    expectLibraryFigures(infoJson({"info", dir.file("whole.glb"), "--json"}), *mesh, "linear", 4);

    // Each declares a gigabyte or more that the file does not hold; assimp would allocate it.
    const struct
    {
        const char* name;
        const char* reason;
        std::string content;
    } cases[] = {
        {"total.glb", "declares 4,294,967,295 bytes in all, but the file has", glb(0xFFFFFFFFu, text.size(), bin.size())},
        {"json.glb", "its scene declares 1,073,742,280 bytes, but only", glb(size, 0x400001C8u, bin.size())},
        {"bin.glb", "its binary chunk declares 3,000,000,000 bytes, but only", glb(size, text.size(), 3000000000u)},
        {"short.glb", "declares 19 bytes in all, fewer than the header itself", glb(19, text.size(), bin.size())}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::string file = dir.file(c.name);
        writeText(file, c.content);
        const ToolResult run = runTool({"info", file});
        expectOneErrorLine(run, 2, file, c.reason);
        EXPECT_LT(run.peakBytes, uint64_t(512) << 20);
    }
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
        expectLibraryFigures(infoJson({"info", dir.file(name), "--json"}), *mesh, "linear", 4);
    }
    expectLibraryFigures(infoJson({"info", dir.file("soup.obj"), "--json", "--builder", "sah"}), *mesh, "sah", 4);
    for (unsigned leaf : {1u, 7u})
        for (const char* builder : {"linear", "hq"})
            expectLibraryFigures(infoJson({"info", dir.file("soup.obj"), "--json", "--builder", builder, "--leaf",
                                           std::to_string(leaf)}),
                                 *mesh, builder, leaf);
    expectLibraryFigures(infoJson({"info", dir.file("soup.obj"), "--json", "--builder", "hq"}), *mesh, "hq", 4);
}

TEST(KxbvhInfo, PlyHeadersWithFreeTextLinesGiveTheLibrarysFigures)
{
    // Old Blender exports wrote a line of free text into the header, which assimp skips.
    TempDir dir;
    std::mt19937 rng(11);
    const auto mesh = kxtest::randomSoup(rng, 200);
    writeMesh(*mesh, dir.file("plain.ply"));
    std::ifstream plain(dir.file("plain.ply"), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(plain)), std::istreambuf_iterator<char>());
    const size_t afterFormat = text.find('\n', text.find("format")) + 1, endHeader = text.find("end_header");
    auto variant = [&](const std::string& name, const std::string& extra, const std::string& end) {
        writeText(dir.file(name), text.substr(0, afterFormat) + extra + text.substr(afterFormat, endHeader - afterFormat) +
                                      end + text.substr(endHeader + 10));
        return dir.file(name);
    };
    for (const std::string& file :
         {variant("blender.ply", "Created by Blender3D 247 - www.blender.org, source file: \n", "end_header"),
          variant("notes.ply", "comment made by hand\nobj_info scanned\n\nsome words\n", "  end_header  "),
          variant("tabbed.ply", "\t\tindented words\n", "\tend_header")})
    {
        SCOPED_TRACE(file);
        const ToolResult quiet = runTool({"info", file, "--json"});
        EXPECT_TRUE(quiet.status == 0 && quiet.err.empty()) << quiet.err;
        expectLibraryFigures(json::parse(quiet.out), *mesh, "linear", 4);
    }
}

TEST(KxbvhInfo, AssimpsOwnMessagesShowOnlyWithVerboseAndNeverOnStandardOutput)
{
    TempDir dir;
    writeMesh(*quad(0, 0, 1, 1, 0), dir.file("quad.obj"));
    // OpenGEX's parser prints on its own for an empty object, before assimp's error.
    const std::string quadFile = dir.file("quad.obj"), emptyCamera = dir.file("camera.ogex");
    writeText(emptyCamera, "CameraObject {}\n");

    const ToolResult quiet = runTool({"info", quadFile, "--json"});
    EXPECT_TRUE(quiet.status == 0 && quiet.err.empty()) << quiet.err;
    const ToolResult verbose = runTool({"info", quadFile, "--json", "--verbose"});
    EXPECT_EQ(verbose.status, 0);
    EXPECT_NE(verbose.err.find("Info,  T0: Load " + quadFile), std::string::npos) << verbose.err;
    EXPECT_EQ(json::parse(verbose.out)["mesh"]["triangles"], 2);

    expectOneErrorLine(runTool({"info", emptyCamera}), 2, emptyCamera, "cannot read");
    const ToolResult told = runTool({"info", emptyCamera, "--verbose"});
    EXPECT_EQ(told.status, 2);
    EXPECT_TRUE(told.out.empty()) << told.out;
    EXPECT_NE(told.err.find("DDLNode"), std::string::npos) << told.err;
    EXPECT_NE(told.err.find("Error, T0:"), std::string::npos) << told.err;
    // The tool's own line comes last, once.
    const size_t lastLine = told.err.rfind('\n', told.err.size() - 2) + 1;
    EXPECT_EQ(told.err.find("kxbvh: error: "), lastLine) << told.err;
}

TEST(KxbvhInfo, TheBuiltInSceneIsTheSameOnEveryRunSizedAsAskedAndLogsOnlyWhenVerbose)
{
    json first = infoJson({"info", "--triangles", "12000", "--json"});
    const ToolResult verbose = runTool({"info", "--triangles", "12000", "--json", "--verbose"});
    json second = json::parse(verbose.out);
    first["mesh"].erase("seconds");
    second["mesh"].erase("seconds");
    for (const char* part : {"mesh", "bvh", "qbvh"})
        EXPECT_EQ(first[part], second[part]) << part;
    EXPECT_EQ(first["mesh"]["source"], "built-in scene");
    EXPECT_NEAR(first["mesh"]["triangles"].get<double>(), 12000.0, 1200.0);

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
                                    "--repeat", "2", "--threads", "2"});
    ASSERT_EQ(run.status, 0) << run.err;
    const json figures = json::parse(run.out);
    EXPECT_EQ(figures["rays"], 48 * 32);
    // Our builds report the phases of their best run, which add up to it, beside the first run.
    for (const json& build : figures["build"])
    {
        EXPECT_GE(build["first_seconds"].get<double>(), build["seconds"].get<double>()) << build;
        if (build["name"].get<std::string>().rfind("kxbvh", 0) != 0)
            continue;
        const json& phase = build["phase_seconds"];
        EXPECT_NEAR(phase["container"].get<double>() + phase["binary"].get<double>() + phase["qbvh"].get<double>(),
                    build["seconds"].get<double>(), 1e-9)
            << build;
#if !defined(__SANITIZE_ADDRESS__)
        EXPECT_GT(build["peak_bytes"].get<uint64_t>(), 2000u * sizeof(kxBBox)) << build;
#endif
    }
    // Hit or miss is a property of the triangles, not of the tree or the thread count.
    std::set<uint64_t> hits;
    for (const json& trace : figures["trace"])
        if (trace["name"].get<std::string>().rfind("kxbvh", 0) == 0)
            hits.insert(trace["hits"].get<uint64_t>());
    ASSERT_EQ(hits.size(), 1u) << figures["trace"];
    EXPECT_GT(*hits.begin(), 48u * 32u / 10u);
    // Shadow rays are blocked alike for the any-hit and the nearest-hit query on both
    // trees; every closest-point query finds a triangle.
    std::map<std::string, std::set<uint64_t>> answered;
    for (const json& q : figures["queries"])
        if (q["name"].get<std::string>().rfind("kxbvh", 0) == 0)
            answered[q["set"]].insert(q["answered"].get<uint64_t>());
    ASSERT_EQ(answered.size(), 3u) << figures["queries"];
    EXPECT_EQ(answered["shadow"].size(), 1u) << figures["queries"];
    for (const char* set : {"near", "spread"})
        EXPECT_TRUE(answered[set].size() == 1 && *answered[set].begin() > 0) << set << figures["queries"];
}

TEST(KxbvhRender, AQuadFacingTheCameraCoversExactlyItsProjectionFromTheFront)
{
    TempDir dir;
    const auto [x0, x1, y0, y1] = projection();
    const float margin = 0.02f;
    for (const std::string side : {"all", "front", "back"})
    {
        SCOPED_TRACE(side);
        // Rows are shared among threads; the picture must not depend on how.
        const ToolResult run = runFacingQuad("render", dir, {"--side", side, "--threads", "3"});
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_NE(run.out.find("on 3 threads"), std::string::npos) << run.out;
        const Png png = readPng(dir.file("out.png"));
        ASSERT_TRUE(png.width == kWidth && png.height == kHeight);
        // The quad winds counter-clockwise towards the camera: its back is never seen.
        const bool seen = side != "back";
        int inside = 0;
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
            {
                const float cx = x + 0.5f, cy = y + 0.5f;
                const uint8_t* p = png.at(x, y);
                const bool in = cx > x0 + margin && cx < x1 - margin && cy > y0 + margin && cy < y1 - margin;
                const bool out = cx < x0 - margin || cx > x1 + margin || cy < y0 - margin || cy > y1 + margin;
                inside += in;
                ASSERT_TRUE(in ? p[3] == (seen ? 255 : 0) : !out || p[3] == 0) << "at " << x << "," << y;
                // Normal shading: the facing normal is +z, so blue is twice red and green.
                EXPECT_TRUE(!in || !seen || (p[0] == p[1] && std::abs(p[2] - 2 * p[0]) <= 2 && p[2] > 200));
            }
        EXPECT_GT(inside, 3000);
    }
}

TEST(KxbvhRender, TheDefaultCameraFramesTheBuiltInScene)
{
    TempDir dir;
    const ToolResult run = runTool({"render", "--triangles", "2000", "--width", "64", "--height", "48", "-o",
                                    dir.file("scene.png")});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("rays/s"), std::string::npos) << run.out;
    const Png png = readPng(dir.file("scene.png"));
    int hits = 0;
    for (size_t i = 3; i < png.rgba.size(); i += 4)
        hits += png.rgba[i] == 255;
    // Much of the picture is hit, but not every pixel.
    EXPECT_TRUE(png.width == 64 && png.height == 48 && hits > 64 * 48 / 4 && hits < 64 * 48) << hits;
}

TEST(KxbvhCull, TilesSeeGeometryExactlyWhereTheQuadProjects)
{
    TempDir dir;
    const int tile = 16, columns = (kWidth + tile - 1) / tile, rows = (kHeight + tile - 1) / tile;
    const ToolResult run = runFacingQuad("cull", dir, {"--tile", std::to_string(tile)});
    ASSERT_EQ(run.status, 0) << run.err;
    const Png mask = readPng(dir.file("out.png"));
    ASSERT_TRUE(mask.width == kWidth && mask.height == kHeight);
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

namespace
{
// A unit cube as twelve triangles: faces on the planes x, y, z = 0 and 1.
kx::kxPointer<kx::kxTriMesh> unitCube()
{
    std::vector<Wm4::Vector3<float>> corners;
    for (int i = 0; i < 8; ++i)
        corners.emplace_back(float(i & 1), float((i >> 1) & 1), float((i >> 2) & 1));
    return kxtest::makeMesh(corners, {0, 2, 1, 1, 2, 3, 4, 5, 6, 5, 7, 6, 0, 1, 4, 1, 5, 4,
                                      2, 6, 3, 3, 6, 7, 0, 4, 2, 2, 4, 6, 1, 3, 5, 3, 7, 5});
}

// Points as an ASCII PLY point cloud: vertices only, with a colour each as scanners write.
void writePoints(const std::vector<Wm4::Vector3<float>>& points, const std::string& path)
{
    std::string text = "ply\nformat ascii 1.0\nelement vertex " + std::to_string(points.size()) +
                       "\nproperty float x\nproperty float y\nproperty float z\nproperty uchar red\nproperty uchar "
                       "green\nproperty uchar blue\nend_header\n";
    for (const auto& p : points)
    {
        char line[96];
        std::snprintf(line, sizeof line, "%.9g %.9g %.9g 10 20 30\n", p[0], p[1], p[2]);
        text += line;
    }
    writeText(path, text);
}

std::vector<std::vector<std::string>> readCsv(const std::string& path)
{
    std::vector<std::vector<std::string>> rows;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
    {
        rows.emplace_back();
        std::stringstream fields(line);
        for (std::string field; std::getline(fields, field, ',');)
            rows.back().push_back(field);
        if (!line.empty() && line.back() == ',')
            rows.back().push_back("");
    }
    return rows;
}

// The figure after a label of the summary ("  mean   0.25").
double summaryFigure(const std::string& out, const std::string& label)
{
    const size_t at = out.find("\n  " + label + " ");
    return at == std::string::npos ? std::nan("") : std::stod(out.substr(at + 3 + label.size()));
}
} // namespace

TEST(KxbvhDistance, PointsAtKnownOffsetsFromAUnitCubeGetTheirDistancesNearestPointsAndSummary)
{
    TempDir dir;
    writeMesh(*unitCube(), dir.file("cube.obj"));
    using V = Wm4::Vector3<float>;
    // Over a face, beyond an edge, beyond a corner, inside near a face, on the surface.
    const struct
    {
        V point, nearest;
    } cases[] = {{{0.5f, 0.25f, 1.5f}, {0.5f, 0.25f, 1}},
                 {{1.75f, 0.5f, -0.75f}, {1, 0.5f, 0}},
                 {{-2, 2, 3}, {0, 1, 1}},
                 {{0.3f, 0.9f, 0.6f}, {0.3f, 1, 0.6f}},
                 {{1, 0.5f, 0.5f}, {1, 0.5f, 0.5f}}};
    std::vector<V> points;
    for (const auto& c : cases)
        points.push_back(c.point);
    writePoints(points, dir.file("points.ply"));
    const float edge = std::sqrt(0.75f * 0.75f + 0.75f * 0.75f);
    const float expected[] = {0.5f, edge, 3.0f, 0.1f, 0.0f};
    std::string first;
    for (const char* threads : {"1", "3"})
    {
        const ToolResult run = runTool({"distance", dir.file("cube.obj"), dir.file("points.ply"), "-o",
                                        dir.file("out.csv"), "--threads", threads});
        ASSERT_EQ(run.status, 0) << run.err;
        const auto rows = readCsv(dir.file("out.csv"));
        ASSERT_EQ(rows.size(), points.size() + 1);
        EXPECT_EQ(rows[0], (std::vector<std::string>{"x", "y", "z", "distance", "triangle", "closest_x", "closest_y",
                                                     "closest_z"}));
        double sum = 0.0, squares = 0.0;
        for (size_t i = 0; i < points.size(); ++i)
        {
            const auto& row = rows[i + 1];
            ASSERT_EQ(row.size(), 8u);
            EXPECT_NEAR(std::stod(row[3]), expected[i], 1e-6) << "point " << i;
            EXPECT_LT(std::stoul(row[4]), 12u);
            for (int a = 0; a < 3; ++a)
                    EXPECT_NEAR(std::stod(row[5 + a]), cases[i].nearest[a], 1e-6) << "point " << i;
            sum += expected[i];
            squares += double(expected[i]) * expected[i];
        }
        EXPECT_NEAR(summaryFigure(run.out, "count"), 5, 0);
        EXPECT_NEAR(summaryFigure(run.out, "min"), 0.0, 1e-6);
        EXPECT_NEAR(summaryFigure(run.out, "mean"), sum / 5, 1e-6);
        EXPECT_NEAR(summaryFigure(run.out, "RMS"), std::sqrt(squares / 5), 1e-6);
        EXPECT_NEAR(summaryFigure(run.out, "max"), 3.0, 1e-6);
        EXPECT_NE(run.out.find("at point 2 (-2, 2, 3), nearest triangle"), std::string::npos) << run.out;
        std::ifstream csv(dir.file("out.csv"));
        const std::string text((std::istreambuf_iterator<char>(csv)), std::istreambuf_iterator<char>());
        if (first.empty())
            first = text;
        EXPECT_EQ(text, first) << "the answers depend on the thread count";
    }

    // A limit leaves the farther points out of the figures, empty in the table and grey in
    // the coloured cloud, whose colours run from blue (on the cube) to red (the farthest).
    const ToolResult limited = runTool({"distance", dir.file("cube.obj"), dir.file("points.ply"), "--max", "0.6",
                                        "-o", dir.file("out.csv")});
    ASSERT_EQ(limited.status, 0) << limited.err;
    EXPECT_NE(limited.out.find("count  3   (2 farther than --max 0.6)"), std::string::npos) << limited.out;
    EXPECT_NEAR(summaryFigure(limited.out, "max"), 0.5, 1e-6);
    const auto rows = readCsv(dir.file("out.csv"));
    EXPECT_TRUE(rows[2][3].empty() && rows[2][4].empty() && rows[3][3].empty());
    const ToolResult ply = runTool({"distance", dir.file("cube.obj"), dir.file("points.ply"), "--max", "0.6", "-o",
                                    dir.file("out.ply")});
    ASSERT_EQ(ply.status, 0) << ply.err;
    std::ifstream file(dir.file("out.ply"), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t body = bytes.find("end_header\n") + 11;
    ASSERT_NE(bytes.find("element vertex 5\n"), std::string::npos);
    ASSERT_EQ(bytes.size(), body + 5 * 19);
    const auto record = [&](size_t i) { return bytes.data() + body + 19 * i; };
    for (size_t i = 0; i < points.size(); ++i)
    {
        float xyz[3], distance;
        std::memcpy(xyz, record(i), 12);
        std::memcpy(&distance, record(i) + 15, 4);
        EXPECT_TRUE(xyz[0] == points[i][0] && xyz[1] == points[i][1] && xyz[2] == points[i][2]);
        EXPECT_NEAR(distance, expected[i] <= 0.6f ? expected[i] : -1.0f, 1e-6);
    }
    const auto rgb = [&](size_t i) {
        const auto* c = reinterpret_cast<const uint8_t*>(record(i) + 12);
        return std::array<int, 3>{c[0], c[1], c[2]};
    };
    EXPECT_EQ(rgb(0), (std::array<int, 3>{255, 0, 0}));
    EXPECT_EQ(rgb(4), (std::array<int, 3>{0, 0, 255}));
    EXPECT_EQ(rgb(1), (std::array<int, 3>{128, 128, 128}));
}

TEST(KxbvhDistance, BadPointFilesAndOptionsAreNamedAndRejected)
{
    TempDir dir;
    writeMesh(*unitCube(), dir.file("cube.obj"));
    writePoints({{0, 0, 0}}, dir.file("one.ply"));
    const std::string cube = dir.file("cube.obj"), one = dir.file("one.ply");
    // A binary cloud whose data stops two vertices short of its header's count.
    writeText(dir.file("short.ply"), "ply\nformat binary_little_endian 1.0\nelement vertex 4\nproperty float x\n"
                                     "property float y\nproperty float z\nend_header\n" +
                                         std::string(2 * 12 + 5, '\0'));
    writeText(dir.file("nan.ply"), "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty float y\n"
                                   "property float z\nend_header\n0 0 0\n1 nan 2\n");
    writeText(dir.file("empty.obj"), "");
    const struct
    {
        std::vector<std::string> args;
        int status;
        std::string culprit;
        const char* reason;
    } cases[] = {
        {{"distance", cube, dir.file("missing.ply")}, 2, dir.file("missing.ply"), "No such file"},
        {{"distance", cube, dir.file("short.ply")}, 2, dir.file("short.ply"), "declares 4 'vertex' elements, at least 48 bytes"},
        {{"distance", cube, dir.file("nan.ply")}, 2, dir.file("nan.ply"), "not all finite numbers"},
        {{"distance", cube, dir.file("empty.obj")}, 2, dir.file("empty.obj"), "is empty"},
        {{"distance", dir.file("one.ply"), one}, 2, one, "contains no triangles"},
        {{"distance", cube, one, "--max", "-1"}, 2, "--max", "not a distance"},
        {{"distance", cube, one, "--max", "nan"}, 2, "--max", "not a distance"},
        {{"distance", cube, one, "-o", dir.file("out.txt")}, 2, "out.txt", ".csv"},
        {{"distance", cube}, 2, "POINTS", "required"},
        {{"distance", cube, one, "-o", dir.file("no/such/out.csv")}, 1, dir.file("no/such/out.csv"), "No such file"},
        {{"render", cube, "--samples", "8", "-o", dir.file("x.png")}, 2, "--samples", "--shade ao"},
        {{"render", cube, "--shade", "ao", "--samples", "0", "-o", dir.file("x.png")}, 2, "--samples", ""}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.culprit);
        expectOneErrorLine(runTool(c.args), c.status, c.culprit, c.reason);
    }
}

TEST(KxbvhDistance, CtrlCWhileMeasuringStopsWithStatus130)
{
    TempDir dir;
    std::mt19937 rng(5);
    writeMesh(*kxtest::randomSoup(rng, 3000), dir.file("soup.obj"));
    // Enough points that the measuring still runs when the signal arrives.
    std::string cloud = "ply\nformat binary_little_endian 1.0\nelement vertex 4000000\nproperty float x\nproperty "
                        "float y\nproperty float z\nend_header\n";
    std::uniform_real_distribution<float> spread(-30.0f, 30.0f);
    for (int i = 0; i < 4000000 * 3; ++i)
    {
        const float value = spread(rng);
        cloud.append(reinterpret_cast<const char*>(&value), 4);
    }
    writeText(dir.file("cloud.ply"), cloud);
    const ToolResult run = runTool({"--progress", "always", "distance", dir.file("soup.obj"), dir.file("cloud.ply"),
                                    "--threads", "1"},
                                   "measuring");
    EXPECT_EQ(run.status, 130) << run.err;
    EXPECT_NE(run.err.find("kxbvh: cancelled while measuring distances\n"), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
}

TEST(KxbvhRender, AmbientOcclusionDarkensTheFloorBesideABoxOnlyAndIsTheSameOnEveryRun)
{
    // The facing quad as a floor with a box 0.3 high standing on it; occlusion rays reach a
    // tenth of the scene's diagonal (about 0.25).
    TempDir dir;
    std::vector<Wm4::Vector3<float>> corners = {
        {kLeft, kBottom, 0}, {kRight, kBottom, 0}, {kRight, kTop, 0}, {kLeft, kTop, 0}};
    std::vector<unsigned int> indices = {0, 1, 2, 0, 2, 3};
    const float bx0 = -0.2f, bx1 = 0.2f, by0 = 0.1f, by1 = 0.5f, height = 0.3f;
    for (int i = 0; i < 8; ++i)
        corners.emplace_back(i & 1 ? bx1 : bx0, i & 2 ? by1 : by0, i & 4 ? height : 0.0f);
    for (unsigned int i : {0, 2, 1, 1, 2, 3, 4, 5, 6, 5, 7, 6, 0, 1, 4, 1, 5, 4, 2, 6, 3, 3, 6, 7, 0, 4, 2, 2, 4, 6, 1, 3,
                           5, 3, 7, 5})
        indices.push_back(4 + i);
    writeMesh(*kxtest::makeMesh(corners, indices), dir.file("floor.obj"));
    std::vector<std::string> args{"render", dir.file("floor.obj"), "--shade", "ao", "--samples", "64"};
    args.insert(args.end(), kFacingCamera.begin(), kFacingCamera.end());
    std::string first;
    for (const char* threads : {"1", "3"})
    {
        std::vector<std::string> run = args;
        run.insert(run.end(), {"--threads", threads, "-o", dir.file(std::string("ao") + threads + ".png")});
        const ToolResult result = runTool(run);
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_NE(result.out.find("occlusion rays at "), std::string::npos) << result.out;
        std::ifstream png(dir.file(std::string("ao") + threads + ".png"), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(png)), std::istreambuf_iterator<char>());
        if (first.empty())
            first = bytes;
        EXPECT_TRUE(bytes == first) << "the picture depends on the thread count";
    }
    const Png png = readPng(dir.file("ao1.png"));
    ASSERT_EQ(png.width, kWidth);
    const float halfHeight = 4.0f * std::tan(20.0f * 3.14159265f / 180.0f), halfWidth = halfHeight * kWidth / kHeight;
    // The floor point (x, y) as a pixel (z = 0 is the floor's plane).
    const auto at = [&](float x, float y) {
        return png.at(int(0.5f * kWidth * (1.0f + x / halfWidth)), int(0.5f * kHeight * (1.0f - y / halfHeight)));
    };
    int open = 0;
    for (float x = kLeft + 0.05f; x < kRight - 0.05f; x += 0.05f)
        for (float y = kBottom + 0.05f; y < kTop - 0.05f; y += 0.05f)
        {
            const float gapX = std::max({bx0 - x, x - bx1, 0.0f}), gapY = std::max({by0 - y, y - by1, 0.0f});
            const uint8_t* p = at(x, y);
            ASSERT_EQ(p[3], 255);
            // Nothing within reach: every sample is open.
            if (gapX * gapX + gapY * gapY > 0.3f * 0.3f)
            {
                EXPECT_EQ(p[0], 255) << x << "," << y;
                ++open;
            }
        }
    EXPECT_GT(open, 200);
    // Floor 0.06 from the box's left, right and near walls (in view: the box's top, nearer
    // the eye, covers a little more of the floor than its foot).
    for (const auto& [x, y] : {std::pair{bx0 - 0.06f, 0.3f}, {bx1 + 0.06f, 0.3f}, {0.0f, by0 - 0.06f}})
        EXPECT_LT(at(x, y)[0], 215) << x << "," << y;
}
