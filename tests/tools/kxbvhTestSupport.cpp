#include "kxbvhTestSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
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

std::string point(const Wm4::Vector3<float>& p)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.9g %.9g %.9g", p[0], p[1], p[2]);
    return text;
}
} // namespace

ToolResult runTool(const std::vector<std::string>& args, const std::string& interruptMarker)
{
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
        const int in = open("/dev/null", O_RDONLY);
        if (out < 0 || in < 0)
            _exit(127);
        dup2(in, STDIN_FILENO);
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
    for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;)
    {
        result.err.append(buffer, size_t(n));
        if (!sent && !interruptMarker.empty() && result.err.find(interruptMarker) != std::string::npos)
            sent = kill(pid, SIGINT) == 0;
    }
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
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

void writeText(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

void writeMesh(const kx::kxTriMesh& mesh, const std::string& path)
{
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const unsigned int* index = mesh.GetIndexBuffer()->GetData();
    const int n = vertices.GetVertexQuantity(), triangles = mesh.GetIndexBuffer()->GetIndexQuantity() / 3;
    const std::string kind = path.substr(path.size() - 3);
    std::ostringstream text;
    if (kind == "ply")
        text << "ply\nformat ascii 1.0\nelement vertex " << n
             << "\nproperty float x\nproperty float y\nproperty float z\nelement face " << triangles
             << "\nproperty list uchar int vertex_indices\nend_header\n";
    if (kind == "stl")
        text << "solid mesh\n";
    for (int v = 0; v < n && kind != "stl"; ++v)
        text << (kind == "obj" ? "v " : "") << point(vertices.Position3(v)) << '\n';
    for (int t = 0; t < triangles; ++t)
    {
        const unsigned int* c = index + 3 * t;
        if (kind == "obj")
            text << "f " << c[0] + 1 << ' ' << c[1] + 1 << ' ' << c[2] + 1 << '\n';
        else if (kind == "ply")
            text << "3 " << c[0] << ' ' << c[1] << ' ' << c[2] << '\n';
        else
            text << "facet normal 0 0 0\nouter loop\nvertex " << point(vertices.Position3(int(c[0]))) << "\nvertex "
                 << point(vertices.Position3(int(c[1]))) << "\nvertex " << point(vertices.Position3(int(c[2])))
                 << "\nendloop\nendfacet\n";
    }
    if (kind == "stl")
        text << "endsolid mesh\n";
    writeText(path, text.str());
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
} // namespace kxbvhtest
