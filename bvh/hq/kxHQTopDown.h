// The first stage of the high-quality builder: a binary tree down to single references.
#ifndef KXHQTOPDOWN_H
#define KXHQTOPDOWN_H

#include "kxHQTypes.h"

namespace kxHQ
{
struct TopDownSettings
{
    bool spatialSplits = true;
    /// Hard limit on the references of the whole tree (at least the triangle count).
    uint64_t referenceLimit = 0;
};

/// Splits the references top-down by the surface-area heuristic until every leaf holds
/// one: object splits over 32 centroid bins (an exact sweep on small nodes), spatial
/// splits over 32 bins of the node's box where the best object split leaves its children
/// overlapping, and a split by count where nothing separates the references. Consumes
/// references (its storage is reused as a stack). False when cancelled, polled once per
/// split.
bool buildTopDown(const std::vector<Triangle>& triangles, std::vector<Reference>& references,
                  const TopDownSettings& settings, const kx::kxCancelInterfaceReadOnly* cancel,
                  std::vector<TreeNode>& tree);
} // namespace kxHQ

#endif
