#ifndef KXSAHRECORDBUILD_H
#define KXSAHRECORDBUILD_H

#include "kxGenericBVHBuilder.h"
#include "kxSAHLanes.h"

#include <cstdint>
#include <memory>
#include <vector>

/// kxGenericBVHBuilder's build over records that carry each box beside its index, so
/// that every pass reads the range it works on in order instead of gathering boxes
/// through the index array. It takes the same decisions in the same order as the builder's
/// own steps (prepare, buildIter) and writes the same hierarchy, bit for bit:
/// - the partition swaps whole records exactly where the index partition swaps indices;
/// - the median is selected instead of sorted: the entry of rank count/2 by (key bits,
///   position) is the one a stable sort puts there;
/// - bins grow on SSE lanes with extend's comparisons, primitives in range order;
/// - with the default cost, planes are priced during the bin sweeps, one axis a lane, with
///   kxDefaultSAH::f's operations in its order.
class kxSAHRecordBuild
{
public:
    /// customCost null: kxDefaultSAH's formula, inlined.
    kxSAHRecordBuild(unsigned int binCount, const kxBVHCostFunctor* customCost);

    /// indices: storage for the hierarchy's index array, reused when large enough.
    void build(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container, kxGenericBVH& bvh,
               std::vector<uint32_t>& indices);

    /// Whether any node was binned; then the state the builder's computeBinning would
    /// have left for the last one, in its layout.
    bool exportLastBinning(std::vector<uint32_t>& counts, std::vector<kxBBox>& left, std::vector<kxBBox>& right);

private:
    void fill(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container, kxGenericBVH& bvh);
    void buildIter(uint32_t node, uint32_t start, uint32_t count, int depth);
    float medianPosition(const kxBBox& box, uint32_t start, uint32_t count, int a);
    void computeBinning(const kxBBox& box, uint32_t start, uint32_t count);
    bool findSplitPlane(const kxBBox& box, uint32_t count, kxBBox::tAxis& axis, float& pos);
    /// The builder's prefix and suffix sweeps over the last binning, in place, once.
    void sweep();
    void customCosts(uint32_t count, float* planes);
    void defaultCosts(float* planes);
    void splitNode(uint32_t node, uint32_t start, uint32_t count, kxBBox::tAxis axis, float pos, int depth);

    const uint32_t mBinCount;
    const kxBVHCostFunctor* const mCustomCost;
    kxGenericBVH* mBVH = nullptr;
    std::unique_ptr<kxSAHLanes::Record[]> mRecords;
    uint32_t* mKeys = nullptr;
    std::unique_ptr<uint32_t[]> mCandidates;
    std::vector<uint32_t> mBinCounts;
    std::vector<uint32_t> mLaneCounts;
    std::vector<kxSAHLanes::Box> mLeftBoxes;
    std::vector<kxSAHLanes::Box> mRightBoxes;
    std::vector<float> mPlaneCosts;
    std::vector<float> mRightCosts;
    bool mBinned = false;
    bool mSwept = false;
};

#endif
