// Writes the seed corpora of the fuzz targets: kxFuzzSeedWriter <folder> fills
// <folder>/<target>/ with small inputs that reach every decoder's paths: each array type,
// meshes with special coordinates and repeated triangles, rays along axes and through
// vertices, plane sets, transformation programs and tiny mesh files of six formats.
// Inputs that a fuzzer found to break something are kept beside them by hand.
#include "kxFuzz.h"
#include "kxFuzzGeometry.h"

#include "kxBaseStream.h"
#include "kxTSharedArray.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

namespace
{
using kxfuzz::Output;
using Vec3 = Wm4::Vector3<float>;
namespace fs = std::filesystem;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

fs::path gRoot;

void write(const std::string& target, const std::string& name, const std::vector<uint8_t>& bytes)
{
    const fs::path folder = gRoot / target;
    fs::create_directories(folder);
    std::ofstream out(folder / name, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out)
    {
        std::fprintf(stderr, "cannot write %s\n", (folder / name).c_str());
        std::exit(1);
    }
}

// ---- shared arrays

template <typename T, typename Scalar>
void arraySeeds(int selector, const std::vector<Scalar>& scalars)
{
    typedef kx::kxTSharedArray<T> Array;
    const size_t perElement = sizeof(T) / sizeof(Scalar);
    const int quantity = static_cast<int>(scalars.size() / perElement);
    T* elements = new T[quantity];
    std::memcpy(static_cast<void*>(elements), scalars.data(), size_t(quantity) * sizeof(T));
    const kx::kxPointer<Array> array = new Array(quantity, elements);
    kx::kxBaseStream stream;
    stream.SaveObject(*array);
    const std::vector<unsigned char>& saved = stream.GetBuffer();
    const std::string name = Array::TYPE.GetName();

    // The type name from the selector, then the rest of the stream.
    std::vector<uint8_t> named{static_cast<uint8_t>(selector)};
    named.insert(named.end(), saved.begin() + 4 + static_cast<std::ptrdiff_t>(name.size()), saved.end());
    write("kxFuzzArrayStreams", name, named);

    // The whole stream, with an empty array after it.
    std::vector<uint8_t> raw{17};
    raw.insert(raw.end(), saved.begin(), saved.end());
    const kx::kxPointer<Array> empty = new Array(0, new T[0]);
    kx::kxBaseStream second;
    second.SaveObject(*empty);
    raw.insert(raw.end(), second.GetBuffer().begin(), second.GetBuffer().end());
    write("kxFuzzArrayStreams", name + "-raw", raw);

    // An unnamed object part, then a quantity of a hundred million that the stream does not
    // hold: nothing may be allocated for it.
    Output oversized;
    oversized.byte(static_cast<uint8_t>(selector));
    oversized.u32(0);
    oversized.u32(0);
    oversized.u32(100000000);
    write("kxFuzzArrayStreams", name + "-oversized", oversized.bytes());
}

template <typename Scalar>
std::vector<Scalar> scalars(size_t count, bool special)
{
    std::vector<Scalar> v;
    for (size_t i = 0; i < count; ++i)
        v.push_back(static_cast<Scalar>(i) * Scalar(1.25) - Scalar(3));
    if (special && std::numeric_limits<Scalar>::has_infinity)
    {
        v[0] = std::numeric_limits<Scalar>::quiet_NaN();
        v[count - 1] = -std::numeric_limits<Scalar>::infinity();
    }
    return v;
}

void writeArraySeeds()
{
    using namespace Wm4;
    arraySeeds<float>(0, scalars<float>(3, false));
    arraySeeds<double>(1, scalars<double>(3, true));
    arraySeeds<int>(2, std::vector<int>{7, -1, 0x7FFFFFFF});
    arraySeeds<ColorRGBA>(3, scalars<float>(8, false));
    arraySeeds<ColorRGB>(4, scalars<float>(6, true));
    arraySeeds<Matrix2<float>>(5, scalars<float>(8, false));
    arraySeeds<Matrix2<double>>(6, scalars<double>(4, false));
    arraySeeds<Matrix3<float>>(7, scalars<float>(18, true));
    arraySeeds<Matrix3<double>>(8, scalars<double>(9, false));
    arraySeeds<Matrix4<float>>(9, scalars<float>(16, false));
    arraySeeds<Matrix4<double>>(10, scalars<double>(32, true));
    arraySeeds<Plane3<float>>(11, scalars<float>(8, false));
    arraySeeds<Plane3<double>>(12, scalars<double>(4, false));
    arraySeeds<Quaternion<float>>(13, scalars<float>(4, true));
    arraySeeds<Quaternion<double>>(14, scalars<double>(8, false));
    arraySeeds<Vector3<float>>(15, scalars<float>(9, false));
    arraySeeds<Vector3<double>>(16, scalars<double>(6, true));
}

// ---- meshes, rays and plane sets

struct SeedMesh
{
    std::vector<Vec3> positions;
    std::vector<uint8_t> indices;
    uint8_t repeat = 0;
};

SeedMesh cube(float lo, float hi)
{
    SeedMesh m;
    for (int i = 0; i < 8; ++i)
        m.positions.emplace_back(i & 1 ? hi : lo, i & 2 ? hi : lo, i & 4 ? hi : lo);
    const uint8_t faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (const auto& f : faces)
        m.indices.insert(m.indices.end(), {f[0], f[1], f[2], f[0], f[2], f[3]});
    return m;
}

SeedMesh terrain(int n, float scale)
{
    SeedMesh m;
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x)
            m.positions.emplace_back(x * scale, y * scale, float((x * 7 + y * 3) % 5) * scale * 0.25f);
    for (int y = 0; y + 1 < n; ++y)
        for (int x = 0; x + 1 < n; ++x)
        {
            const uint8_t a = static_cast<uint8_t>(y * n + x), b = static_cast<uint8_t>(a + 1),
                          c = static_cast<uint8_t>(a + n), d = static_cast<uint8_t>(c + 1);
            m.indices.insert(m.indices.end(), {a, b, d, a, d, c});
        }
    return m;
}

// Coordinates that break arithmetic, and triangles that reuse them and repeat corners.
SeedMesh unusualValues()
{
    SeedMesh m;
    const float fmax = std::numeric_limits<float>::max(), tiny = std::numeric_limits<float>::denorm_min();
    m.positions = {Vec3(0, 0, 0),      Vec3(1, 0, 0),        Vec3(0, 1, 0),      Vec3(kNaN, 0, 0),
                   Vec3(kInf, 1, 1),   Vec3(-fmax, fmax, 0), Vec3(tiny, -0.0f, tiny), Vec3(1e30f, 1e-30f, 1),
                   Vec3(0, 0, 0),      Vec3(2, 0, 0),        Vec3(1, 1, 1),      Vec3(-kInf, -kInf, -kInf)};
    m.indices = {0, 1, 2, 0, 1, 3, 4, 5, 6, 7, 1, 2, 0, 0, 1, 0, 8, 2, 0, 1, 9, 5, 6, 7, 10, 11, 2, 2, 2, 2, 6, 1, 2};
    return m;
}

// A terrain crossed by long thin diagonal triangles, which the high-quality builder clips;
// in 16 copies, as it clips only in nodes of a thousand triangles or more.
SeedMesh slivers()
{
    SeedMesh m = terrain(10, 1.0f);
    m.repeat = 5;
    for (int i = 0; i < 6; ++i)
    {
        const float s = static_cast<float>(i);
        const auto base = static_cast<uint8_t>(m.positions.size());
        m.positions.insert(m.positions.end(),
                           {Vec3(0, s * 1.5f, 0.5f), Vec3(9, 9 - s * 1.5f, 2.0f), Vec3(9, 9.05f - s * 1.5f, 2.0f)});
        m.indices.insert(m.indices.end(), {base, static_cast<uint8_t>(base + 1), static_cast<uint8_t>(base + 2)});
    }
    return m;
}

SeedMesh degenerate()
{
    SeedMesh m;
    m.positions = {Vec3(0, 0, 0), Vec3(1, 1, 1), Vec3(2, 2, 2), Vec3(0, 0, 1), Vec3(0, 0, 0), Vec3(3, 0, 0)};
    m.indices = {0, 1, 2, 0, 0, 0, 0, 4, 3, 1, 1, 2, 0, 3, 5, 4, 5, 3, 2, 1, 0};
    return m;
}

struct SeedRay
{
    Vec3 origin, direction;
    int bounds = 0;  // bit 0: tMin follows, bit 1: t follows; policy above
    float tMin = 0.0f, t = kInf;
};

// Small integers take one byte, everything else five.
bool isSmallInt(double v)
{
    return v == std::floor(v) && std::abs(v) <= 55.0 && !(v == 0.0 && std::signbit(v));
}

void encodeReal(Output& out, float v)
{
    if (isSmallInt(v))
        out.smallInt(static_cast<int>(v));
    else
        out.real(v);
}

void encodeRay(Output& out, const SeedRay& r, bool withKind)
{
    if (withKind)
        out.byte(0);
    for (int a = 0; a < 3; ++a)
        encodeReal(out, r.origin[a]);
    for (int a = 0; a < 3; ++a)
        encodeReal(out, r.direction[a]);
    out.byte(static_cast<uint8_t>(r.bounds));
    if (r.bounds & 1)
        encodeReal(out, r.tMin);
    if (r.bounds & 2)
        encodeReal(out, r.t);
}

void encodePlanes(Output& out, const std::vector<Wm4::Vector4<float>>& planes)
{
    out.byte(1);
    out.byte(static_cast<uint8_t>(planes.size()));
    for (const auto& p : planes)
        for (int i = 0; i < 4; ++i)
            encodeReal(out, p[i]);
}

std::vector<SeedRay> raysAt(float lo, float hi)
{
    const float mid = (lo + hi) / 2;
    std::vector<SeedRay> rays = {
        {Vec3(mid, mid, hi + 5), Vec3(0, 0, -1)},
        {Vec3(lo - 3, mid, mid), Vec3(1, 0, 0), 4},   // front faces only
        {Vec3(lo - 3, mid, mid), Vec3(1, 0, 0), 8},   // back faces only
        {Vec3(mid, mid, mid), Vec3(1, 2, 3)},         // from inside
        {Vec3(lo, mid, hi + 1), Vec3(0, 0, -1)},      // on a box face, zero direction components
        {Vec3(lo, lo, hi + 1), Vec3(0, 0, -1)},       // through a corner
        {Vec3(hi + 2, hi + 2, hi + 2), Vec3(-1, -1, -1), 3, 1.0f, 4.0f},
        {Vec3(mid, lo - 1, mid), Vec3(0, -1, 0), 1, -kInf, kInf},  // the box behind the origin
        {Vec3(mid, mid, hi + 5), Vec3(0, 0, 0)},
        {Vec3(kNaN, mid, mid), Vec3(1, 0, 0)},
    };
    return rays;
}

void writeGeometrySeeds(const std::string& name, const SeedMesh& m, float lo, float hi, uint8_t flags, uint8_t leaf,
                        bool spatialSplits = true)
{
    Output q;
    q.byte(static_cast<uint8_t>(flags | (spatialSplits ? 0 : 4)));
    q.byte(leaf);
    q.byte(20);
    q.byte(16);
    kxfuzz::encodeMesh(q, m.positions, m.indices, m.repeat);
    for (const SeedRay& r : raysAt(lo, hi))
        encodeRay(q, r, true);
    const float mid = (lo + hi) / 2;
    encodePlanes(q, {Wm4::Vector4<float>(1, 0, 0, -lo), Wm4::Vector4<float>(-1, 0, 0, mid),
                     Wm4::Vector4<float>(0, 1, 0, -lo), Wm4::Vector4<float>(0, -1, 0, hi),
                     Wm4::Vector4<float>(0, 0, 1, -lo), Wm4::Vector4<float>(0, 0, -1, hi)});
    encodePlanes(q, {});
    encodePlanes(q, {Wm4::Vector4<float>(0, 0, 1, -(hi + 1))});
    write("kxFuzzBuildAndQuery", name, q.bytes());

    Output c;
    c.byte(static_cast<uint8_t>(leaf == 0 ? 0 : leaf - 1));
    c.byte(spatialSplits ? 15 : 0x8F);
    kxfuzz::encodeMesh(c, m.positions, m.indices, m.repeat);
    for (const SeedRay& r : raysAt(lo, hi))
        encodeRay(c, r, false);
    write("kxFuzzRayCrossCheck", name, c.bytes());
}

void writeMeshSeeds()
{
    writeGeometrySeeds("cube", cube(-1, 1), -1, 1, 3, 4);
    writeGeometrySeeds("cube-vertices-only", cube(0, 2), 0, 2, 1, 1);
    writeGeometrySeeds("cube-no-data", cube(0, 2), 0, 2, 0, 2);
    writeGeometrySeeds("terrain", terrain(8, 1.0f), 0, 7, 3, 4);
    writeGeometrySeeds("terrain-huge", terrain(6, 1e30f), 0, 5e30f, 3, 2);
    writeGeometrySeeds("terrain-tiny", terrain(6, 1e-30f), 0, 5e-30f, 2, 8);
    writeGeometrySeeds("unusual-values", unusualValues(), 0, 1, 3, 2);
    writeGeometrySeeds("degenerate", degenerate(), 0, 2, 3, 1);
    writeGeometrySeeds("slivers", slivers(), 0, 9, 3, 2);
    writeGeometrySeeds("slivers-no-spatial-splits", slivers(), 0, 9, 3, 4, false);
    SeedMesh repeated = cube(0, 4);
    repeated.repeat = 7;  // 512 copies of each triangle
    writeGeometrySeeds("repeated", repeated, 0, 4, 3, 4);
    SeedMesh many = terrain(7, 0.5f);
    many.repeat = 6;  // 64 copies: nodes beyond the SAH builder's binned range
    writeGeometrySeeds("terrain-repeated", many, 0, 3, 3, 16);
}

// ---- transformations

struct Program
{
    Output out;
    bool isDouble;

    void real(double v)
    {
        if (isSmallInt(v))
            out.smallInt(static_cast<int>(v));
        else if (isDouble)
            out.realDouble(v);
        else
            out.real(static_cast<float>(v));
    }
    void vector(double x, double y, double z) { real(x), real(y), real(z); }
    void op(int code, int target) { out.byte(static_cast<uint8_t>(code)), out.byte(static_cast<uint8_t>(target)); }
    // What apply reads after every operation.
    void apply(double s)
    {
        for (int i = 0; i < 5; ++i)
            vector(i * s, -s, 0.5 * i);
        out.byte(static_cast<uint8_t>(s > 0));
        vector(0, 1, 0);
        real(s);
    }
    void rotation(double x, double y, double z, double angle)
    {
        out.byte(1);
        real(angle);
        vector(x, y, z);
    }
    void matrix(const double (&m)[9])
    {
        out.byte(0);
        for (double v : m)
            real(v);
    }
};

void writeTransformationSeeds()
{
    for (int precision = 0; precision < 2; ++precision)
    {
        const std::string suffix = precision ? "-double" : "-float";
        {
            Program p{Output(), precision == 1};
            p.out.byte(static_cast<uint8_t>(precision));
            p.op(2, 0), p.rotation(0, 0, 1, 0.7853981633974483), p.apply(1);
            p.op(5, 0), p.vector(2, 3, -4), p.apply(2);
            p.op(4, 0), p.vector(1, -2, 0.25), p.apply(3);
            p.op(6, 1), p.real(2), p.apply(-1);
            p.op(2, 1), p.rotation(1, 0, 0, 1.5), p.apply(0.5);
            p.op(7, 2), p.apply(1);
            p.op(9, 1), p.apply(2);
            p.op(11, 0), p.apply(1);
            p.op(13, 2), p.apply(1);
            write("kxFuzzTransformation", "rotate-scale-translate" + suffix, p.out.bytes());
        }
        {
            Program p{Output(), precision == 1};
            p.out.byte(static_cast<uint8_t>(precision));
            p.op(3, 0), p.matrix({1, 2, 0, 0, 1, 0, 3, 0, 1}), p.apply(1);
            p.op(6, 1), p.real(0), p.apply(1);  // zero uniform scale
            p.op(5, 2), p.vector(-2, 2, 2), p.apply(1);  // equal magnitudes, mixed signs
            p.op(9, 0), p.apply(1);
            p.op(7, 1), p.apply(1);
            p.op(10, 2);
            for (int i = 0; i < 16; ++i)
                p.real(i % 5 == 0 ? -1 : (i == 14 ? 0.0005 : 0));
            p.out.byte(1), p.apply(1);
            p.op(1, 2), p.apply(1);
            p.op(12, 2), p.out.byte(1), p.out.byte(2), p.real(-0.0), p.apply(1);
            p.op(13, 2), p.apply(1);
            p.op(0, 0), p.apply(1);
            write("kxFuzzTransformation", "general-singular-mirror" + suffix, p.out.bytes());
        }
    }
}

// ---- mesh files

void meshFile(const std::string& name, int extension, const std::string& content)
{
    std::vector<uint8_t> bytes{static_cast<uint8_t>(extension)};
    bytes.insert(bytes.end(), content.begin(), content.end());
    write("kxFuzzMeshReading", name, bytes);
}

std::string littleEndian(const void* data, size_t size)
{
    return std::string(static_cast<const char*>(data), size);
}

std::string base64(const std::string& bytes)
{
    static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3)
    {
        uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
        if (i + 1 < bytes.size())
            v |= uint32_t(uint8_t(bytes[i + 1])) << 8;
        if (i + 2 < bytes.size())
            v |= uint8_t(bytes[i + 2]);
        out += digits[v >> 18];
        out += digits[(v >> 12) & 63];
        out += i + 1 < bytes.size() ? digits[(v >> 6) & 63] : '=';
        out += i + 2 < bytes.size() ? digits[v & 63] : '=';
    }
    return out;
}

// One triangle's positions and indices as a glTF buffer.
std::string gltfBuffer()
{
    const float positions[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const uint16_t indices[4] = {0, 1, 2, 0};  // padded to four bytes
    return littleEndian(positions, sizeof positions) + littleEndian(indices, sizeof indices);
}

std::string gltfJson(const std::string& uri)
{
    return R"({"asset":{"version":"2.0"},"scene":0,"scenes":[{"nodes":[0]}],"nodes":[{"mesh":0}],)"
           R"("meshes":[{"primitives":[{"attributes":{"POSITION":0},"indices":1}]}],)"
           R"("buffers":[{)" + uri + R"("byteLength":44}],)"
           R"("bufferViews":[{"buffer":0,"byteOffset":0,"byteLength":36},{"buffer":0,"byteOffset":36,"byteLength":6}],)"
           R"("accessors":[{"bufferView":0,"componentType":5126,"count":3,"type":"VEC3","min":[0,0,0],"max":[1,1,0]},)"
           R"({"bufferView":1,"componentType":5123,"count":3,"type":"SCALAR"}]})";
}

void writeMeshFileSeeds()
{
    meshFile("cube.obj", 0,
             "# a cube of quads and one triangle\n"
             "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 0 0 1\nv 1 0 1\nv 1 1 1\nv 0 1 1\n"
             "vn 0 0 1\n"
             "f 1 4 3 2\nf 5 6 7 8\nf 1 2 6 5\nf 2 3 7 6\nf 3 4 8 7\nf 4//1 1//1 8//1\n");
    meshFile("tetrahedron.ply", 1,
             "ply\nformat ascii 1.0\ncomment made by hand\nelement vertex 4\n"
             "property float x\nproperty float y\nproperty float z\n"
             "element face 4\nproperty list uchar int vertex_indices\nend_header\n"
             "0 0 0\n1 0 0\n0 1 0\n0 0 1\n3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n");
    {
        std::string ply = "ply\nformat binary_little_endian 1.0\nelement vertex 4\n"
                          "property float x\nproperty float y\nproperty float z\n"
                          "element face 2\nproperty list uchar uint vertex_indices\nend_header\n";
        const float v[12] = {0, 0, 0, 2, 0, 0, 2, 2, 0, 0, 2, 0};
        ply += littleEndian(v, sizeof v);
        const uint32_t faces[2][3] = {{0, 1, 2}, {0, 2, 3}};
        for (const auto& f : faces)
        {
            ply += char(3);
            ply += littleEndian(f, sizeof f);
        }
        meshFile("square-binary.ply", 1, ply);
    }
    meshFile("two-facets.stl", 2,
             "solid two\n"
             "facet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\nendloop\nendfacet\n"
             "facet normal 0 0 1\nouter loop\nvertex 1 0 0\nvertex 1 1 0\nvertex 0 1 0\nendloop\nendfacet\n"
             "endsolid two\n");
    {
        std::string stl(80, ' ');
        stl.replace(0, 12, "binary facet");
        const uint32_t count = 2;
        stl += littleEndian(&count, 4);
        const float facets[2][12] = {{0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 0, 1, 1, 0, 0, 1, 1, 0, 0, 1, 0}};
        for (const auto& f : facets)
        {
            stl += littleEndian(f, sizeof f);
            stl += std::string(2, '\0');
        }
        meshFile("two-facets-binary.stl", 2, stl);
    }
    meshFile("tetrahedron.off", 3, "OFF\n4 4 6\n0 0 0\n1 0 0\n0 1 0\n0 0 1\n3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n");
    meshFile("triangle.gltf", 4,
             gltfJson("\"uri\":\"data:application/octet-stream;base64," + base64(gltfBuffer()) + "\","));
    {
        std::string json = gltfJson("");
        json.append((4 - json.size() % 4) % 4, ' ');
        const std::string bin = gltfBuffer();
        const uint32_t header[3] = {0x46546C67u, 2, uint32_t(12 + 8 + json.size() + 8 + bin.size())};
        const uint32_t jsonChunk[2] = {uint32_t(json.size()), 0x4E4F534Au};
        const uint32_t binChunk[2] = {uint32_t(bin.size()), 0x004E4942u};
        meshFile("triangle.glb", 5,
                 littleEndian(header, 12) + littleEndian(jsonChunk, 8) + json + littleEndian(binChunk, 8) + bin);
    }
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: %s FOLDER\n  writes the seed corpora into FOLDER/<target>/\n", argv[0]);
        return 2;
    }
    gRoot = argv[1];
    writeArraySeeds();
    writeMeshSeeds();
    writeTransformationSeeds();
    writeMeshFileSeeds();
    return 0;
}
