#include "kxbvhTestSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#define STB_IMAGE_IMPLEMENTATION
#include <stb/stb_image.h>

namespace kxbvhtest
{
namespace
{
std::string readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

int decodeStatus(int waitStatus)
{
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return 128 + WTERMSIG(waitStatus);
    return -1;
}

/// Forks the tool with standard output to outPath and standard error to errFd.
pid_t spawn(const std::vector<std::string>& args, const std::string& outPath, int errFd)
{
    std::vector<char*> argv;
    std::string program = KXBVH_PATH;
    argv.push_back(program.data());
    std::vector<std::string> copies(args);
    for (std::string& arg : copies)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
    {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int in = open("/dev/null", O_RDONLY);
        if (out < 0 || in < 0)
            _exit(127);
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(errFd, STDERR_FILENO);
        signal(SIGINT, SIG_DFL);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

std::string fmt(float v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", v);
    return text;
}

std::string base64(const std::string& bytes)
{
    static const char* const digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3)
    {
        const uint32_t n = uint32_t(uint8_t(bytes[i])) << 16 | uint32_t(uint8_t(bytes[i + 1])) << 8 | uint8_t(bytes[i + 2]);
        for (int shift = 18; shift >= 0; shift -= 6)
            out += digits[(n >> shift) & 63];
    }
    if (i < bytes.size())
    {
        const uint32_t n = uint32_t(uint8_t(bytes[i])) << 16 | (i + 1 < bytes.size() ? uint32_t(uint8_t(bytes[i + 1])) << 8 : 0);
        out += digits[(n >> 18) & 63];
        out += digits[(n >> 12) & 63];
        out += i + 1 < bytes.size() ? digits[(n >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}
} // namespace

ToolResult runTool(const std::vector<std::string>& args)
{
    TempDir dir;
    const std::string errPath = dir.file("stderr");
    const int errFd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const pid_t pid = spawn(args, dir.file("stdout"), errFd);
    close(errFd);
    int waitStatus = 0;
    waitpid(pid, &waitStatus, 0);
    return ToolResult{decodeStatus(waitStatus), readAll(dir.file("stdout")), readAll(errPath)};
}

ToolResult interruptToolWhen(const std::vector<std::string>& args, const std::string& marker)
{
    TempDir dir;
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        throw std::runtime_error("pipe");
    const pid_t pid = spawn(args, dir.file("stdout"), pipeFds[1]);
    close(pipeFds[1]);
    ToolResult result;
    bool sent = false;
    char buffer[4096];
    for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;)
    {
        result.err.append(buffer, size_t(n));
        if (!sent && result.err.find(marker) != std::string::npos)
        {
            kill(pid, SIGINT);
            sent = true;
        }
    }
    close(pipeFds[0]);
    int waitStatus = 0;
    waitpid(pid, &waitStatus, 0);
    result.status = decodeStatus(waitStatus);
    result.out = readAll(dir.file("stdout"));
    return result;
}

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "kxbvh-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp");
    mPath = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

TriangleSoup randomSoup(unsigned triangles, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> where(-5.0f, 5.0f), offset(-0.4f, 0.4f);
    TriangleSoup soup;
    for (unsigned t = 0; t < triangles; ++t)
    {
        const Point center{where(random), where(random) * 0.5f, where(random)};
        for (int corner = 0; corner < 3; ++corner)
        {
            soup.indices.push_back(uint32_t(soup.vertices.size()));
            soup.vertices.push_back({center[0] + offset(random), center[1] + offset(random), center[2] + offset(random)});
        }
    }
    return soup;
}

TriangleSoup quad(float x0, float y0, float x1, float y1, float z)
{
    return TriangleSoup{{{x0, y0, z}, {x1, y0, z}, {x1, y1, z}, {x0, y1, z}}, {0, 1, 2, 0, 2, 3}};
}

void writeText(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

void writeObj(const TriangleSoup& soup, const std::string& path)
{
    std::ostringstream text;
    for (const Point& p : soup.vertices)
        text << "v " << fmt(p[0]) << ' ' << fmt(p[1]) << ' ' << fmt(p[2]) << '\n';
    for (size_t i = 0; i < soup.indices.size(); i += 3)
        text << "f " << soup.indices[i] + 1 << ' ' << soup.indices[i + 1] + 1 << ' ' << soup.indices[i + 2] + 1 << '\n';
    writeText(path, text.str());
}

void writePly(const TriangleSoup& soup, const std::string& path)
{
    std::ostringstream text;
    text << "ply\nformat ascii 1.0\nelement vertex " << soup.vertices.size()
         << "\nproperty float x\nproperty float y\nproperty float z\nelement face " << soup.indices.size() / 3
         << "\nproperty list uchar int vertex_indices\nend_header\n";
    for (const Point& p : soup.vertices)
        text << fmt(p[0]) << ' ' << fmt(p[1]) << ' ' << fmt(p[2]) << '\n';
    for (size_t i = 0; i < soup.indices.size(); i += 3)
        text << "3 " << soup.indices[i] << ' ' << soup.indices[i + 1] << ' ' << soup.indices[i + 2] << '\n';
    writeText(path, text.str());
}

void writeStl(const TriangleSoup& soup, const std::string& path)
{
    std::ostringstream text;
    text << "solid soup\n";
    for (size_t i = 0; i < soup.indices.size(); i += 3)
    {
        text << "facet normal 0 0 0\nouter loop\n";
        for (int k = 0; k < 3; ++k)
        {
            const Point& p = soup.vertices[soup.indices[i + k]];
            text << "vertex " << fmt(p[0]) << ' ' << fmt(p[1]) << ' ' << fmt(p[2]) << '\n';
        }
        text << "endloop\nendfacet\n";
    }
    text << "endsolid soup\n";
    writeText(path, text.str());
}

void writeOff(const TriangleSoup& soup, const std::string& path)
{
    std::ostringstream text;
    text << "OFF\n" << soup.vertices.size() << ' ' << soup.indices.size() / 3 << " 0\n";
    for (const Point& p : soup.vertices)
        text << fmt(p[0]) << ' ' << fmt(p[1]) << ' ' << fmt(p[2]) << '\n';
    for (size_t i = 0; i < soup.indices.size(); i += 3)
        text << "3 " << soup.indices[i] << ' ' << soup.indices[i + 1] << ' ' << soup.indices[i + 2] << '\n';
    writeText(path, text.str());
}

void writeGltf(const TriangleSoup& soup, const std::vector<Placement>& placements, const std::string& path)
{
    std::string bytes;
    Point lo{1e30f, 1e30f, 1e30f}, hi{-1e30f, -1e30f, -1e30f};
    for (const Point& p : soup.vertices)
        for (int a = 0; a < 3; ++a)
        {
            bytes.append(reinterpret_cast<const char*>(&p[a]), sizeof(float));
            lo[a] = std::min(lo[a], p[a]);
            hi[a] = std::max(hi[a], p[a]);
        }
    const size_t positionBytes = bytes.size();
    for (uint32_t index : soup.indices)
        bytes.append(reinterpret_cast<const char*>(&index), sizeof(uint32_t));

    std::ostringstream text;
    text << R"({"asset":{"version":"2.0"},"scene":0,"scenes":[{"nodes":[)";
    for (size_t n = 0; n < placements.size(); ++n)
        text << (n ? "," : "") << n;
    text << "]}],\"nodes\":[";
    for (size_t n = 0; n < placements.size(); ++n)
    {
        const Placement& p = placements[n];
        text << (n ? "," : "") << R"({"mesh":0,"translation":[)" << fmt(p.translation[0]) << ','
             << fmt(p.translation[1]) << ',' << fmt(p.translation[2]) << R"(],"scale":[)" << fmt(p.scale) << ','
             << fmt(p.scale) << ',' << fmt(p.scale) << "]}";
    }
    text << R"(],"meshes":[{"primitives":[{"attributes":{"POSITION":0},"indices":1,"mode":4}]}],)"
         << R"("buffers":[{"byteLength":)" << bytes.size() << R"(,"uri":"data:application/octet-stream;base64,)"
         << base64(bytes) << R"("}],"bufferViews":[{"buffer":0,"byteOffset":0,"byteLength":)" << positionBytes
         << R"(,"target":34962},{"buffer":0,"byteOffset":)" << positionBytes
         << R"(,"byteLength":)" << bytes.size() - positionBytes
         << R"(,"target":34963}],"accessors":[{"bufferView":0,"componentType":5126,"count":)" << soup.vertices.size()
         << R"(,"type":"VEC3","min":[)" << fmt(lo[0]) << ',' << fmt(lo[1]) << ',' << fmt(lo[2]) << R"(],"max":[)"
         << fmt(hi[0]) << ',' << fmt(hi[1]) << ',' << fmt(hi[2])
         << R"(]},{"bufferView":1,"componentType":5125,"count":)" << soup.indices.size()
         << R"(,"type":"SCALAR"}]})";
    writeText(path, text.str());
}

kx::kxPointer<kx::kxTriMesh> toMesh(const TriangleSoup& soup)
{
    auto* vertices = new kx::kxVertexBuffer(int(soup.vertices.size()));
    for (size_t i = 0; i < soup.vertices.size(); ++i)
        vertices->Position3(int(i)) = Wm4::Vector3<float>(soup.vertices[i][0], soup.vertices[i][1], soup.vertices[i][2]);
    auto* indices = new kx::kxIndexBuffer(int(soup.indices.size()));
    std::copy(soup.indices.begin(), soup.indices.end(), indices->GetData());
    return kx::kxPointer<kx::kxTriMesh>(new kx::kxTriMesh(vertices, indices));
}

Png readPng(const std::string& path)
{
    Png png;
    stbi_uc* pixels = stbi_load(path.c_str(), &png.width, &png.height, &png.channels, 4);
    if (!pixels)
        return Png{};
    png.rgba.assign(pixels, pixels + size_t(png.width) * png.height * 4);
    stbi_image_free(pixels);
    return png;
}
} // namespace kxbvhtest
