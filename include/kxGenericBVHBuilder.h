#ifndef KXGENERICBVHBUILDER_H
#define KXGENERICBVHBUILDER_H

#include "kxBBox.h"
#include "kxGenericBVH.h"
#include "kxLinearGenericBVHBuilder.h"

#include <cstdint>
#include <vector>

/// Cost of a node with a given box holding n primitives, as the SAH builder weighs it.
class kxBVHCostFunctor
{
public:
    virtual float f(const kxBBox& box, unsigned int n) const = 0;
    virtual ~kxBVHCostFunctor();
};

/// Half the surface area times (n + 4): visiting a node is priced at four primitive
/// tests. The empty box costs +infinity, which keeps planes with an empty side out.
class kxDefaultSAH : public kxBVHCostFunctor
{
public:
    float f(const kxBBox& box, unsigned int n) const override;
};

/// Expected cost of a ray that hits the root, in primitive tests, under kxDefaultSAH's
/// weights: the sum over the tree's nodes of 4 * half area (plus n * half area for a leaf
/// of n primitives), divided by the root's half area. Empty boxes count as zero area; a
/// root of zero area gives 0. Walks from the root, so it suits every builder's output.
double kxComputeSAHCost(const kxGenericBVH& bvh);

/// Top-down BVH builder: binned SAH (B bins per axis) for nodes of 17 to 1024 primitives,
/// median split on the longest axis above that. Nodes of at most 16 primitives become
/// leaves; larger leaves come only where no split pays off or at depth 32, below which
/// no node goes (the root is depth 0). One builder runs one build at a time.
class kxGenericBVHBuilder
{
public:
    /// binCount 0 is taken as 1. A null cost uses the builder's own kxDefaultSAH; a given
    /// one must outlive the builder.
    explicit kxGenericBVHBuilder(unsigned int binCount = 16, const kxBVHCostFunctor* cost = nullptr);
    kxGenericBVHBuilder(const kxGenericBVHBuilder&) = delete;
    kxGenericBVHBuilder& operator=(const kxGenericBVHBuilder&) = delete;
    ~kxGenericBVHBuilder();

    /// Copies the primitive boxes, fills the working index array with 0 .. N-1, sizes the
    /// work arrays, and resets bvh to the root alone: one node record whose box is the
    /// union of all boxes, node count 1.
    void prepare(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container, kxGenericBVH& bvh);
    /// prepare, buildIter from the root, then hands the working index array to bvh and
    /// sets its primitive count. Work arrays are released afterwards. Allocation failures
    /// propagate and leave bvh unusable.
    void build(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container, kxGenericBVH& bvh);

    /// Bins the centroids of the range (start, count) of the working index array inside
    /// node's box: prefix counts and boxes from the low end, suffix boxes from the high end.
    void computeBinning(const kxGNode& node, unsigned int start, unsigned int count);
    /// The cheapest plane between two bins of the last computeBinning. True (and the
    /// plane) only when it is strictly cheaper than a leaf; ties keep x before y before z,
    /// the lower bin first.
    bool findSplitPlane(const kxGNode& node, unsigned int count, kxBBox::tAxis& axis, float& pos) const;
    /// pos = centroid on the given axis of the primitive of rank count/2 (stable order).
    void findMedianSplit(const kxGNode& node, unsigned int start, unsigned int count, kxBBox::tAxis& axis,
                         float& pos);
    /// Makes node a leaf or splits it, recursively.
    void buildIter(unsigned int node, kxGenericBVH& bvh, unsigned int start, unsigned int count, int depth);
    /// Partitions the range by centroid (on the plane goes left), appends the child pair
    /// (the node array grows in steps of 1024 records), links node to it and recurses.
    void splitNode(unsigned int node, kxGenericBVH& bvh, unsigned int start, unsigned int count,
                   kxBBox::tAxis axis, float pos, int depth);

    unsigned int getBinCount() const { return mBinCount; }
    /// Per-bin state of the last computeBinning: x bins, then y, then z.
    const std::vector<uint32_t>& getBinCounts() const { return mBinCounts; }
    const std::vector<kxBBox>& getLeftBinBoxes() const { return mLeftBoxes; }
    const std::vector<kxBBox>& getRightBinBoxes() const { return mRightBoxes; }
    /// The order of the last findMedianSplit: positions in its range, by key.
    const std::vector<uint32_t>& getMedianPermutation() const { return mMedianPermutation; }
    const std::vector<uint32_t>& getWorkingIndices() const { return mIndices; }

private:
    void makeLeaf(kxGNode& node, unsigned int start, unsigned int count) const;
    void radixSortKeys(unsigned int n);

    std::vector<kxBBox> mPrimitiveBoxes;
    std::vector<uint32_t> mIndices;
    std::vector<uint32_t> mMedianPermutation;
    std::vector<uint32_t> mMedianScratch;
    std::vector<float> mMedianKeys;
    std::vector<uint32_t> mBinCounts;
    std::vector<kxBBox> mLeftBoxes;
    std::vector<kxBBox> mRightBoxes;
    uint32_t mBinCount;
    uint32_t mSectionY;
    uint32_t mSectionZ;
    const kxBVHCostFunctor* mCost;
    kxDefaultSAH mDefaultCost;
    // Keys travel with the permutation so that every radix pass reads them in order.
    std::vector<float> mMedianKeyScratch;
};

#endif
