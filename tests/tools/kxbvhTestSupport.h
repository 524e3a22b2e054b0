// Running kxbvh as a user would, and the small files its tests feed it.
#ifndef KXBVHTESTSUPPORT_H
#define KXBVHTESTSUPPORT_H

#include <kxPointer.h>
#include <kxTriMesh.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kxbvhtest
{
struct ToolResult
{
    int status = -1;  // the exit status, or 128 + the signal that ended the process
    std::string out;
    std::string err;
};

ToolResult runTool(const std::vector<std::string>& args);

/// Starts the tool, waits until `marker` shows on its standard error, then presses
/// Ctrl-C (SIGINT) and waits for it to end.
ToolResult interruptToolWhen(const std::vector<std::string>& args, const std::string& marker);

/// A fresh folder, removed with its files at the end of the test.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    std::string file(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

using Point = std::array<float, 3>;

struct TriangleSoup
{
    std::vector<Point> vertices;
    std::vector<uint32_t> indices;  // three per triangle
};

/// Small triangles scattered in a box, all vertices distinct; the same for a seed.
TriangleSoup randomSoup(unsigned triangles, uint32_t seed);

/// Two triangles covering the rectangle [x0, x1] x [y0, y1] at height z, wound
/// counter-clockwise seen from +z (so their normal is +z).
TriangleSoup quad(float x0, float y0, float x1, float y1, float z);

void writeObj(const TriangleSoup& soup, const std::string& path);
void writePly(const TriangleSoup& soup, const std::string& path);
void writeStl(const TriangleSoup& soup, const std::string& path);
void writeOff(const TriangleSoup& soup, const std::string& path);

struct Placement
{
    Point translation{0.0f, 0.0f, 0.0f};
    float scale = 1.0f;
};

/// A glTF file holding the soup once as a mesh, placed by one node per placement.
void writeGltf(const TriangleSoup& soup, const std::vector<Placement>& placements, const std::string& path);

void writeText(const std::string& path, const std::string& text);

kx::kxPointer<kx::kxTriMesh> toMesh(const TriangleSoup& soup);

struct Png
{
    int width = 0;
    int height = 0;
    int channels = 0;  // as stored in the file
    std::vector<uint8_t> rgba;
    const uint8_t* at(int x, int y) const { return &rgba[(size_t(y) * width + x) * 4]; }
};

/// Empty pixels when the file cannot be decoded.
Png readPng(const std::string& path);
} // namespace kxbvhtest

#endif
