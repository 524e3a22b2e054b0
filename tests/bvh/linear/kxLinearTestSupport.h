// Scenes and an independent plain reference of the linear build, shared by its tests.
#ifndef KXLINEARTESTSUPPORT_H
#define KXLINEARTESTSUPPORT_H

#include "kxGenericBVH.h"
#include "kxLinearGenericBVHBuilder.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace kxLinearTest
{
struct Scene
{
    std::string name;
    std::vector<kxBBox> boxes;
};

/// Uniform, clustered, duplicated points, all-equal points, huge (one overflowing the
/// extent), tiny, far from the origin, some empty boxes; quantity boxes each.
std::vector<Scene> makeScenes(uint32_t quantity, uint32_t seed);

/// A linear build computed plainly: codes by a bit loop, a comparison sort, then for each
/// code bit from the top every run split where that bit turns on, records numbered in that
/// order, each box the union of its run.
struct Reference
{
    struct Run
    {
        uint32_t first, count;
    };
    std::vector<uint64_t> codes; // per primitive
    kxGenericBVH emitted;        // before fusing, without the spare record
    std::vector<Run> runs;       // per emitted record
    uint64_t runListEntries = 0; // runs of every level 0..L, added up
    uint64_t distinctCodes = 0;
};

Reference buildReference(const std::vector<kxBBox>& boxes, unsigned bits);
/// The emitted tree with every subtree of at most limit primitives fused, renumbered.
kxGenericBVH fusedReference(const Reference& reference, uint32_t limit);
/// Empty when both are identical record by record (boxes bitwise), in their index arrays
/// and counters, and the node array is trimmed.
std::string compareHierarchies(const kxGenericBVH& actual, const kxGenericBVH& expected);

/// Polls the builder makes: after the codes, the sort, the run counting and the run
/// lists; per level; per emitted record and per primitive in the refit and once after it;
/// per emitted record while fusing, after the count and after renumbering; once at the end.
inline uint64_t expectedPolls(uint64_t quantity, unsigned bits, const Reference& reference)
{
    const uint64_t emitted = 2 * reference.distinctCodes - 1;
    return 4 + 3 * std::min(bits, 21u) + (emitted + quantity) + 1 + (emitted + 2) + 1;
}

/// Counts its polls and answers true from the cancelFrom-th poll on (never for 0).
class kxCountingCancel : public kx::kxCancelInterfaceReadOnly
{
public:
    explicit kxCountingCancel(uint64_t cancelFrom = 0) : mCancelFrom(cancelFrom) {}
    bool shouldCancel() const override { return ++mPolls >= mCancelFrom && mCancelFrom != 0; }
    uint64_t polls() const { return mPolls; }

private:
    uint64_t mCancelFrom;
    mutable uint64_t mPolls = 0;
};
} // namespace kxLinearTest

#endif
