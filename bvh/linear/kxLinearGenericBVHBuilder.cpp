#include "kxLinearGenericBVHBuilder.h"

#include "../kxBoxLanes.h"
#include "../kxHugePages.h"
#include "kxLinearBuildSupport.h"
#include "kxMortonCodes.h"
#include "kxRadixSort.h"
#include "kxRunLevels.h"

#include <algorithm>
#include <type_traits>

using namespace kxLinearBVH;

namespace
{
constexpr unsigned kMaxAxisBits = 21;

template <typename Container>
struct Primitives
{
    const Container& container;
    const kxBBox& sceneBox;
    uint32_t* indexes;
    uint32_t quantity;
};

// The run levels lie at the bottom of the arena, below the codes and the sort's partners.
template <typename Code>
size_t workMemory(uint32_t quantity)
{
    return kxRunLevels::footprint(quantity) + kxBuildArena::footprint(quantity * sizeof(Code)) +
           radixSortFootprint<Code>(quantity);
}

// Codes, sort and run counting; the codes die here. False when cancelled.
template <typename Code, typename Container>
bool sortAndCountRuns(const Primitives<Container>& primitives, unsigned axisBits, kxBuildArena& arena,
                      const kx::kxCancelInterfaceReadOnly* cancel, kxRunLevels& runs)
{
    const size_t top = arena.top();
    Code* codes = arena.allocate<Code>(primitives.quantity);
    computeMortonCodes(primitives.container, primitives.quantity, kxMortonGrid(primitives.sceneBox, axisBits), codes);
    if (cancelled(cancel))
        return false;
    radixSort(codes, primitives.indexes, primitives.quantity, 3 * axisBits, arena);
    if (cancelled(cancel))
        return false;
    runs.count(codes);
    arena.release(top);
    return !cancelled(cancel);
}

// A cancel source is polled as often as by a build that fused the emitted records and
// then refitted them in sweeps of their own, each polling once per record it went through
// (fusing also for a spare record and once after), and the refit once per primitive.
// Where a cancel lands among the polls and the log lines then does not depend on how the
// work is split.
bool pollAsFusingAndRefitting(uint64_t distinctCodes, uint32_t quantity, const kx::kxCancelInterfaceReadOnly* cancel)
{
    if (!cancel)
        return true;
    const uint64_t emitted = 2u * distinctCodes - 1u;
    const uint64_t polls = 2u * emitted + 2u + quantity;
    for (uint64_t poll = 0; poll < polls; ++poll)
        if (cancelled(cancel))
            return false;
    return true;
}

// Sorts the primitives by code and writes the hierarchy's records, fused and with their
// boxes, into nodes. False when cancelled.
template <typename Code, typename Container>
bool buildWithCodes(const Primitives<Container>& primitives, kxGenericBVH& bvh, const kx::kxCancelInterfaceReadOnly* cancel,
                    unsigned bits, uint32_t maxPrimitivesPerLeaf, std::vector<kxGNode>& nodes)
{
    kxBuildArena arena(workMemory<Code>(primitives.quantity));
    const unsigned axisBits = std::min(bits, kMaxAxisBits);
    kxRunLevels runs(3 * axisBits, primitives.quantity, arena);
    const bool counted = sortAndCountRuns<Code>(primitives, axisBits, arena, cancel, runs);
    // Written even after a cancel, then with nothing allocated.
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate "
                     << humanizedBytes(counted ? runs.workingBufferBytes() : 0u) << "B of working buffer";
    if (!counted || cancelled(cancel))
        return false;

    const uint64_t distinct = runs.distinctCodes();
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate " << humanizedBytes(distinct * 64u) << "B for "
                     << 2u * distinct << " result nodes";
    if (!runs.build(nodes, primitives.container, primitives.indexes, maxPrimitivesPerLeaf, cancel) ||
        !pollAsFusingAndRefitting(distinct, primitives.quantity, cancel))
        return false;
    bvh.mNodeCount = static_cast<uint32_t>(2u * distinct - 1u);
    return true;
}
} // namespace

kxLinearGenericBVHBuilder::kxLinearGenericBVHBuilder() : mQuantity(0), mMaxPrimitivesPerLeaf(4) {}

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
    std::vector<kxGNode> nodes;
    const bool built = withContainer(container, [&](const auto& exact) {
        const Primitives<std::decay_t<decltype(exact)>> primitives{exact, mSceneBox, mPrimitiveIndexes.data(),
                                                                   mQuantity};
        // Coarse grids sort 32-bit keys in half the passes.
        return bits <= 10 ? buildWithCodes<uint32_t>(primitives, bvh, cancel, bits, mMaxPrimitivesPerLeaf, nodes)
                          : buildWithCodes<uint64_t>(primitives, bvh, cancel, bits, mMaxPrimitivesPerLeaf, nodes);
    });
    if (!built || cancelled(cancel))
        return false;
    // Emission sized the records for the emitted ones and a spare.
    kxBuildLogLine() << "fuse " << uint64_t{bvh.mNodeCount} + 1u << " into " << nodes.size();
    bvh.mNodes.swap(nodes);
    bvh.mPrimitiveIndices.swap(mPrimitiveIndexes);
    bvh.mPrimitiveCount = mQuantity;
    return !cancelled(cancel);
}

void kxLinearGenericBVHBuilder::gatherPrimitives(const tPrimitiveContainerInterface& container)
{
    mQuantity = container.getQuantity();
    kxMemory::reserveWithHugePages(mPrimitiveIndexes, mQuantity);
    mPrimitiveIndexes.resize(mQuantity);
    mSceneBox = kxBBox();
    kxBuildLogLine() << "kxLinearGenericBVHBuilder : allocate " << humanizedBytes(uint64_t{mQuantity} * 4u) << "B for "
                     << mQuantity << " primitives indexes";
    // Two tight loops: the index stores would otherwise make the box loop reload the count.
    uint32_t* const indexes = mPrimitiveIndexes.data();
    const uint32_t quantity = mQuantity;
    for (uint32_t i = 0; i < quantity; ++i)
        indexes[i] = i;
    withContainer(container, [this, quantity](const auto& exact) {
        kxBoxLanes::WholeBoxAccumulator sceneBox;
        for (uint32_t i = 0; i < quantity; ++i)
            sceneBox.extend(boxOf(exact, i));
        sceneBox.store(mSceneBox);
    });
}
