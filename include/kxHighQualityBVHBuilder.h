#ifndef KXHIGHQUALITYBVHBUILDER_H
#define KXHIGHQUALITYBVHBUILDER_H

#include "kxCancelInterface.h"
#include "kxGenericBVH.h"
#include "kxTriMesh.h"

/// Builds binary hierarchies meant to be collapsed by kxQBVH::buildFromBVH into four-wide
/// trees that are cheap to query. First a top-down surface-area-heuristic build over
/// triangle references, sides priced by their groups of four triangles, with 32 bins (an
/// exact sweep on small nodes) and spatial splits that clip triangles at the split plane,
/// down to single references. Then a choice, by dynamic programming over that tree, of
/// which subtrees become the slots of each four-wide node and which become leaves,
/// pricing a leaf by its groups and a node visit (a test of four boxes) as two groups.
/// The binary tree is written so that the collapse yields exactly those four-wide nodes,
/// most of them full.
///
/// With spatial splits a triangle may be held by several leaves; each such leaf's box
/// bounds only the part of the triangle inside it. The primitive index array then holds at
/// most N + N / 4 entries for N triangles (never more), and mPrimitiveCount is its length.
///
/// Starts no threads; polls the cancellation source often; logs what it built at level 1,
/// category "bvh". Allocation failures propagate as std::bad_alloc with nothing leaked.
/// One builder runs one build at a time; it may be reused.
class kxHighQualityBVHBuilder
{
public:
    kxHighQualityBVHBuilder();
    /// Largest number of triangles in a leaf, a hard maximum (coincident triangles are
    /// separated by count). Default 4; 0 is taken as 1.
    void setMaxPrimitivesPerLeaf(unsigned int n);
    unsigned int getMaxPrimitivesPerLeaf() const;
    /// Spatial splits on or off (default on). Off, every triangle is referenced once.
    void setSpatialSplits(bool enabled);
    bool getSpatialSplits() const;
    /// Builds a binary hierarchy over the mesh's triangles for kxQBVH::buildFromBVH.
    /// False, with bvh left empty, when cancelled.
    bool build(const kx::kxTriMesh& mesh, kxGenericBVH& bvh,
               const kx::kxCancelInterfaceReadOnly* cancel = nullptr);

private:
    unsigned int mMaxPrimitivesPerLeaf;
    bool mSpatialSplits;
};

#endif
