#ifndef KXGENERICBVH2D_H
#define KXGENERICBVH2D_H

#include "kxBBox.h"

#include <cstdint>
#include <utility>
#include <vector>

/// One record of a binary 2D BVH: a box and two words, encoded as kxGNode is, except that
/// readers take the right child from the whole count word (no mask).
struct kxGNode2D
{
    kxBBox2D bbox;
    uint32_t offset = 0;
    uint32_t count = 0;
};

/// Binary bounding volume hierarchy over 2D boxes known by number; the root is record 0.
/// Any number of threads may read a finished hierarchy.
class kxGenericBVH2D
{
public:
    std::vector<uint32_t> mPrimitiveIndices;
    std::vector<kxGNode2D> mNodes;
    uint32_t mPrimitiveCount = 0;
    uint32_t mNodeCount = 0;

    /// Accumulates leaf statistics of the subtree at node, left child first. maxAt gets
    /// (level << 24) | node of the first leaf reached with the largest size.
    void getBVHInfoIter(int node, int& leaves, int& minLeaf, int& maxLeaf, int& sumLeaf, int& maxAt,
                        int level) const;
    /// Whole-tree statistics; minLeaf starts at the node count. Prints nothing.
    void getBVHInfo(int& nodes, int& leaves, int& minLeaf, int& maxLeaf, float& avgLeaf) const;
};

/// Sort-based 2D builder: 16-bit-per-axis Morton codes of the box centres, sorted, split
/// top-down on the highest differing code bit (in the middle where codes are equal),
/// leaves of at most getMaxPrimitivesPerLeaf() primitives, boxes refitted bottom-up.
/// Children are allocated as pairs in depth-first order, so right = left + 1 and the node
/// array holds exactly the node count. One builder runs one build at a time.
class kxLinearGenericBVH2DBuilder
{
public:
    /// The primitives the builder sees: numbered 2D boxes.
    class tPrimitiveContainerInterface
    {
    public:
        virtual ~tPrimitiveContainerInterface();
        /// Box of primitive i; i is not checked.
        virtual const kxBBox2D& getBBox(unsigned int i) const = 0;
        virtual uint32_t getQuantity() const = 0;
    };

    class kxLinearBVH2DBuilderInternal;

    /// Leaf limit 4.
    kxLinearGenericBVH2DBuilder();

    /// Stores max(n, 1).
    void setMaxPrimitivesPerLeaf(unsigned int n);
    unsigned int getMaxPrimitivesPerLeaf() const { return mMaxPrimitivesPerLeaf; }

    /// Replaces bvh's content with a hierarchy over the container's primitives. An empty
    /// container gives a root leaf of no primitives with the empty box.
    void build(const tPrimitiveContainerInterface& container, kxGenericBVH2D& bvh) const;

private:
    uint32_t mMaxPrimitivesPerLeaf;
};

/// A 2D primitive container over a caller's array of boxes.
class kxBVH2DBoxContainer : public kxLinearGenericBVH2DBuilder::tPrimitiveContainerInterface
{
public:
    explicit kxBVH2DBoxContainer(std::vector<kxBBox2D> boxes) : mBoxes(std::move(boxes)) {}
    const kxBBox2D& getBBox(unsigned int i) const override { return mBoxes[i]; }
    uint32_t getQuantity() const override { return static_cast<uint32_t>(mBoxes.size()); }

private:
    std::vector<kxBBox2D> mBoxes;
};

#endif
