// The extension kxbvh._kxbvh: meshes in and out as numpy arrays, and the QBVH class.
#include "PyQBVH.h"
#include "PythonLog.h"
#include "Signals.h"

#include <Errors.h>
#include <MeshSource.h>
#include <Scene.h>

#include <kxCommonAddOnsVersion.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace kxpy
{
namespace
{
static_assert(sizeof(Wm4::Vector3<float>) == 3 * sizeof(float), "positions are copied as rows of three floats");

py::tuple meshArrays(const kx::kxTriMesh& mesh)
{
    const kx::kxVertexBuffer& vertexBuffer = *mesh.GetVertexBuffer();
    const kx::kxIndexBuffer& indexBuffer = *mesh.GetIndexBuffer();
    const py::ssize_t vertexCount = vertexBuffer.GetVertexQuantity();
    const py::ssize_t triangleCount = indexBuffer.GetIndexQuantity() / 3;
    py::array_t<float> vertices({vertexCount, py::ssize_t(3)});
    py::array_t<uint32_t> triangles({triangleCount, py::ssize_t(3)});
    if (vertexCount > 0)
        std::memcpy(vertices.mutable_data(), &vertexBuffer.Position3(0), size_t(vertexCount) * 3 * sizeof(float));
    if (triangleCount > 0)
        std::memcpy(triangles.mutable_data(), indexBuffer.GetData(), size_t(triangleCount) * 3 * sizeof(uint32_t));
    return py::make_tuple(vertices, triangles);
}

[[noreturn]] void raiseOSError(const std::string& message, const py::object& path)
{
    py::object error = py::reinterpret_borrow<py::object>(PyExc_OSError)(message);
    error.attr("filename") = path;
    PyErr_SetObject(PyExc_OSError, error.ptr());
    throw py::error_already_set();
}

py::tuple load(const py::object& pathObject)
{
    const py::object path = py::module_::import("os").attr("fsdecode")(pathObject);
    const std::string name = path.cast<std::string>();
    struct stat info;
    if (stat(name.c_str(), &info) != 0)
    {
        PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, path.ptr());
        throw py::error_already_set();
    }
    kxbvh::Mesh mesh;
    std::string failure;
    runWatchingSignals([&]() {
        try
        {
            // No address-space limit while assimp reads: the tool's limit is process-wide,
            // which a module must not impose on the program around it.
            kxbvh::ReadOptions options;
            options.memory = 0;
            mesh = kxbvh::loadMeshFile(name, options);
        }
        catch (const kxbvh::InputError& error)
        {
            failure = error.what();
        }
    });
    if (!failure.empty())
        raiseOSError(failure, path);
    return meshArrays(*mesh.mesh);
}

py::tuple demoScene(long long triangles)
{
    if (triangles < static_cast<long long>(kxbvh::kMinSceneTriangles) ||
        triangles > static_cast<long long>(kxbvh::kMaxSceneTriangles))
        throw py::value_error("triangles must be between " + std::to_string(kxbvh::kMinSceneTriangles) + " and " +
                              std::to_string(kxbvh::kMaxSceneTriangles) + ", got " + std::to_string(triangles));
    kx::kxPointer<kx::kxTriMesh> mesh;
    runWatchingSignals([&]() { mesh = kxbvh::makeScene(static_cast<uint64_t>(triangles)); });
    return meshArrays(*mesh);
}

constexpr double kInfinity = std::numeric_limits<double>::infinity();

const char* const kLoadDoc = R"(Reads a mesh file with assimp (OBJ, PLY, STL, glTF/GLB, OFF, FBX, DAE, ...).

Every mesh of the file is triangulated and merged into one, with its node transforms
applied, exactly as the kxbvh tool reads it.

Returns (vertices, triangles): float32 of shape (V, 3) and uint32 of shape (T, 3).
While assimp reads, its own messages are silenced: the process's standard output and
error lead nowhere for that moment. Ctrl-C raises KeyboardInterrupt.

Raises OSError (FileNotFoundError, PermissionError, ...) naming the path when the file
cannot be read, is not a mesh assimp understands, has no triangles or has coordinates
that are not finite numbers.)";

const char* const kDemoSceneDoc = R"(The kxbvh tool's built-in scene: a bumpy sphere ringed by a tilted torus over hilly
ground, Y up, about `triangles` triangles (within a few percent), the same on every run.

Returns (vertices, triangles): float32 (V, 3) and uint32 (T, 3). ValueError unless
100 <= triangles <= 50,000,000. Ctrl-C raises KeyboardInterrupt.)";

const char* const kClassDoc = R"(A four-wide bounding volume hierarchy over a triangle mesh, for ray and region queries.

QBVH(vertices, triangles, builder="linear", leaf=4)

vertices: (V, 3) real numbers (float32 or float64 are read in place, other dtypes are
    converted once); triangles: (T, 3) integers, indices into vertices.
builder: "linear" (Morton codes, fastest build), "sah" (binned surface-area heuristic) or
    "hq" (high quality: spatial splits and leaves laid out for full four-wide nodes; the
    slowest build and the fastest queries).
leaf: largest leaf of the linear and hq builders, 1 to 1024 triangles; the SAH builder
    sizes its leaves by cost and takes only the default.

The library's mesh type owns its buffers, so the build reads your arrays once into such a
mesh and drops it when done; the hierarchy keeps its own copy of the triangles, nothing
refers to your arrays afterwards. The GIL is released while building; Ctrl-C stops the
build and raises KeyboardInterrupt.

Raises ValueError for shapes other than (V, 3) and (T, 3), an empty triangle array, an
index outside the vertices, a coordinate that is not a finite float32, an unknown builder
or a bad leaf size; TypeError for arrays that do not hold numbers (vertices) or integers
(triangles).

Queries take any leading batch shape: origins (..., 3) give results of shape (...). They
run on `threads` threads (0: every core this process may use) without the GIL, and
Ctrl-C stops them with KeyboardInterrupt. A QBVH may be queried from several Python
threads at once. A large batch in no spatial order (random rays, scattered points) is
answered in one, for the cache's sake; each row still gets what it would get alone.)";

const char* const kIntersectDoc = R"(Nearest hit of each ray.

origins, directions: (..., 3); equal shapes, or one of them a single (3,) row shared by
    every ray. Distances are in units of each direction's length.
tmin, tmax: the accepted distances, tmin <= t <= tmax (tmin may be negative).
side: "all", "front" (rays running against the triangle's normal, that is onto the side
    where its corners turn counter-clockwise) or "back".
threads: 0 for every core.

Returns a dict of numpy arrays:
    t            float32 (...), the distance, inf on a miss;
    triangle     uint32 (...), the triangle's row in `triangles`, 0xFFFFFFFF on a miss;
    barycentric  float32 (..., 2), the weights of the triangle's corners 0 and 1 at the
                 hit (corner 2 has 1 - both), (0, 0) on a miss.
Rays with NaN coordinates miss.)";

const char* const kSymmetricDoc = R"(Each ray as a whole line: the front-facing triangle (normal against the direction)
crossed nearest to the origin, ahead or behind, within tmax (>= 0).

Returns the dict of intersect; `t` is the distance, never negative.)";

const char* const kOccludedDoc = R"(Whether anything lies on each ray: what intersect with the same arguments
would call a hit, found without looking for the nearest one, so it stops at the first
triangle it accepts.

Takes the arguments of intersect; returns a bool array of shape (...).)";

const char* const kClosestPointsDoc = R"(The point of the mesh nearest to each point, within max_distance
(inf: no limit).

points: (..., 3). threads: 0 for every core.

Returns a dict of numpy arrays:
    distance     float32 (...), inf when no triangle lies within max_distance;
    point        float32 (..., 3), the nearest point of the mesh, NaN then;
    triangle     uint32 (...), its triangle's row in `triangles`, 0xFFFFFFFF then;
    barycentric  float32 (..., 2), the weights of the triangle's corners 0 and 1 at the
                 nearest point, (0, 0) then.
Where several triangles are equally near, any of them may be reported.)";

const char* const kConvexHullDoc = R"(Whether any triangle has a part strictly inside a convex region.

planes: (K, 4) rows (a, b, c, d); a point p is inside a plane when
    a*px + b*py + c*pz + d > 0, and inside the region when inside all K planes. With K = 0
    the region is all of space.
    A batch (..., K, 4) of plane sets gives a bool array of shape (...).
threads: 0 for every core (batches only).

Returns a bool, or a bool array for a batch. ValueError for NaN coefficients.

As the library answers it: the padding of a leaf's last group of four counts as triangles
at the origin, so a region that strictly contains the origin may answer True even when no
real triangle reaches inside it.)";

const char* const kInfoDoc = R"(The figures `kxbvh info --json` prints, as a dict: "mesh" (source, triangles, vertices,
bounds, seconds to read the arrays), "build" (builder, leaf_size, seconds per phase; peak_bytes
is None here, as only the tool counts its heap),
"bvh" (the binary hierarchy: nodes, leaves, leaf sizes, depth, SAH cost, memory), "qbvh"
(four-wide nodes, triangle groups, memory) and "memory".)";
} // namespace

void bindQBVH(py::module_& module)
{
    using namespace pybind11::literals;
    py::class_<PyQBVH>(module, "QBVH", kClassDoc)
        .def(py::init<const py::object&, const py::object&, const std::string&, long long>(), "vertices"_a,
             "triangles"_a, "builder"_a = "linear", "leaf"_a = 4)
        .def("intersect", &PyQBVH::intersect, kIntersectDoc, "origins"_a, "directions"_a,
             "tmin"_a = 0.0, "tmax"_a = kInfinity, "side"_a = "all", "threads"_a = 0)
        .def("intersect_symmetric", &PyQBVH::intersectSymmetric, kSymmetricDoc, "origins"_a, "directions"_a,
             "tmax"_a = kInfinity, "threads"_a = 0)
        .def("occluded", &PyQBVH::occluded, kOccludedDoc, "origins"_a, "directions"_a, "tmin"_a = 0.0,
             "tmax"_a = kInfinity, "side"_a = "all", "threads"_a = 0)
        .def("closest_points", &PyQBVH::closestPoints, kClosestPointsDoc, "points"_a, "max_distance"_a = kInfinity,
             "threads"_a = 0)
        .def("convex_hull", &PyQBVH::convexHull, kConvexHullDoc, "planes"_a, "threads"_a = 0)
        .def("info", &PyQBVH::info, kInfoDoc)
        .def("__repr__", &PyQBVH::repr);
}
} // namespace kxpy

PYBIND11_MODULE(_kxbvh, module)
{
    using namespace pybind11::literals;
    module.doc() = "Ray casting, occlusion and region queries on triangle meshes with kxCommonAddOns' QBVH.";
    module.attr("__version__") = kxCommonAddOns::Version::GetDescStringMajorMinorRelease(false);
    module.def("load", &kxpy::load, kxpy::kLoadDoc, "path"_a);
    module.def("demo_scene", &kxpy::demoScene, kxpy::kDemoSceneDoc, "triangles"_a = 1000000);
    kxpy::bindQBVH(module);
    kxpy::routeLibraryLogToPython();
}
