#include "Build.h"

#include "Signals.h"

#include <kxBVHContainers.h>
#include <kxGenericBVHBuilder.h>
#include <kxHighQualityBVHBuilder.h>
#include <kxLinearGenericBVHBuilder.h>
#include <Stopwatch.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

namespace kxpy
{
namespace
{
// The resolution buildFromMesh uses.
constexpr unsigned kMortonBits = 20;

/// A 2-D array read through its strides, whatever its layout and alignment.
struct Strided
{
    const char* base;
    py::ssize_t rowStride;
    py::ssize_t columnStride;

    explicit Strided(const py::array& a)
        : base(static_cast<const char*>(a.data())), rowStride(a.strides(0)), columnStride(a.strides(1))
    {
    }

    template <typename T>
    T at(size_t row, size_t column) const
    {
        T value;
        std::memcpy(&value, base + py::ssize_t(row) * rowStride + py::ssize_t(column) * columnStride, sizeof value);
        return value;
    }
};

std::string pointText(double x, double y, double z)
{
    std::ostringstream text;
    text.precision(9);
    text << "(" << x << ", " << y << ", " << z << ")";
    return text.str();
}

/// Returns the row of the first vertex that is not a finite float32, or count.
template <typename T>
size_t copyVertices(const Strided& in, size_t count, kx::kxVertexBuffer& out)
{
    for (size_t i = 0; i < count; ++i)
    {
        const Wm4::Vector3<float> p(static_cast<float>(in.at<T>(i, 0)), static_cast<float>(in.at<T>(i, 1)),
                                    static_cast<float>(in.at<T>(i, 2)));
        if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2]))
            return i;
        out.Position3(static_cast<int>(i)) = p;
    }
    return count;
}

struct BadIndex
{
    size_t row = 0;
    long double value = 0;  // wide enough for every integer dtype
};

/// Returns the first index outside [0, vertices), if any.
template <typename T>
bool copyIndices(const Strided& in, size_t triangles, size_t vertices, unsigned* out, BadIndex& bad)
{
    for (size_t t = 0; t < triangles; ++t)
        for (size_t k = 0; k < 3; ++k)
        {
            const T index = in.at<T>(t, k);
            // Comparing through long double keeps negative values of signed types negative.
            if (static_cast<long double>(index) < 0 || static_cast<long double>(index) >= vertices)
            {
                bad = {t, static_cast<long double>(index)};
                return false;
            }
            out[3 * t + k] = static_cast<unsigned>(index);
        }
    return true;
}

template <typename Body>
decltype(auto) byIntegerType(const py::array& array, Body&& body)
{
    const bool isSigned = array.dtype().kind() == 'i';
    switch (array.itemsize())
    {
    case 1:
        return isSigned ? body(int8_t()) : body(uint8_t());
    case 2:
        return isSigned ? body(int16_t()) : body(uint16_t());
    case 4:
        return isSigned ? body(int32_t()) : body(uint32_t());
    default:
        return isSigned ? body(int64_t()) : body(uint64_t());
    }
}

py::array matrixOfRows(py::array array, const char* name, const char* rowName)
{
    if (array.ndim() != 2 || array.shape(1) != 3)
        throw py::value_error(std::string(name) + " must have shape (" + rowName + ", 3), got " + shapeText(array));
    return array;
}
} // namespace

BuilderKind builderKind(const std::string& name)
{
    if (name == "linear")
        return BuilderKind::eLinear;
    if (name == "sah")
        return BuilderKind::eSah;
    if (name == "hq")
        return BuilderKind::eHq;
    throw py::value_error("builder must be 'linear', 'sah' or 'hq', got '" + name + "'");
}

const char* builderText(BuilderKind kind)
{
    return kind == BuilderKind::eSah ? "sah" : kind == BuilderKind::eHq ? "hq" : "linear";
}

kxbvh::Mesh meshFromArrays(py::handle verticesObject, py::handle trianglesObject)
{
    py::array vertices = matrixOfRows(realArray(verticesObject, "vertices"), "vertices", "V");
    py::array triangles = matrixOfRows(integerArray(trianglesObject, "triangles"), "triangles", "T");
    const size_t vertexCount = static_cast<size_t>(vertices.shape(0));
    const size_t triangleCount = static_cast<size_t>(triangles.shape(0));
    if (triangleCount == 0)
        throw py::value_error("triangles is empty (shape " + shapeText(triangles) +
                              "): a QBVH needs at least one triangle");
    if (triangleCount > kxbvh::kMaxTriangles)
        throw py::value_error("triangles has " + std::to_string(triangleCount) + " rows; at most " +
                              std::to_string(kxbvh::kMaxTriangles) + " fit in one hierarchy");
    if (vertexCount > size_t(std::numeric_limits<int>::max()))
        throw py::value_error("vertices has " + std::to_string(vertexCount) + " rows; at most " +
                              std::to_string(std::numeric_limits<int>::max()) + " fit in a mesh");
    if (vertices.dtype().kind() != 'f' || (vertices.itemsize() != 4 && vertices.itemsize() != 8))
        vertices = contiguousFloats(vertices);
    const bool doubles = vertices.itemsize() == 8;

    kxbvh::Mesh mesh;
    mesh.name = "arrays";
    size_t badVertex = vertexCount;
    BadIndex badIndex;
    bool indicesOk = true;
    {
        py::gil_scoped_release release;
        kxbvh::Stopwatch clock;
        kx::kxPointer<kx::kxVertexBuffer> vertexBuffer = new kx::kxVertexBuffer(static_cast<int>(vertexCount));
        badVertex = doubles ? copyVertices<double>(Strided(vertices), vertexCount, *vertexBuffer)
                            : copyVertices<float>(Strided(vertices), vertexCount, *vertexBuffer);
        kx::kxPointer<kx::kxIndexBuffer> indexBuffer = new kx::kxIndexBuffer(static_cast<int>(3 * triangleCount));
        if (badVertex == vertexCount)
            indicesOk = byIntegerType(triangles, [&](auto type) {
                return copyIndices<decltype(type)>(Strided(triangles), triangleCount, vertexCount,
                                                   indexBuffer->GetData(), badIndex);
            });
        if (badVertex == vertexCount && indicesOk)
        {
            mesh.mesh = new kx::kxTriMesh(vertexBuffer, indexBuffer);
            mesh.vertices = static_cast<uint32_t>(vertexCount);
            mesh.triangles = static_cast<uint32_t>(triangleCount);
            for (size_t v = 0; v < vertexCount; ++v)
                mesh.bounds.extend(vertexBuffer->Position3(static_cast<int>(v)));
        }
        mesh.seconds = clock.lap();
    }
    if (badVertex != vertexCount)
    {
        const Strided in(vertices);
        auto get = [&](size_t k) { return doubles ? in.at<double>(badVertex, k) : double(in.at<float>(badVertex, k)); };
        throw py::value_error("vertices must be finite numbers within float32 range; vertices[" +
                              std::to_string(badVertex) + "] is " + pointText(get(0), get(1), get(2)));
    }
    if (!indicesOk)
    {
        std::ostringstream text;
        text << "triangles[" << badIndex.row << "] refers to vertex " << static_cast<long long>(badIndex.value)
             << ", but vertex indices run from 0 to " << vertexCount - 1;
        if (vertexCount == 0)
            text.str("triangles refer to vertices, but vertices is empty");
        throw py::value_error(text.str());
    }
    return mesh;
}

Figures buildQBVH(const kxbvh::Mesh& mesh, BuilderKind builder, unsigned leaf, kxQBVH& out)
{
    Figures figures;
    figures.source = mesh.name;
    figures.triangles = mesh.triangles;
    figures.vertices = mesh.vertices;
    figures.bounds = mesh.bounds;
    figures.meshSeconds = mesh.seconds;
    figures.builder = builder;
    figures.leaf = leaf;

    const PythonSignals signals;
    bool built = false;
    {
        py::gil_scoped_release release;
        kxGenericBVH bvh;
        kxbvh::Stopwatch clock;
        const kxBVHTriangleContainer container(*mesh.mesh);
        figures.times.container = clock.lap();
        if (builder == BuilderKind::eLinear)
        {
            kxLinearGenericBVHBuilder linear;
            linear.setMaxPrimitivesPerLeaf(leaf);
            built = linear.build(container, bvh, &signals, kMortonBits);
        }
        else if (builder == BuilderKind::eHq)
        {
            kxHighQualityBVHBuilder hq;
            hq.setMaxPrimitivesPerLeaf(leaf);
            built = hq.build(*mesh.mesh, bvh, &signals);
        }
        else
        {
            // The SAH builder cannot be stopped midway: Ctrl-C counts once it returns.
            kxGenericBVHBuilder sah;
            sah.build(container, bvh);
            built = !signals.shouldCancel();
        }
        figures.times.binary = clock.lap();
        if (built)
        {
            out.buildFromBVH(kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations), bvh,
                             *mesh.mesh);
            figures.times.collapse = clock.lap();
            figures.bvh = kxbvh::binaryStats(bvh);
            figures.qbvh = kxbvh::qbvhStats(out);
        }
    }
    signals.raiseIfInterrupted();
    return figures;
}

py::dict figuresDict(const Figures& f)
{
    using namespace pybind11::literals;
    auto point = [](const float* xyz) { return py::make_tuple(xyz[0], xyz[1], xyz[2]); };
    py::dict mesh("source"_a = f.source, "triangles"_a = f.triangles, "vertices"_a = f.vertices,
                  "bounds"_a = py::dict("min"_a = point(f.bounds.min), "max"_a = point(f.bounds.max)),
                  "seconds"_a = f.meshSeconds);
    py::dict seconds("container"_a = f.times.container, "binary"_a = f.times.binary, "qbvh"_a = f.times.collapse,
                     "total"_a = f.times.total());
    py::dict build("builder"_a = builderText(f.builder),
                   "leaf_size"_a = f.builder == BuilderKind::eSah ? py::object(py::none()) : py::int_(f.leaf),
                   "seconds"_a = seconds, "peak_bytes"_a = py::none());
    py::dict bvh("nodes"_a = f.bvh.nodes, "tree_nodes"_a = f.bvh.treeNodes, "leaves"_a = f.bvh.leaves,
                 "min_leaf"_a = f.bvh.minLeaf, "max_leaf"_a = f.bvh.maxLeaf, "avg_leaf"_a = f.bvh.avgLeaf,
                 "largest_leaf_depth"_a = f.bvh.largestLeafDepth, "depth"_a = f.bvh.depth,
                 "sah_cost"_a = f.bvh.sahCost, "memory_bytes"_a = f.bvh.memoryBytes,
                 "references"_a = f.bvh.references);
    py::dict qbvh("nodes"_a = f.qbvh.nodes, "groups"_a = f.qbvh.groups, "sah_cost"_a = f.qbvh.sahCost,
                  "memory_bytes"_a = f.qbvh.memoryBytes,
                  "equations_bytes_per_triangle"_a = double(f.qbvh.equationBytes) / f.triangles);
    py::dict memory("total_bytes"_a = f.qbvh.memoryBytes,
                    "bytes_per_triangle"_a = double(f.qbvh.memoryBytes) / f.triangles);
    return py::dict("mesh"_a = mesh, "build"_a = build, "bvh"_a = bvh, "qbvh"_a = qbvh, "memory"_a = memory);
}
} // namespace kxpy
