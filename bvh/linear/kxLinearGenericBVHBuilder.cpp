#include "kxLinearGenericBVHBuilder.h"

#include "kxLinearBuildSupport.h"
#include "kxMortonCodes.h"
#include "kxRadixSort.h"
#include "kxRefitAndFuse.h"
#include "kxRunLists.h"

#include <algorithm>

using namespace kxLinearBVH;

namespace
{
constexpr unsigned kMaxAxisBits = 21;

// Codes, sort and run counting; the codes die here. False when cancelled.
template <typename Code>
bool sortAndCountRuns(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container,
                      const kxBBox& sceneBox, uint32_t* primitiveIndexes, uint32_t quantity, unsigned axisBits,
                      const kx::kxCancelInterfaceReadOnly* cancel, kxRunLists& runs)
{
    std::unique_ptr<Code[]> codes = uninitialisedArray<Code>(quantity);
    computeMortonCodes(container, quantity, kxMortonGrid(sceneBox, axisBits), codes.get());
    if (cancelled(cancel))
        return false;
    radixSort(codes, primitiveIndexes, quantity);
    if (cancelled(cancel))
        return false;
    runs.count(codes.get(), quantity);
    return !cancelled(cancel);
}
} // namespace

kxLinearGenericBVHBuilder::kxLinearGenericBVHBuilder() : mQuantity(0), mMaxPrimitivesPerLeaf(4)
{
}

kxLinearGenericBVHBuilder::~kxLinearGenericBVHBuilder() = default;

void kxLinearGenericBVHBuilder::setMaxPrimitivesPerLeaf(unsigned int n)
{
    mMaxPrimitivesPerLeaf = std::max(n, 1u);
}

unsigned int kxLinearGenericBVHBuilder::getMaxPrimitivesPerLeaf() const
{
    return mMaxPrimitivesPerLeaf;
}

bool kxLinearGenericBVHBuilder::build(const tPrimitiveContainerInterface& container, kxGenericBVH& bvh,
                                      const kx::kxCancelInterfaceReadOnly* cancel, unsigned int bits)
{
    gatherPrimitives(container);
    if (!emitHierarchy(container, bvh, cancel, bits))
        return false;
    if (!refit(bvh, container, mPrimitiveIndexes.data(), cancel) || cancelled(cancel))
        return false;
    bvh.mPrimitiveIndices.swap(mPrimitiveIndexes);
    bvh.mPrimitiveCount = mQuantity;
    fuseLeaves(bvh, mMaxPrimitivesPerLeaf, cancel);
    return !cancelled(cancel);
}

void kxLinearGenericBVHBuilder::gatherPrimitives(const tPrimitiveContainerInterface& container)
{
    mQuantity = container.getQuantity();
    mPrimitiveIndexes.resize(mQuantity);
    mSceneBox = kxBBox();
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate " << humanizedBytes(uint64_t{mQuantity} * 4u)
                     << "B for " << mQuantity << " primitives indexes";
    for (uint32_t i = 0; i < mQuantity; ++i)
    {
        mPrimitiveIndexes[i] = i;
        mSceneBox.extend(container.getBBox(i));
    }
}

bool kxLinearGenericBVHBuilder::emitHierarchy(const tPrimitiveContainerInterface& container, kxGenericBVH& bvh,
                                              const kx::kxCancelInterfaceReadOnly* cancel, unsigned int bits)
{
    const unsigned axisBits = std::min(bits, kMaxAxisBits);
    kxRunLists runs(3 * axisBits);
    // Coarse grids sort 32-bit keys in half the passes.
    const bool counted =
        bits <= 10 ? sortAndCountRuns<uint32_t>(container, mSceneBox, mPrimitiveIndexes.data(), mQuantity,
                                                axisBits, cancel, runs)
                   : sortAndCountRuns<uint64_t>(container, mSceneBox, mPrimitiveIndexes.data(), mQuantity,
                                                axisBits, cancel, runs);
    if (counted)
        runs.list();
    // Written even after a cancel, then with nothing allocated.
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate "
                     << humanizedBytes(counted ? runs.workingBufferBytes() : 0u) << "B of working buffer";
    if (!counted || cancelled(cancel))
        return false;

    const uint64_t distinct = runs.distinctCodes();
    bvh.mNodes.resize(2u * distinct);
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate " << humanizedBytes(distinct * 64u) << "B for "
                     << 2u * distinct << " result nodes";
    bvh.mNodes[0].offset = kxGNode::eLeafMark;
    bvh.mNodes[0].count = mQuantity;

    uint32_t nextFree = 1;
    for (unsigned level = 1; level <= runs.levels(); ++level)
    {
        runs.emitLevel(level, bvh.mNodes.data(), nextFree);
        if (cancelled(cancel))
            return false;
    }
    bvh.mNodeCount = nextFree;
    return true;
}
