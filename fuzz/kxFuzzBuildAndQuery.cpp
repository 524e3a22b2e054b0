// Every builder, the collapse and every query on meshes with NaN, infinite, huge, tiny,
// duplicate and degenerate coordinates. Each binary and four-wide tree must pass the
// whole-structure checks, and every query must answer bit for bit as the scalar
// reference does, leaving its outputs alone when it misses.
//
// Input: data flags, leaf size, Morton bits, bin count (a byte each), the mesh (see
// decodeMesh), then queries until the input ends: a kind byte (even: ray, odd: plane set)
// and its values.
#include "kxFuzz.h"
#include "kxFuzzGeometry.h"

#include "kxQBVHReference.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

namespace
{
using kxfuzz::Input;
using Vec3 = Wm4::Vector3<float>;

constexpr uint32_t kMaxTriangles = 1536;
constexpr size_t kMaxQueries = 32;
constexpr unsigned int kMaxPlanes = 8;
constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr float kInf = std::numeric_limits<float>::infinity();

struct Ray
{
    Vec3 origin, direction;
    float tMin, t;
    kxQBVH::tIntersectionPolicy policy;
};

struct Query
{
    bool isRay;
    Ray ray;
    std::vector<Wm4::Vector4<float>> planes;
};

Query decodeQuery(Input& in)
{
    Query q;
    q.isRay = (in.byte() & 1) == 0;
    if (q.isRay)
    {
        Ray& r = q.ray;
        for (int a = 0; a < 3; ++a)
            r.origin[a] = in.real();
        for (int a = 0; a < 3; ++a)
            r.direction[a] = in.real();
        const uint8_t bounds = in.byte();
        r.tMin = (bounds & 1) ? in.real() : 0.0f;
        r.t = (bounds & 2) ? in.real() : kInf;
        // Values past eBackSide are allowed and behave like eAllSides.
        r.policy = static_cast<kxQBVH::tIntersectionPolicy>(bounds >> 2);
        return q;
    }
    const unsigned int count = in.byte() % (kMaxPlanes + 1);
    for (unsigned int p = 0; p < count; ++p)
    {
        const float a = in.real(), b = in.real(), c = in.real(), d = in.real();
        q.planes.emplace_back(a, b, c, d);
    }
    return q;
}

struct Answer
{
    bool hit;
    float t;
    Wm4::Vector2<float> barycentric;
    unsigned int triangle;

    bool operator==(const Answer& o) const
    {
        return hit == o.hit && std::memcmp(&t, &o.t, sizeof t) == 0 &&
               std::memcmp(&barycentric[0], &o.barycentric[0], 2 * sizeof(float)) == 0 && triangle == o.triangle;
    }
};

// Outputs start at values no query writes, so that a miss can be seen to leave them.
Answer start(float t)
{
    return Answer{false, t, Wm4::Vector2<float>(-7.0f, -7.0f), 0xA5A5A5A5u};
}

void checkRay(const kxQBVH& qbvh, const Ray& r, uint32_t triangles, const char* builder)
{
    const bool equations = (qbvh.getDataFlags() & kxQBVH::eTrianglesEquations) != 0;

    Answer fast = start(r.t);
    fast.hit = qbvh.intersectRay(r.origin, r.direction, r.tMin, fast.t, fast.barycentric, fast.triangle, r.policy);
    Answer sym = start(r.t);
    sym.hit = qbvh.intersectRaySymmetric(r.origin, r.direction, sym.t, sym.barycentric, sym.triangle);
    if (!equations)
    {
        KX_FUZZ_CHECK(fast == start(r.t) && sym == start(r.t), "%s: a query without equations wrote its outputs",
                      builder);
        return;
    }

    Answer slow = start(r.t);
    slow.hit = kxQBVHReference::intersectRay(qbvh, r.origin, r.direction, r.tMin, slow.t, slow.barycentric,
                                             slow.triangle, r.policy);
    KX_FUZZ_CHECK(fast == slow, "%s: intersectRay answers (%d, t %a, triangle %u), the reference (%d, t %a, %u)",
                  builder, fast.hit, fast.t, fast.triangle, slow.hit, slow.t, slow.triangle);
    Answer symSlow = start(r.t);
    symSlow.hit = kxQBVHReference::intersectRaySymmetric(qbvh, r.origin, r.direction, symSlow.t,
                                                         symSlow.barycentric, symSlow.triangle);
    KX_FUZZ_CHECK(sym == symSlow,
                  "%s: intersectRaySymmetric answers (%d, t %a, triangle %u), the reference (%d, t %a, %u)", builder,
                  sym.hit, sym.t, sym.triangle, symSlow.hit, symSlow.t, symSlow.triangle);

    if (fast.hit)
        KX_FUZZ_CHECK(fast.triangle < triangles && r.tMin <= fast.t && fast.t <= r.t,
                      "%s: intersectRay hit triangle %u of %u at %a outside [%a, %a]", builder, fast.triangle,
                      triangles, fast.t, r.tMin, r.t);
    if (sym.hit)
        KX_FUZZ_CHECK(sym.triangle < triangles && 0.0f <= sym.t && sym.t <= std::abs(r.t),
                      "%s: intersectRaySymmetric hit triangle %u of %u at %a beyond %a", builder, sym.triangle,
                      triangles, sym.t, r.t);
    Answer miss = start(r.t);
    miss.triangle = kNone;
    for (const Answer* a : {&fast, &sym})
        if (!a->hit)
            KX_FUZZ_CHECK(*a == miss, "%s: a miss reports triangle %u, t %a", builder, a->triangle, a->t);
}

void checkHull(const kxQBVH& qbvh, const std::vector<Wm4::Vector4<float>>& planes, const char* builder)
{
    const unsigned int count = static_cast<unsigned int>(planes.size());
    std::unique_ptr<kxQBVH::tSOASinglePlaneEqn, void (*)(kxQBVH::tSOASinglePlaneEqn*)> set(
        kxQBVH::CreateSOAPlaneEquationSet(planes.data(), count), &kxQBVH::DeleteSOAPlaneEquationSet);
    const bool fast = qbvh.intersectConvexHull(set.get(), count);
    if (!(qbvh.getDataFlags() & kxQBVH::eTrianglesVertices))
    {
        KX_FUZZ_CHECK(!fast, "%s: a hull query without vertices answered true", builder);
        return;
    }
    const bool slow = kxQBVHReference::intersectConvexHull(qbvh, set.get(), count);
    KX_FUZZ_CHECK(fast == slow, "%s: intersectConvexHull answers %d over %u planes, the reference %d", builder, fast,
                  count, slow);
}

void query(const kxQBVH& qbvh, const std::vector<Query>& queries, uint32_t triangles, const char* builder)
{
    for (const Query& q : queries)
        if (q.isRay)
            checkRay(qbvh, q.ray, triangles, builder);
        else
            checkHull(qbvh, q.planes, builder);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = (kxfuzz::silenceLog(), true);
    (void)quiet;
    Input in(data, size);
    const auto flags = static_cast<kxQBVH::tQBVHDataFlags>(in.byte() & 3);
    kxfuzz::BuildSettings settings;
    settings.leafSize = in.byte();
    settings.mortonBits = in.byte() % 70;
    settings.binCount = in.byte() % 40;
    const kxfuzz::Mesh mesh = kxfuzz::decodeMesh(in, kMaxTriangles);
    std::vector<Query> queries;
    while (!in.empty() && queries.size() < kMaxQueries)
        queries.push_back(decodeQuery(in));

    const kxBVHTriangleContainer container(*mesh.mesh);
    for (kxfuzz::Builder builder : kxfuzz::kBuilders)
    {
        const char* name = kxfuzz::builderName(builder);
        kxGenericBVH bvh;
        kxfuzz::buildBinary(builder, settings, container, bvh);
        kxfuzz::checkBinary(bvh, container, name);
        kxQBVH qbvh;
        qbvh.buildFromBVH(flags, bvh, *mesh.mesh);
        kxfuzz::checkFourWide(qbvh, mesh, name);
        query(qbvh, queries, mesh.triangles(), name);
    }

    // The main road, and a deep copy that must answer alike.
    kxQBVH qbvh;
    qbvh.buildFromMesh(flags, *mesh.mesh, settings.leafSize);
    kxfuzz::checkFourWide(qbvh, mesh, "buildFromMesh");
    const kxQBVH copy(qbvh);
    kxfuzz::checkFourWide(copy, mesh, "a copy of buildFromMesh's tree");
    query(copy, queries, mesh.triangles(), "a copy of buildFromMesh's tree");
    return 0;
}
