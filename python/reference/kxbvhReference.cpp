// Answers queries one at a time on one thread, on a hierarchy built by the kxbvh tool's own
// code: what the Python module must reproduce, and the plain C++ loop its overhead is
// measured against.
//
//   kxbvhReference QUERY BUILDER LEAF VERTICES TRIANGLES INPUT OUTPUT [OPTION=VALUE...]
//
// QUERY: intersect | symmetric | occluded | closest | convex. Files are raw little-endian
// arrays: VERTICES float32 rows of 3, TRIANGLES uint32 rows of 3, INPUT float32 rows (origin
// and direction for rays, points for closest, sets of `planes` rows of 4 for convex).
// OUTPUT gets one record per query: float t, uint32 triangle, float barycentric[2]
// (0xFFFFFFFF and inf on a miss); float distance, float point[3], uint32 triangle, float
// barycentric[2] for closest; one byte 0/1 for occluded and convex. Options: tmin, tmax (the
// largest distance for closest), side (all|front|back), planes, repeat (times the query
// loop runs; the fastest run is printed as "seconds S").
#include <Hierarchy.h>
#include <MeshSource.h>
#include <Progress.h>
#include <Stopwatch.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{
struct Hit
{
    float t;
    uint32_t triangle;
    float barycentric[2];
};

template <typename T>
std::vector<T> readArray(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot open " + path);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<T> values(bytes.size() / sizeof(T));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(T));
    return values;
}

template <typename T>
void writeArray(const std::string& path, const std::vector<T>& values)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(values.data()), std::streamsize(values.size() * sizeof(T)));
    if (!file)
        throw std::runtime_error("cannot write " + path);
}

kxbvh::Mesh makeMesh(const std::vector<float>& positions, const std::vector<uint32_t>& indices)
{
    auto* vertices = new kx::kxVertexBuffer(int(positions.size() / 3));
    for (int v = 0; v < vertices->GetVertexQuantity(); ++v)
        vertices->Position3(v) = Wm4::Vector3<float>(positions[3 * v], positions[3 * v + 1], positions[3 * v + 2]);
    auto* triangles = new kx::kxIndexBuffer(int(indices.size()));
    std::copy(indices.begin(), indices.end(), triangles->GetData());
    kxbvh::Mesh mesh;
    mesh.mesh = new kx::kxTriMesh(vertices, triangles);
    mesh.triangles = uint32_t(indices.size() / 3);
    mesh.vertices = uint32_t(vertices->GetVertexQuantity());
    return mesh;
}

kxQBVH::tIntersectionPolicy policy(const std::string& side)
{
    if (side == "front")
        return kxQBVH::eFrontSide;
    if (side == "back")
        return kxQBVH::eBackSide;
    return kxQBVH::eAllSides;
}

template <typename Loop>
double fastest(int repeat, Loop&& loop)
{
    double best = std::numeric_limits<double>::infinity();
    for (int r = 0; r < std::max(repeat, 1); ++r)
    {
        kxbvh::Stopwatch clock;
        loop();
        best = std::min(best, clock.lap());
    }
    return best;
}

std::vector<Hit> castRays(const kxQBVH& qbvh, const std::string& query, const std::vector<float>& rays,
                          const std::map<std::string, std::string>& options, double& seconds)
{
    const float tMin = std::stof(options.at("tmin"));
    const float tMax = std::stof(options.at("tmax"));
    const kxQBVH::tIntersectionPolicy side = policy(options.at("side"));
    std::vector<Hit> hits(rays.size() / 6);
    seconds = fastest(std::stoi(options.at("repeat")), [&]() {
        for (size_t i = 0; i < hits.size(); ++i)
        {
            const float* r = &rays[6 * i];
            const Wm4::Vector3<float> origin(r[0], r[1], r[2]), direction(r[3], r[4], r[5]);
            float t = tMax;
            Wm4::Vector2<float> barycentric(0.0f, 0.0f);
            unsigned triangle = 0xFFFFFFFFu;
            const bool hit = query == "intersect"
                                 ? qbvh.intersectRay(origin, direction, tMin, t, barycentric, triangle, side)
                                 : qbvh.intersectRaySymmetric(origin, direction, t, barycentric, triangle);
            hits[i] = hit ? Hit{t, triangle, {barycentric[0], barycentric[1]}}
                          : Hit{std::numeric_limits<float>::infinity(), 0xFFFFFFFFu, {0.0f, 0.0f}};
        }
    });
    return hits;
}

std::vector<uint8_t> occlusions(const kxQBVH& qbvh, const std::vector<float>& rays,
                                const std::map<std::string, std::string>& options, double& seconds)
{
    const float tMin = std::stof(options.at("tmin"));
    const float tMax = std::stof(options.at("tmax"));
    const kxQBVH::tIntersectionPolicy side = policy(options.at("side"));
    std::vector<uint8_t> blocked(rays.size() / 6);
    seconds = fastest(std::stoi(options.at("repeat")), [&]() {
        for (size_t i = 0; i < blocked.size(); ++i)
        {
            const float* r = &rays[6 * i];
            blocked[i] = qbvh.intersectRayAny(Wm4::Vector3<float>(r[0], r[1], r[2]),
                                              Wm4::Vector3<float>(r[3], r[4], r[5]), tMin, tMax, side);
        }
    });
    return blocked;
}

struct Nearest
{
    float distance;
    float point[3];
    uint32_t triangle;
    float barycentric[2];
};

std::vector<Nearest> closestPoints(const kxQBVH& qbvh, const std::vector<float>& points,
                                   const std::map<std::string, std::string>& options, double& seconds)
{
    const float limit = std::stof(options.at("tmax"));
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<Nearest> nearest(points.size() / 3);
    seconds = fastest(std::stoi(options.at("repeat")), [&]() {
        for (size_t i = 0; i < nearest.size(); ++i)
        {
            float distance = limit;
            Wm4::Vector3<float> point(0.0f, 0.0f, 0.0f);
            Wm4::Vector2<float> barycentric(0.0f, 0.0f);
            unsigned triangle = 0xFFFFFFFFu;
            const float* p = &points[3 * i];
            if (qbvh.findClosestPoint(Wm4::Vector3<float>(p[0], p[1], p[2]), distance, point, barycentric, triangle))
                nearest[i] = {distance, {point[0], point[1], point[2]}, triangle, {barycentric[0], barycentric[1]}};
            else
                nearest[i] = {std::numeric_limits<float>::infinity(), {nan, nan, nan}, 0xFFFFFFFFu, {0.0f, 0.0f}};
        }
    });
    return nearest;
}

std::vector<uint8_t> convexHulls(const kxQBVH& qbvh, const std::vector<float>& planes, unsigned perSet,
                                 const std::map<std::string, std::string>& options, double& seconds)
{
    const size_t sets = perSet ? planes.size() / (4 * perSet) : 1;
    std::vector<uint8_t> inside(sets);
    std::vector<Wm4::Vector4<float>> set(perSet);
    std::vector<kxQBVH::tSOASinglePlaneEqn> soa(perSet);
    seconds = fastest(std::stoi(options.at("repeat")), [&]() {
        for (size_t s = 0; s < sets; ++s)
        {
            for (unsigned k = 0; k < perSet; ++k)
            {
                const float* p = &planes[4 * (s * perSet + k)];
                set[k] = Wm4::Vector4<float>(p[0], p[1], p[2], p[3]);
            }
            kxQBVH::InitSOAPlaneEquationSet(set.data(), soa.data(), perSet);
            inside[s] = qbvh.intersectConvexHull(soa.data(), perSet);
        }
    });
    return inside;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc < 8)
    {
        std::fprintf(stderr, "usage: %s intersect|symmetric|occluded|closest|convex linear|sah|hq LEAF VERTICES "
                             "TRIANGLES INPUT OUTPUT [tmin=X tmax=X side=S planes=K repeat=N]\n",
                     argv[0]);
        return 2;
    }
    try
    {
        const std::string query = argv[1];
        std::map<std::string, std::string> options{
            {"tmin", "0"}, {"tmax", "inf"}, {"side", "all"}, {"planes", "0"}, {"repeat", "1"}};
        for (int a = 8; a < argc; ++a)
        {
            const std::string option = argv[a];
            const size_t equals = option.find('=');
            if (equals == std::string::npos || !options.count(option.substr(0, equals)))
                throw std::runtime_error("unknown option " + option);
            options[option.substr(0, equals)] = option.substr(equals + 1);
        }

        kxbvh::setProgressMode(kxbvh::ProgressMode::eNever);
        const kxbvh::Mesh mesh = makeMesh(readArray<float>(argv[4]), readArray<uint32_t>(argv[5]));
        kxbvh::BuildOptions build;
        const std::string builder = argv[2];
        build.builder = builder == "sah" ? kxbvh::Builder::eSah
                        : builder == "hq" ? kxbvh::Builder::eHq
                                          : kxbvh::Builder::eLinear;
        build.leafSize = unsigned(std::stoul(argv[3]));
        kxbvh::Hierarchy hierarchy;
        kxbvh::buildHierarchy(mesh, build, hierarchy);

        const std::vector<float> input = readArray<float>(argv[6]);
        double seconds = 0.0;
        if (query == "convex")
            writeArray(argv[7], convexHulls(hierarchy.qbvh, input, unsigned(std::stoul(options.at("planes"))),
                                            options, seconds));
        else if (query == "occluded")
            writeArray(argv[7], occlusions(hierarchy.qbvh, input, options, seconds));
        else if (query == "closest")
            writeArray(argv[7], closestPoints(hierarchy.qbvh, input, options, seconds));
        else if (query == "intersect" || query == "symmetric")
            writeArray(argv[7], castRays(hierarchy.qbvh, query, input, options, seconds));
        else
            throw std::runtime_error("unknown query " + query);
        std::printf("seconds %.9f\n", seconds);
        return 0;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "kxbvhReference: %s\n", error.what());
        return 1;
    }
}
