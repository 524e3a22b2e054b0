// Hierarchies built over the same mesh by every builder, each answering rays that a brute
// force over all triangles answers too, with the query's own acceptance arithmetic.
//
// What a hierarchy reports must be a triangle that the brute force accepts, at the same
// distance with the same weights, bit for bit. A nearer triangle that the brute force
// accepts may be missing only when the query's slab test rejects the triangle's own box
// at the reported distance: a hit that the edge tolerance accepts just outside the
// triangle can lie outside every box around it. Every box around a triangle holds its own
// box, so the slab test that passes the own box passes them all, except when some slab
// value is NaN: a zero direction component whose origin lies exactly on a box face gives
// 0 x infinity. Such rays are only checked for what they report.
//
// Input: leaf size, bin count (a byte each), the mesh (see decodeMesh), then rays until
// the input ends.
#include "kxFuzz.h"
#include "kxFuzzGeometry.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace
{
using kxfuzz::Input;
using Vec3 = Wm4::Vector3<float>;

constexpr uint32_t kMaxTriangles = 512;
constexpr size_t kMaxRays = 64;
constexpr float kInf = std::numeric_limits<float>::infinity();

struct Ray
{
    float o[3], d[3], inv[3];
    float tMin, t;
    kxQBVH::tIntersectionPolicy policy;
};

Ray decodeRay(Input& in)
{
    Ray r;
    for (float& v : r.o)
        v = in.real();
    for (float& v : r.d)
        v = in.real();
    for (int a = 0; a < 3; ++a)
        r.inv[a] = 1.0f / r.d[a];
    const uint8_t bounds = in.byte();
    r.tMin = (bounds & 1) ? in.real() : 0.0f;
    r.t = (bounds & 2) ? in.real() : kInf;
    r.policy = static_cast<kxQBVH::tIntersectionPolicy>((bounds >> 2) % 3);
    return r;
}

// The SSE rule the query uses: a NaN in either operand yields the second.
float minOf(float a, float b)
{
    return a < b ? a : b;
}

float maxOf(float a, float b)
{
    return a > b ? a : b;
}

bool sameBits(float a, float b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

/// The query's slab test of one box over the interval [lower, upper].
bool slabPasses(const kxBBox& box, const Ray& r, float lower, float upper)
{
    float nearA[3], farA[3];
    for (int a = 0; a < 3; ++a)
    {
        const float t1 = (box.min[a] - r.o[a]) * r.inv[a];
        const float t2 = (box.max[a] - r.o[a]) * r.inv[a];
        nearA[a] = minOf(t1, t2);
        farA[a] = maxOf(t1, t2);
    }
    const float nearT = maxOf(nearA[2], maxOf(nearA[1], maxOf(nearA[0], lower)));
    const float farT = minOf(farA[2], minOf(farA[1], minOf(farA[0], upper)));
    return nearT <= farT && nearT < kInf;
}

struct Candidate
{
    bool accepted;
    float distance;  // |th| for the symmetric query
    float w, u;
};

/// The leaf test's arithmetic for one triangle, with the caller's t as the limit.
Candidate test(const kxQBVH& qbvh, const kxfuzz::Placement& at, const Ray& r, bool symmetric)
{
    const float(*E)[4] = qbvh.getTriangleEquations()[at.group].eq;
    const int k = at.lane;
    const float denom = E[2][k] * r.d[2] + E[1][k] * r.d[1] + E[0][k] * r.d[0];
    const float num = (E[2][k] * r.o[2] + E[3][k]) + E[1][k] * r.o[1] + E[0][k] * r.o[0];
    const float th = -(num / denom);
    const float px = r.d[0] * th + r.o[0];
    const float py = r.d[1] * th + r.o[1];
    const float pz = r.d[2] * th + r.o[2];
    const float u = E[4][k] * px + E[5][k] * py + E[6][k] * pz + E[7][k];
    const float v = E[8][k] * px + E[9][k] * py + E[10][k] * pz + E[11][k];
    const float w = 1.0f - (u + v);
    bool side, inRange;
    if (symmetric)
    {
        side = denom <= 0.0f;
        inRange = std::abs(th) <= std::abs(r.t);
    }
    else
    {
        side = r.policy == kxQBVH::eFrontSide  ? denom <= 0.0f
               : r.policy == kxQBVH::eBackSide ? denom >= 0.0f
                                               : !std::isnan(denom);
        inRange = r.tMin <= th && th <= r.t;
    }
    const bool accepted = side && inRange && -0.0001f < w && -0.0001f < v && -0.0001f < u;
    return Candidate{accepted, symmetric ? std::abs(th) : th, w, u};
}

/// False when some slab value of some box in the tree is NaN for this ray.
bool slabsAreNumbers(const std::vector<float> (&faces)[3], const Ray& r)
{
    for (int a = 0; a < 3; ++a)
        for (float f : faces[a])
            if (std::isnan((f - r.o[a]) * r.inv[a]))
                return false;
    return true;
}

struct Tree
{
    const kxQBVH& qbvh;
    const kxfuzz::Mesh& mesh;
    const std::vector<kxfuzz::Placement>& placement;
    const std::vector<float> (&faces)[3];
    const char* builder;

    void check(const Ray& r, bool symmetric) const
    {
        float t = r.t;
        Wm4::Vector2<float> barycentric(0.0f, 0.0f);
        unsigned int triangle = 0;
        const Vec3 origin(r.o[0], r.o[1], r.o[2]), direction(r.d[0], r.d[1], r.d[2]);
        const bool hit = symmetric ? qbvh.intersectRaySymmetric(origin, direction, t, barycentric, triangle)
                                   : qbvh.intersectRay(origin, direction, r.tMin, t, barycentric, triangle, r.policy);
        const char* query = symmetric ? "intersectRaySymmetric" : "intersectRay";
        if (hit)
        {
            KX_FUZZ_CHECK(triangle < mesh.triangles(), "%s, %s: hit triangle %u of %u", builder, query, triangle,
                          mesh.triangles());
            const Candidate c = test(qbvh, placement[triangle], r, symmetric);
            KX_FUZZ_CHECK(c.accepted && sameBits(c.distance, t) && sameBits(c.w, barycentric[0]) &&
                              sameBits(c.u, barycentric[1]),
                          "%s, %s: reports triangle %u at %a, which the brute force %s at %a", builder, query,
                          triangle, t, c.accepted ? "accepts" : "rejects", c.distance);
        }
        if (!slabsAreNumbers(faces, r))
            return;
        // A lane's hit replaces t only when strictly nearer, so nothing at t itself (or
        // beyond a negative t of the symmetric query) is ever reported.
        const float limit = hit ? t : r.t;
        const float reach = symmetric ? std::abs(limit) : limit;
        const float lower = symmetric ? -reach : r.tMin;
        for (uint32_t i = 0; i < mesh.triangles(); ++i)
        {
            const Candidate c = test(qbvh, placement[i], r, symmetric);
            if (!c.accepted || !(c.distance < limit))
                continue;
            KX_FUZZ_CHECK(!slabPasses(mesh.box(i), r, lower, reach),
                          "%s, %s: %s, but triangle %u is hit at %a inside its box", builder, query,
                          hit ? "reports a farther hit" : "misses", i, c.distance);
        }
    }
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = (kxfuzz::silenceLog(), true);
    (void)quiet;
    Input in(data, size);
    kxfuzz::BuildSettings settings;
    settings.leafSize = 1 + in.byte() % 16;
    settings.binCount = 1 + in.byte() % 32;
    const kxfuzz::Mesh mesh = kxfuzz::decodeMesh(in, kMaxTriangles);
    std::vector<Ray> rays;
    while (!in.empty() && rays.size() < kMaxRays)
        rays.push_back(decodeRay(in));
    if (mesh.triangles() == 0)
        return 0;

    const kxBVHTriangleContainer container(*mesh.mesh);
    const auto flags = kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations);
    for (kxfuzz::Builder builder : kxfuzz::kBuilders)
    {
        const char* name = kxfuzz::builderName(builder);
        kxGenericBVH bvh;
        kxfuzz::buildBinary(builder, settings, container, bvh);
        kxfuzz::checkBinary(bvh, container, name);
        kxQBVH qbvh;
        qbvh.buildFromBVH(flags, bvh, *mesh.mesh);
        kxfuzz::checkFourWide(qbvh, mesh, name);

        // Every face of every box the query may meet: the slots and the triangles' own.
        std::vector<float> faces[3];
        const auto add = [&](const kxBBox& box) {
            if (box == kxBBox())
                return;
            for (int a = 0; a < 3; ++a)
            {
                faces[a].push_back(box.min[a]);
                faces[a].push_back(box.max[a]);
            }
        };
        for (uint32_t n = 0; n < qbvh.getNodeCount(); ++n)
            for (int k = 0; k < 4; ++k)
            {
                const kxQBVH::tQBVHNode& node = qbvh.getNodes()[n];
                add(kxBBox(Vec3(node.bboxMin[0][k], node.bboxMin[1][k], node.bboxMin[2][k]),
                           Vec3(node.bboxMax[0][k], node.bboxMax[1][k], node.bboxMax[2][k])));
            }
        for (uint32_t i = 0; i < mesh.triangles(); ++i)
            add(mesh.box(i));

        const std::vector<kxfuzz::Placement> placement = kxfuzz::placeTriangles(qbvh, mesh.triangles());
        const Tree tree{qbvh, mesh, placement, faces, name};
        for (const Ray& r : rays)
        {
            tree.check(r, false);
            tree.check(r, true);
        }
    }
    return 0;
}
