#ifndef KXQBVH_H
#define KXQBVH_H

#include "Wm4Foundation.h"
#include "kxBBox.h"
#include "kxGenericBVH.h"
#include "kxTriMesh.h"

#include <cstdint>

/// Four-wide bounding volume hierarchy over the triangles of one mesh, laid out for
/// 4-lane SIMD: every node holds its four children's boxes side by side, and triangles
/// are stored in groups of four, lane by lane. It is made by collapsing a binary
/// hierarchy (two binary levels per four-wide level) and answers nearest-hit and
/// occlusion ray queries, closest-point queries and convex-region queries.
///
/// Building must not run beside queries on the same object. A built object may be
/// queried from any number of threads at once: the queries are const and keep their
/// state on the stack (the convex-hull query in one private heap block).
class kxQBVH
{
public:
    /// What is stored per group of four triangles; the bits may be combined.
    enum tQBVHDataFlags : uint32_t
    {
        eTrianglesVertices = 1,  ///< the corners, needed by intersectConvexHull
        eTrianglesEquations = 2  ///< plane and barycentric planes, needed by the ray queries
    };

    /// Which side of a triangle a ray may hit (n = the stored unit normal, dir = the ray
    /// direction). Any other value behaves like eAllSides; the fixed underlying type makes
    /// every such value representable.
    enum tIntersectionPolicy : uint32_t
    {
        eAllSides = 0,  ///< any n.dir that is not NaN
        eFrontSide = 1, ///< n.dir <= 0
        eBackSide = 2   ///< n.dir >= 0
    };

    /// Lane k of every vector belongs to child slot k. count 0xFFFFFFFF: child is the
    /// four-wide node `child`; otherwise a leaf of `count` groups starting at group
    /// `child`. An empty slot has child 0xFFFFFFFF, count 0 and the empty box.
    struct alignas(16) tQBVHNode
    {
        float bboxMin[3][4];
        float bboxMax[3][4];
        uint32_t child[4];
        uint32_t count[4];
    };

    /// Corners of four triangles, [corner][axis][lane].
    struct alignas(16) tSOATriangleVertices
    {
        float corner[3][3][4];
    };

    /// Per lane: normal x, y, z and offset d (n.p + d = 0 on the plane), then the u-plane
    /// x, y, z, constant and the v-plane x, y, z, constant, so that a point p of the plane
    /// is c0 + u (c1 - c0) + v (c2 - c0).
    struct alignas(16) tSOATriangleEquations
    {
        float eq[12][4];
    };

    /// Triangle numbers of a group; 0xFFFFFFFF in padding lanes.
    struct alignas(16) tSOATriangleIndices
    {
        uint32_t index[4];
    };

    /// One plane (a, b, c, d), each coefficient broadcast to four lanes. A point is inside
    /// when a x + b y + c z + d > 0.
    struct alignas(16) tSOASinglePlaneEqn
    {
        float a[4], b[4], c[4], d[4];
    };

    /// An empty hierarchy: no arrays, no flags, empty box.
    kxQBVH();
    ~kxQBVH();
    /// Copies are deep: the copy owns its own arrays.
    kxQBVH(const kxQBVH& other);
    kxQBVH& operator=(const kxQBVH& other);

    /// Frees the arrays and makes nodeCount nodes and, by flags, groupCount vertex,
    /// equation and index blocks, all 16-byte aligned and uninitialised. Allocation
    /// failures are not checked.
    void allocate(tQBVHDataFlags flags, unsigned int nodeCount, unsigned int groupCount);

    /// Sets the box from the four slots of node 0 (ordered per axis, never inverted).
    /// Returns false, leaving the box alone, when there are no nodes.
    bool computeRootNodeBBox();

    /// Collapses a binary hierarchy built over mesh's triangles. bvh must hold at least
    /// one node; its encoding and mesh's indices are trusted, not checked.
    void buildFromBVH(tQBVHDataFlags flags, const kxGenericBVH& bvh, const kx::kxTriMesh& mesh);

    /// Builds a binary hierarchy with the linear builder (20 Morton bits per axis,
    /// leaves of at most maxPrimitivesPerLeaf triangles) and collapses it.
    void buildFromMesh(tQBVHDataFlags flags, const kx::kxTriMesh& mesh, unsigned int maxPrimitivesPerLeaf);

    /// Nearest triangle hit with tMin <= distance < t (distances in units of direction's
    /// length) on the sides allowed by policy. On a hit: t = distance, barycentric = (weight
    /// of corner 0, weight of corner 1), triangle = its number, and true. On a miss triangle
    /// is set to 0xFFFFFFFF and t and barycentric are left alone: to keep the nearest hit
    /// over several hierarchies, keep the triangle number of the last hit yourself. Needs
    /// eTrianglesEquations: without them an error line is logged at level 2, the answer is
    /// false and no output is written. NaN and infinite inputs are not rejected; they
    /// produce misses. Thread-safe, allocation-free.
    bool intersectRay(const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction, float tMin,
                      float& t, Wm4::Vector2<float>& barycentric, unsigned int& triangle,
                      tIntersectionPolicy policy) const;

    /// The ray as a whole line: the front-facing triangle crossing nearest to the origin
    /// in either direction at a distance below t; a negative t finds nothing. On a hit
    /// t = |distance| and barycentric and triangle are as in intersectRay; on a miss, as
    /// there, triangle is set to 0xFFFFFFFF. Without eTrianglesEquations it answers false
    /// silently and writes nothing. Thread-safe, allocation-free.
    bool intersectRaySymmetric(const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction, float& t,
                               Wm4::Vector2<float>& barycentric, unsigned int& triangle) const;

    /// True when intersectRay with the same arguments and t = tMax would answer true;
    /// stops at the first accepted triangle. Needs eTrianglesEquations (same error line
    /// and false without them). Thread-safe, allocation-free.
    bool intersectRayAny(const Wm4::Vector3<float>& origin, const Wm4::Vector3<float>& direction,
                         float tMin, float tMax, tIntersectionPolicy policy) const;

    /// intersectRay for `count` rays at once: ray i runs from origins[i] along directions[i]
    /// in [tMin[i], t[i]]; t[i], barycentric[i] and triangle[i] change as intersectRay
    /// changes them, and hit[i] is its answer, bit for bit. On hierarchies larger than the
    /// last-level cache (24 MiB of nodes and equations), from 12 MiB on when neighbouring
    /// rays neither share an origin nor run parallel, and from 4 MiB on when they do not
    /// even start in the same region heading the same way (random rays in random order),
    /// eight rays are walked in turn, so that one ray's waits on memory overlap the others'
    /// work (up to about twice the speed of one call per ray); otherwise the rays go one
    /// after another. Without eTrianglesEquations: one error line at level 2, every hit[i]
    /// false, nothing else written. Thread-safe, allocation-free.
    void intersectRays(unsigned int count, const Wm4::Vector3<float>* origins,
                       const Wm4::Vector3<float>* directions, const float* tMin, float* t,
                       Wm4::Vector2<float>* barycentric, unsigned int* triangle, bool* hit,
                       tIntersectionPolicy policy) const;

    /// intersectRayAny for `count` rays at once: occluded[i] is its answer for origins[i],
    /// directions[i], tMin[i] and tMax[i]. Rays are walked in turn where intersectRays
    /// walks them so; otherwise eight neighbouring rays walk as one packet (each ray still
    /// tests only what its own walk would), which pays on coherent rays such as shadow rays
    /// of neighbouring pixels or the hemisphere of one point. Without
    /// eTrianglesEquations: one error line at level 2 and every occluded[i] false.
    /// Thread-safe, allocation-free.
    void intersectRaysAny(unsigned int count, const Wm4::Vector3<float>* origins,
                          const Wm4::Vector3<float>* directions, const float* tMin, const float* tMax,
                          bool* occluded, tIntersectionPolicy policy) const;

    /// The point of the mesh nearest to `point` within `distance` (in: the largest distance
    /// searched, +infinity for all; out: the distance found). On success also the nearest
    /// point, its barycentric pair (weight of corner 0, weight of corner 1, as the ray
    /// queries report it) and the triangle's number. Needs eTrianglesVertices (an error line
    /// at level 2 and false without them). Thread-safe, allocation-free.
    bool findClosestPoint(const Wm4::Vector3<float>& point, float& distance,
                          Wm4::Vector3<float>& closest, Wm4::Vector2<float>& barycentric,
                          unsigned int& triangle) const;

    /// True when some triangle has a part strictly inside all count planes (with no
    /// planes: when the hierarchy holds anything). Padding lanes of a group count as
    /// triangles at the origin. Needs eTrianglesVertices: without them an error line is
    /// logged at level 2 and the answer is false. Thread-safe; one heap block per call.
    bool intersectConvexHull(const tSOASinglePlaneEqn* set, unsigned int count) const;

    /// set[i] = planes[i] with each coefficient broadcast.
    static void InitSOAPlaneEquationSet(const Wm4::Vector4<float>* planes, tSOASinglePlaneEqn* set,
                                        unsigned int count);
    /// A 16-byte-aligned set of count planes; release it with DeleteSOAPlaneEquationSet.
    static tSOASinglePlaneEqn* CreateSOAPlaneEquationSet(const Wm4::Vector4<float>* planes, unsigned int count);
    static void DeleteSOAPlaneEquationSet(tSOASinglePlaneEqn* set);

    const tQBVHNode* getNodes() const { return mNodes; }
    const tSOATriangleVertices* getTriangleVertices() const { return mTriangleVertices; }
    const tSOATriangleEquations* getTriangleEquations() const { return mTriangleEquations; }
    const tSOATriangleIndices* getTriangleIndices() const { return mTriangleIndices; }
    unsigned int getNodeCount() const { return mNodeCount; }
    unsigned int getGroupCount() const { return mGroupCount; }
    tQBVHDataFlags getDataFlags() const { return static_cast<tQBVHDataFlags>(mDataFlags); }
    const kxBBox& getBBox() const { return mBBox; }

private:
    void release();

    tQBVHNode* mNodes;
    tSOATriangleVertices* mTriangleVertices;
    tSOATriangleEquations* mTriangleEquations;
    tSOATriangleIndices* mTriangleIndices;
    kxBBox mBBox;
    uint32_t mDataFlags;
    uint32_t mNodeCount;
    uint32_t mGroupCount;
};

#endif
