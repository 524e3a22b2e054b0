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

struct Primitives
{
    const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container;
    const kxBBox& sceneBox;
    uint32_t* indexes;
    uint32_t quantity;
};

// Codes, sort and run counting; the codes die here. False when cancelled.
template <typename Code>
bool sortAndCountRuns(const Primitives& primitives, unsigned axisBits, const kx::kxCancelInterfaceReadOnly* cancel,
                      kxRunLists& runs)
{
    kxWorkArray<Code> codes(primitives.quantity);
    computeMortonCodes(primitives.container, primitives.quantity, kxMortonGrid(primitives.sceneBox, axisBits),
                       codes.get());
    if (cancelled(cancel))
        return false;
    radixSort(codes, primitives.indexes, primitives.quantity);
    if (cancelled(cancel))
        return false;
    runs.count(codes.get(), primitives.quantity);
    return !cancelled(cancel);
}

// Sorts the primitives by code and writes the words of the hierarchy's records level by
// level into the tree. False when cancelled.
bool emitHierarchy(const Primitives& primitives, kxGenericBVH& bvh, const kx::kxCancelInterfaceReadOnly* cancel,
                   unsigned bits, kxEmittedTree& tree)
{
    const unsigned axisBits = std::min(bits, kMaxAxisBits);
    kxRunLists runs(3 * axisBits);
    // Coarse grids sort 32-bit keys in half the passes.
    const bool counted = bits <= 10 ? sortAndCountRuns<uint32_t>(primitives, axisBits, cancel, runs)
                                    : sortAndCountRuns<uint64_t>(primitives, axisBits, cancel, runs);
    if (counted)
        runs.list();
    // Written even after a cancel, then with nothing allocated.
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate "
                     << humanizedBytes(counted ? runs.workingBufferBytes() : 0u) << "B of working buffer";
    if (!counted || cancelled(cancel))
        return false;

    const uint64_t distinct = runs.distinctCodes();
    tree.records = kxWorkArray<kxNodeWords>(2u * distinct);
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate " << humanizedBytes(distinct * 64u) << "B for "
                     << 2u * distinct << " result nodes";
    kxNodeWords* records = tree.records.get();
    records[0].offset = kxGNode::eLeafMark;
    records[0].count = primitives.quantity;

    uint32_t nextFree = 1;
    for (unsigned level = 1; level <= runs.levels(); ++level)
    {
        runs.emitLevel(level, records, nextFree);
        if (cancelled(cancel))
            return false;
    }
    bvh.mNodeCount = nextFree;
    runs.finishEmission(tree);
    return true;
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
    kxEmittedTree tree;
    if (!emitHierarchy(Primitives{container, mSceneBox, mPrimitiveIndexes.data(), mQuantity}, bvh, cancel, bits, tree))
        return false;
    std::vector<kxGNode> nodes;
    if (!fuseLeaves(tree, mQuantity, mMaxPrimitivesPerLeaf, cancel, nodes) ||
        !refit(tree, nodes, container, mPrimitiveIndexes.data(), mQuantity, cancel) || cancelled(cancel))
        return false;
    kxBuildLogLine() << "fuse " << 2u * tree.leafCount << " into " << nodes.size();
    bvh.mNodes.swap(nodes);
    bvh.mPrimitiveIndices.swap(mPrimitiveIndexes);
    bvh.mPrimitiveCount = mQuantity;
    return !cancelled(cancel);
}

void kxLinearGenericBVHBuilder::gatherPrimitives(const tPrimitiveContainerInterface& container)
{
    mQuantity = container.getQuantity();
    resizeWithHugePages(mPrimitiveIndexes, mQuantity);
    mSceneBox = kxBBox();
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate " << humanizedBytes(uint64_t{mQuantity} * 4u)
                     << "B for " << mQuantity << " primitives indexes";
    for (uint32_t i = 0; i < mQuantity; ++i)
    {
        mPrimitiveIndexes[i] = i;
        mSceneBox.extend(container.getBBox(i));
    }
}
