// Scenes, an independent reference of the linear build and whole-tree checks, shared by
// the linear builder's tests.
#ifndef KXLINEARTESTSUPPORT_H
#define KXLINEARTESTSUPPORT_H

#include "kxGenericBVH.h"
#include "kxLinearGenericBVHBuilder.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kxLinearTest
{
/// Primitives given directly as boxes. getBBox can be told to throw at its n-th call.
class kxBoxListContainer : public kxLinearGenericBVHBuilder::tPrimitiveContainerInterface
{
public:
    explicit kxBoxListContainer(std::vector<kxBBox> boxes) : mBoxes(std::move(boxes)) {}

    const kxBBox& getBBox(unsigned int i) const override
    {
        if (++mBoxCalls == mThrowAtCall)
            throw std::runtime_error("box unavailable");
        return mBoxes[i];
    }
    uint32_t getQuantity() const override
    {
        ++mQuantityCalls;
        return static_cast<uint32_t>(mBoxes.size());
    }

    const std::vector<kxBBox>& boxes() const { return mBoxes; }
    /// 0 never throws.
    void throwAtCall(uint64_t call)
    {
        mThrowAtCall = call;
        mBoxCalls = 0;
    }
    uint64_t boxCalls() const { return mBoxCalls; }
    uint64_t quantityCalls() const { return mQuantityCalls; }

private:
    std::vector<kxBBox> mBoxes;
    mutable uint64_t mBoxCalls = 0;
    mutable uint64_t mQuantityCalls = 0;
    uint64_t mThrowAtCall = 0;
};

struct Scene
{
    std::string name;
    std::vector<kxBBox> boxes;
};

/// Uniform, clustered, duplicated points, all-equal points, flat, huge, tiny, far from the
/// origin, and some empty boxes among real ones; quantity boxes each, from a fixed seed.
std::vector<Scene> makeScenes(uint32_t quantity, uint32_t seed);

/// What a linear build must produce, computed plainly: codes by bit-by-bit interleave,
/// sorted by a comparison sort, the tree by recursive splitting at the highest differing
/// code bit, numbered level by level, refitted and fused recursively.
struct Reference
{
    std::vector<uint64_t> codes;  // per primitive
    std::vector<uint32_t> order;  // primitive numbers by ascending code
    std::vector<kxGNode> emitted; // after emission and refit, before fusing
    uint32_t nodeCount = 0;       // records emitted
    uint64_t distinctCodes = 0;
    uint64_t runListEntries = 0; // runs of every level 0..L, added up
};

Reference buildReference(const std::vector<kxBBox>& boxes, unsigned bits);
/// The finished hierarchy: the reference's emitted tree fused under the limit.
kxGenericBVH fusedReference(const Reference& reference, uint32_t maxPrimitivesPerLeaf);

/// Counts its polls and answers true from the cancelFrom-th poll on (never for 0).
class kxCountingCancel : public kx::kxCancelInterfaceReadOnly
{
public:
    explicit kxCountingCancel(uint64_t cancelFrom = 0) : mCancelFrom(cancelFrom) {}
    bool shouldCancel() const override
    {
        ++mPolls;
        return mCancelFrom != 0 && mPolls >= mCancelFrom;
    }
    uint64_t polls() const { return mPolls; }

private:
    uint64_t mCancelFrom;
    mutable uint64_t mPolls = 0;
};

/// Checks every whole-tree property of a finished linear build against the primitive boxes
/// and the reference codes; returns a description of the first violation, empty if none.
std::string checkInvariants(const kxGenericBVH& bvh, const std::vector<kxBBox>& boxes,
                            const std::vector<uint64_t>& codes, uint32_t maxPrimitivesPerLeaf,
                            uint32_t emittedNodeCount);

/// Empty when both hierarchies are identical record by record (boxes bitwise) and in their
/// index arrays, counters and node array capacity.
std::string compareHierarchies(const kxGenericBVH& actual, const kxGenericBVH& expected);
} // namespace kxLinearTest

#endif
