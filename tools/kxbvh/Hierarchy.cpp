#include "Hierarchy.h"

#include "Errors.h"
#include "Interrupt.h"
#include "Progress.h"
#include "Stopwatch.h"

#include <kxBVHContainers.h>
#include <kxCancelInterface.h>
#include <kxGenericBVHBuilder.h>
#include <kxHighQualityBVHBuilder.h>
#include <kxLinearGenericBVHBuilder.h>

#include <memory>

namespace kxbvh
{
namespace
{
// The resolution buildFromMesh uses.
constexpr unsigned kMortonBits = 20;

/// Reads the Ctrl-C flag through the library's proxy, and turns the spinner each time
/// the builder asks.
class TickingCancel : public kx::kxCancelInterfaceReadOnly
{
public:
    explicit TickingCancel(const Progress& progress) : mFlag(interruptFlag(), nullptr, nullptr), mProgress(progress) {}
    bool shouldCancel() const override
    {
        mProgress.tick();
        return mFlag.shouldCancel();
    }

private:
    kx::kxCancelInterfaceProxy mFlag;
    const Progress& mProgress;
};

/// Peak heap of each phase above what was in use when the build began.
class PhasePeaks
{
public:
    explicit PhasePeaks(const HeapMeter* heap) : mHeap(heap), mStart(heap ? heap->inUse() : 0)
    {
        if (mHeap)
            mHeap->restartPeak();
    }

    /// The peak since the last lap; the next phase starts counting from now.
    uint64_t lap()
    {
        if (!mHeap)
            return 0;
        const int64_t above = mHeap->peak() - mStart;
        mHeap->restartPeak();
        return above > 0 ? static_cast<uint64_t>(above) : 0u;
    }

private:
    const HeapMeter* mHeap;
    int64_t mStart;
};
} // namespace

const char* builderName(Builder builder)
{
    return builder == Builder::eSah ? "sah" : builder == Builder::eHq ? "hq" : "linear";
}

void buildHierarchy(const Mesh& mesh, const BuildOptions& options, Hierarchy& out, const Progress* ticker)
{
    std::unique_ptr<Progress> ownProgress;
    if (!ticker)
    {
        ownProgress = std::make_unique<Progress>(std::string("building the BVH (") + builderName(options.builder) +
                                                 ")");
        ticker = ownProgress.get();
    }
    out.bvh = kxGenericBVH();
    out.qbvh = kxQBVH();
    out.times = BuildTimes();
    out.times.peaksMeasured = options.heap != nullptr;
    PhasePeaks peaks(options.heap);
    Stopwatch clock;
    const kxBVHTriangleContainer container(*mesh.mesh);
    out.times.container = clock.lap();
    out.times.containerPeak = peaks.lap();
    if (options.builder == Builder::eLinear)
    {
        kxLinearGenericBVHBuilder builder;
        builder.setMaxPrimitivesPerLeaf(options.leafSize);
        const TickingCancel cancel(*ticker);
        if (!builder.build(container, out.bvh, &cancel, kMortonBits))
            throw Cancelled("cancelled while building the BVH");
    }
    else if (options.builder == Builder::eHq)
    {
        kxHighQualityBVHBuilder builder;
        builder.setMaxPrimitivesPerLeaf(options.leafSize);
        const TickingCancel cancel(*ticker);
        if (!builder.build(*mesh.mesh, out.bvh, &cancel))
            throw Cancelled("cancelled while building the BVH");
    }
    else
    {
        kxGenericBVHBuilder builder;
        builder.build(container, out.bvh);
        throwIfInterrupted("building the BVH");
    }
    out.times.binary = clock.lap();
    out.times.binaryPeak = peaks.lap();
    out.qbvh.buildFromBVH(kxQBVH::tQBVHDataFlags(kxQBVH::eTrianglesVertices | kxQBVH::eTrianglesEquations), out.bvh,
                          *mesh.mesh);
    out.times.collapse = clock.lap();
    out.times.collapsePeak = peaks.lap();
    throwIfInterrupted("building the QBVH");
}
} // namespace kxbvh
