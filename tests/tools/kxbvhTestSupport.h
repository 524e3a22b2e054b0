// Running kxbvh as a user would, and the small files its tests feed it.
#ifndef KXBVHTESTSUPPORT_H
#define KXBVHTESTSUPPORT_H

#include "kxTestMeshes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kxbvhtest
{
struct ToolResult
{
    int status = -1; // the exit status, or 128 + the signal that ended the process
    std::string out;
    std::string err;
};

/// Runs the tool to its end; with a marker, presses Ctrl-C (SIGINT) once the marker shows
/// on its standard error.
ToolResult runTool(const std::vector<std::string>& args, const std::string& interruptMarker = "");

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

/// The mesh in the format its path's extension names: .obj, .ply (ASCII) or .stl (ASCII).
void writeMesh(const kx::kxTriMesh& mesh, const std::string& path);
void writeText(const std::string& path, const std::string& text);

/// Two triangles covering [x0, x1] x [y0, y1] at height z, counter-clockwise seen from +z.
kx::kxPointer<kx::kxTriMesh> quad(float x0, float y0, float x1, float y1, float z);

struct Png
{
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgba;
    const uint8_t* at(int x, int y) const { return &rgba[(size_t(y) * width + x) * 4]; }
};

/// Empty pixels when the file cannot be decoded.
Png readPng(const std::string& path);
} // namespace kxbvhtest

#endif
