#ifndef KXGENERICBVH_H
#define KXGENERICBVH_H

#include "kxBBox.h"

#include <cstdint>
#include <iosfwd>
#include <vector>

/// One record of a binary BVH: a box and two words.
///
/// offset: bits 30-31 the kind (0, 1, 2 = inner node split on x, y, z; 3 = leaf), bits
/// 0-29 the left child (inner) or the first position in the primitive index array (leaf).
/// count: the right child (inner; readers mask it with 0x0FFFFFFF, and it is always the
/// left child + 1) or the number of primitives (leaf, whole word).
struct kxGNode
{
    static constexpr uint32_t eKindMask = 0xC0000000u;
    static constexpr uint32_t eLeafMark = 0xC0000000u;
    static constexpr uint32_t eIndexMask = 0x3FFFFFFFu;
    static constexpr uint32_t eRightChildMask = 0x0FFFFFFFu;

    kxBBox bbox;
    uint32_t offset = 0;
    uint32_t count = 0;
};

/// Binary bounding volume hierarchy over primitives known by number. Builders write the
/// members in place and readers read them in place: the node encoding of kxGNode is the
/// interface. The root is record 0. Any number of threads may read a finished hierarchy.
class kxGenericBVH
{
public:
    std::vector<uint32_t> mPrimitiveIndices;
    std::vector<kxGNode> mNodes;
    uint32_t mPrimitiveCount = 0;
    /// Records the builder emitted. After a binned-SAH build the records of the tree (the
    /// array may be longer); after a linear build the count before leaf fusing (the array
    /// then holds exactly the tree and may be shorter).
    uint32_t mNodeCount = 0;

    /// 4 * (capacity of the index array + 8 * capacity of the node array + 2) bytes.
    uint64_t getMemoryUsed() const;

    /// Writes the subtree rooted at node to standard output, indented by depth bars.
    void printNode(unsigned int node, unsigned int depth) const;
    /// Accumulates leaf statistics of the subtree at node, left child first. maxAt gets
    /// (level << 24) | node of the first leaf reached with the largest size.
    void getBVHInfoIter(int node, int& leaves, int& minLeaf, int& maxLeaf, int& sumLeaf, int& maxAt,
                        int level) const;
    /// Whole-tree statistics; minLeaf starts at the node count. Also writes
    /// "max at lvl:<level of the largest leaf>" to standard output.
    void getBVHInfo(int& nodes, int& leaves, int& minLeaf, int& maxLeaf, float& avgLeaf) const;
};

/// Writes "<nodes> nodes. <leaves>(<max>,<min>,<avg>) leaves (max, min, avg):" to os
/// (no line end); getBVHInfo's line goes to standard output as a side effect.
std::ostream& operator<<(std::ostream& os, const kxGenericBVH& bvh);

#endif
