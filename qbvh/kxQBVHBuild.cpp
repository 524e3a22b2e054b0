#include "kxQBVH.h"
#include "kxQBVHCollapse.h"
#include "kxQBVHReference.h"
#include "kxSimd4.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

using namespace kxQBVHCollapse;
using namespace kxSimd;

namespace
{
// Depth parity of the binary records reached from the root. The four-wide nodes are the
// inner records at even depth; a leaf at odd depth is a child of one and fills two of its
// slots (itself and an empty one), any other reached record fills one.
enum Depth : uint8_t
{
    eUnreached = 0,
    eEven = 1,
    eOdd = 2
};

struct Layout
{
    std::vector<uint8_t> depth;
    uint32_t nodeCount = 0;
    uint32_t groupCount = 0;
    /// One bit per primitive position, set where a leaf with groups starts.
    std::vector<uint64_t> leafStarts;
    /// Whether those leaves start at distinct positions, position 0 among them, and their
    /// counts sum to the positions. If each also ends where another starts (the collapse
    /// checks that), they tile the positions.
    bool mayTile = false;
};

// Bits set in x. The library's baseline lacks the instruction, and the compiler's
// fallback is a call.
inline uint32_t bitCount(uint64_t x)
{
    x -= (x >> 1) & 0x5555555555555555u;
    x = (x & 0x3333333333333333u) + ((x >> 2) & 0x3333333333333333u);
    x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
    return static_cast<uint32_t>((x * 0x0101010101010101u) >> 56);
}

// Sizes the four-wide tree in one forward sweep, and marks where leaves start when asked.
// Numbering in binary node order in one more sweep needs every record reached once and
// after its parent, as the builders lay them out; false for any other tree.
bool layOut(const kxGenericBVH& bvh, bool markLeafStarts, Layout& layout)
{
    const size_t B = bvh.mNodes.size();
    const size_t N = markLeafStarts ? bvh.mPrimitiveIndices.size() : 0;
    layout.depth.assign(B, eUnreached);
    layout.depth[0] = eEven;
    layout.leafStarts.assign((N + 63) / 64, 0);
    bool distinct = true;
    uint64_t covered = 0;
    for (size_t n = 0; n < B; ++n)
    {
        const uint8_t depth = layout.depth[n];
        if (depth == eUnreached)
            continue;
        const kxGNode& node = bvh.mNodes[n];
        if (isLeaf(node))
        {
            layout.groupCount += groupsFor(node.count);
            if (markLeafStarts && fillsGroups(node.count))
            {
                const uint32_t offset = node.offset & kxGNode::eIndexMask;
                if (offset < N && node.count <= N - offset)
                {
                    uint64_t& word = layout.leafStarts[offset >> 6];
                    const uint64_t bit = uint64_t(1) << (offset & 63);
                    distinct = distinct && !(word & bit);
                    word |= bit;
                }
                else
                    distinct = false;
                covered += node.count;
            }
            continue;
        }
        layout.nodeCount += depth == eEven;
        for (const uint32_t child : {leftChild(node), rightChild(node)})
        {
            if (child <= n || child >= B || layout.depth[child] != eUnreached)
                return false;
            layout.depth[child] = depth == eEven ? eOdd : eEven;
        }
    }
    layout.mayTile = distinct && covered == N && N > 0 && N < kNone && (layout.leafStarts[0] & 1);
    return true;
}

// Writes the collapse in one forward sweep over the binary records, then the leaves'
// groups. A record's number (four-wide node or first group) is the count of those before
// it, and its slot in its four-wide parent, numbered earlier, was handed down to it. Nodes
// come out nearly in order. When the leaves tile the primitive positions, as every
// builder's do, their groups are written in position order; otherwise in record order,
// each leaf waiting in a short queue while its data is prefetched: the primitive numbers
// when it joins, the index triples those name a few leaves later, then the vertices.
class ForwardCollapse
{
public:
    ForwardCollapse(const kxGenericBVH& bvh, const Layout& layout, const kx::kxTriMesh& mesh,
                    kxQBVH::tQBVHNode* nodes, kxQBVH::tSOATriangleVertices* vertices,
                    kxQBVH::tSOATriangleEquations* equations, kxQBVH::tSOATriangleIndices* indices)
        : mBVH(bvh), mDepth(layout.depth.data()), mPositions(positionsOf(*mesh.GetVertexBuffer())),
          mCorners(mesh.GetIndexBuffer()->GetData()), mNodes(nodes), mVertices(vertices), mEquations(equations),
          mIndices(indices),
          mLastVertex(static_cast<uint32_t>(std::max(mesh.GetVertexBuffer()->GetVertexQuantity(), 1) - 1)),
          mNodeCount(layout.nodeCount), mSlot(new uint32_t[bvh.mNodes.size()]),
          mStarts(layout.leafStarts.data()), mStartWords(static_cast<uint32_t>(layout.leafStarts.size())),
          mPositionCount(static_cast<uint32_t>(bvh.mPrimitiveIndices.size())), mTiled(layout.mayTile && indices)
    {
        if (!mTiled)
            return;
        mRankBase.reset(new uint32_t[mStartWords]);
        uint32_t leaves = 0;
        for (uint32_t w = 0; w < mStartWords; ++w)
        {
            mRankBase[w] = leaves;
            leaves += bitCount(mStarts[w]);
        }
        mLeafGroup.reset(new uint32_t[leaves]);
    }

    void run()
    {
        const uint32_t B = static_cast<uint32_t>(mBVH.mNodes.size());
        uint32_t nodeCount = 0, groupCount = 0;
        for (uint32_t n = 0; n < B; ++n)
        {
            const uint8_t depth = mDepth[n];
            if (depth == eUnreached)
                continue;
            const kxGNode& binary = mBVH.mNodes[n];
            if (isLeaf(binary))
            {
                if (n != 0)
                    fillSlot(n, groupCount, groupsFor(binary.count), depth == eOdd);
                if (mTiled && fillsGroups(binary.count))
                    noteLeaf(binary, groupCount);
                groupCount += groupsFor(binary.count);
                continue;
            }
            uint32_t childSlot;
            if (depth == eEven)
            {
                if (n != 0)
                    fillSlot(n, nodeCount, kNone, false);
                childSlot = 4 * nodeCount++;
            }
            else
                childSlot = mSlot[n];
            // An odd record's children take its slot and the next; an even one's children
            // head a pair each.
            const uint32_t step = depth == eEven ? 2 : 1;
            mSlot[leftChild(binary)] = childSlot;
            mSlot[rightChild(binary)] = childSlot + step;
        }
        if (!mIndices)
            return;
        if (mTiled)
            fillInPositionOrder();
        else
            fillInRecordOrder();
        streamFence();
    }

private:
    // Vertices are read through a plain pointer: read through the buffer, each access
    // reloads the vector's start, which for all the compiler knows the stores around it
    // might have changed.
    static const float* positionsOf(const kx::kxVertexBuffer& buffer)
    {
        return buffer.GetVertexQuantity() > 0 ? &buffer.Position3(0)[0] : nullptr;
    }

    struct QueuedLeaf
    {
        const uint32_t* primitives;
        uint32_t count;
        uint32_t firstGroup;
    };

    // Leaves a leaf waits behind before its groups are written, and the places in the
    // queue where its index triples and its vertices are prefetched.
    static constexpr uint32_t kQueue = 16;
    static constexpr uint32_t kCornersAt = 4;
    static constexpr uint32_t kPositionsAt = 10;
    static constexpr uint32_t kQueueMax = 32;
    // Leaves larger than this are prefetched in part; their later groups wait on memory.
    static constexpr uint32_t kPrefetchedPerLeaf = 8;
    // Four-wide nodes have their slots filled nearly in order: filling one fetches the
    // lines of the node this many further on, so that its first write does not wait.
    static constexpr uint32_t kNodesAhead = 8;
    // Positions ahead of the one being filled whose index triples, and whose vertices, are
    // prefetched when the leaves are read in position order.
    static constexpr uint32_t kCornersAhead = 64;
    static constexpr uint32_t kPositionsAhead = 32;

    // Inlined by force, as the prefetches below: GCC takes a function that only prefetches
    // for one without effects and drops the calls to it.
    [[gnu::always_inline]] void enqueue(const kxGNode& leaf, uint32_t firstGroup)
    {
        const uint32_t* primitives = mBVH.mPrimitiveIndices.data() + (leaf.offset & kxGNode::eIndexMask);
        prefetch(primitives);
        mQueue[mQueued % kQueueMax] = {primitives, leaf.count, firstGroup};
        ++mQueued;
        if (mQueued > kCornersAt)
            prefetchCorners(mQueue[(mQueued - 1 - kCornersAt) % kQueueMax]);
        if (mQueued > kPositionsAt)
            prefetchPositions(mQueue[(mQueued - 1 - kPositionsAt) % kQueueMax]);
        if (mQueued > kQueue)
            fillLeaf(mQueue[(mQueued - 1 - kQueue) % kQueueMax]);
    }

    [[gnu::always_inline]] void prefetchCorners(const QueuedLeaf& leaf) const
    {
        const uint32_t count = std::min(leaf.count, kPrefetchedPerLeaf);
        for (uint32_t i = 0; i < count; ++i)
            prefetch(mCorners + 3 * static_cast<size_t>(leaf.primitives[i]));
    }

    [[gnu::always_inline]] void prefetchPositions(const QueuedLeaf& leaf) const
    {
        const uint32_t count = std::min(leaf.count, kPrefetchedPerLeaf);
        for (uint32_t i = 0; i < count; ++i)
        {
            const unsigned int* corners = mCorners + 3 * static_cast<size_t>(leaf.primitives[i]);
            prefetch(mPositions + 3 * static_cast<size_t>(corners[0]));
            prefetch(mPositions + 3 * static_cast<size_t>(corners[1]));
            prefetch(mPositions + 3 * static_cast<size_t>(corners[2]));
        }
    }

    bool startsLeaf(uint64_t position) const
    {
        return (mStarts[position >> 6] >> (position & 63)) & 1;
    }

    // Hands the leaf's first group to its place in position order, or gives that order up
    // when the leaf does not end where another starts.
    void noteLeaf(const kxGNode& leaf, uint32_t firstGroup)
    {
        const uint32_t offset = leaf.offset & kxGNode::eIndexMask;
        const uint64_t end = uint64_t(offset) + leaf.count;
        if (end != mPositionCount && !startsLeaf(end))
        {
            mTiled = false;
            return;
        }
        const uint64_t below = mStarts[offset >> 6] & ((uint64_t(1) << (offset & 63)) - 1);
        mLeafGroup[mRankBase[offset >> 6] + bitCount(below)] = firstGroup;
    }

    void fillInRecordOrder()
    {
        const uint32_t B = static_cast<uint32_t>(mBVH.mNodes.size());
        uint32_t groupCount = 0;
        for (uint32_t n = 0; n < B; ++n)
        {
            const kxGNode& binary = mBVH.mNodes[n];
            if (mDepth[n] == eUnreached || !isLeaf(binary))
                continue;
            if (fillsGroups(binary.count))
                enqueue(binary, groupCount);
            groupCount += groupsFor(binary.count);
        }
        for (uint32_t i = mQueued > kQueue ? mQueued - kQueue : 0; i < mQueued; ++i)
            fillLeaf(mQueue[i % kQueueMax]);
    }

    // The leaves tile the primitive positions: read them in that order, which reads the
    // primitive numbers once from front to back and meets neighbouring triangles together.
    void fillInPositionOrder()
    {
        const uint32_t* primitives = mBVH.mPrimitiveIndices.data();
        uint32_t leaf = 0, start = 0, cornersAt = 0, positionsAt = 0;
        auto fillUpTo = [&](uint32_t end) {
            const uint32_t corners = std::min(end + kCornersAhead, mPositionCount);
            for (; cornersAt < corners; ++cornersAt)
                prefetch(mCorners + 3 * static_cast<size_t>(primitives[cornersAt]));
            const uint32_t positions = std::min(end + kPositionsAhead, mPositionCount);
            for (; positionsAt < positions; ++positionsAt)
            {
                const unsigned int* c = mCorners + 3 * static_cast<size_t>(primitives[positionsAt]);
                prefetch(mPositions + 3 * static_cast<size_t>(c[0]));
                prefetch(mPositions + 3 * static_cast<size_t>(c[1]));
                prefetch(mPositions + 3 * static_cast<size_t>(c[2]));
            }
            fillLeaf({primitives + start, end - start, mLeafGroup[leaf++]});
            start = end;
        };
        for (uint32_t w = 0; w < mStartWords; ++w)
        {
            uint64_t bits = mStarts[w];
            if (w == 0)
                bits &= bits - 1;
            for (; bits; bits &= bits - 1)
                fillUpTo(64 * w + static_cast<uint32_t>(__builtin_ctzll(bits)));
        }
        fillUpTo(mPositionCount);
    }

    // Record n's box, child and count in the slot handed down to it; a leaf child of a
    // four-wide node leaves the slot after its own empty.
    void fillSlot(uint32_t n, uint32_t child, uint32_t count, bool emptyNext)
    {
        const uint32_t slot = mSlot[n];
        kxQBVH::tQBVHNode& node = mNodes[slot >> 2];
        if ((slot >> 2) + kNodesAhead < mNodeCount)
            prefetchLines(&mNodes[(slot >> 2) + kNodesAhead], 2);
        const uint32_t k = slot & 3;
        const kxBBox& box = mBVH.mNodes[n].bbox;
        for (int a = 0; a < 3; ++a)
        {
            node.bboxMin[a][k] = box.min[a];
            node.bboxMax[a][k] = box.max[a];
        }
        node.child[k] = child;
        node.count[k] = count;
        if (!emptyNext)
            return;
        const kxBBox empty;
        for (int a = 0; a < 3; ++a)
        {
            node.bboxMin[a][k + 1] = empty.min[a];
            node.bboxMax[a][k + 1] = empty.max[a];
        }
        node.child[k + 1] = kNone;
        node.count[k + 1] = 0;
    }

    // Vertex v as (x, y, z, any). The buffer's last vertex is read alone, so that no load
    // reaches past the buffer's end.
    vfloat4 position(unsigned int v) const
    {
        const float* p = mPositions + 3 * static_cast<size_t>(v);
        return v < mLastVertex ? vfloat4::loadUnaligned(p) : vfloat4::load3(p);
    }

    // One lane of a group: its index and its corners, or the padding past the leaf's end.
    [[gnu::always_inline]] void loadLane(const uint32_t* primitives, uint32_t lane, uint32_t realLanes,
                                         vfloat4 (&vertex)[3][4], uint32_t (&index)[4]) const
    {
        if (lane >= realLanes)
        {
            vertex[0][lane] = vertex[1][lane] = vertex[2][lane] = vfloat4(0.0f);
            return;
        }
        const uint32_t t = primitives[lane];
        index[lane] = t;
        const unsigned int* corners = mCorners + 3 * static_cast<size_t>(t);
        vertex[0][lane] = position(corners[0]);
        vertex[1][lane] = position(corners[1]);
        vertex[2][lane] = position(corners[2]);
    }

    // The groups are written with streaming stores: nothing reads them back soon. The four
    // lanes are spelt out rather than looped over: the loop's bookkeeping cost more than
    // its loads.
    void fillLeaf(const QueuedLeaf& leaf)
    {
        const uint32_t n = leaf.count;
        const uint32_t groups = groupsFor(n);
        for (uint32_t g = 0; g < groups; ++g)
        {
            const uint32_t group = leaf.firstGroup + g;
            const uint32_t realLanes = std::min(n - 4 * g, 4u);
            const uint32_t* primitives = leaf.primitives + 4 * g;
            // [corner][lane]; padding lanes have their corners at the origin.
            vfloat4 vertex[3][4];
            alignas(16) uint32_t index[4] = {kNone, kNone, kNone, kNone};
            loadLane(primitives, 0, realLanes, vertex, index);
            loadLane(primitives, 1, realLanes, vertex, index);
            loadLane(primitives, 2, realLanes, vertex, index);
            loadLane(primitives, 3, realLanes, vertex, index);
            vuint4::load(index).stream(mIndices[group].index);
            vfloat4 corner[3][3];
            for (int c = 0; c < 3; ++c)
                transpose3(vertex[c][0], vertex[c][1], vertex[c][2], vertex[c][3], corner[c][0], corner[c][1],
                           corner[c][2]);
            if (mVertices)
                for (int c = 0; c < 3; ++c)
                    for (int a = 0; a < 3; ++a)
                        corner[c][a].stream(mVertices[group].corner[c][a]);
            if (mEquations)
            {
                float(*eq)[4] = mEquations[group].eq;
                computeEquations(corner, realLanes, [eq](int row, vfloat4 value) { value.stream(eq[row]); });
            }
        }
    }

    const kxGenericBVH& mBVH;
    const uint8_t* mDepth;
    /// x, y, z of each vertex in turn.
    const float* mPositions;
    const unsigned int* mCorners;
    kxQBVH::tQBVHNode* mNodes;
    kxQBVH::tSOATriangleVertices* mVertices;
    kxQBVH::tSOATriangleEquations* mEquations;
    kxQBVH::tSOATriangleIndices* mIndices;
    uint32_t mLastVertex;
    uint32_t mNodeCount;
    /// Per record: four-wide node * 4 + slot, set by its parent.
    std::unique_ptr<uint32_t[]> mSlot;
    QueuedLeaf mQueue[kQueueMax];
    uint32_t mQueued = 0;
    const uint64_t* mStarts;
    uint32_t mStartWords;
    uint32_t mPositionCount;
    bool mTiled;
    /// Per word of mStarts: the leaves that start before it.
    std::unique_ptr<uint32_t[]> mRankBase;
    /// Per leaf with groups, in position order: its first group.
    std::unique_ptr<uint32_t[]> mLeafGroup;
};
} // namespace

void kxQBVH::buildFromBVH(tQBVHDataFlags flags, const kxGenericBVH& bvh, const kx::kxTriMesh& mesh)
{
    if (bvh.mNodes.empty())
    {
        allocate(flags, 0, 0);
        mBBox = kxBBox();
        return;
    }
    bool laidOut;
    {
        Layout layout;
        laidOut = layOut(bvh, flags & (eTrianglesVertices | eTrianglesEquations), layout);
        if (laidOut)
        {
            allocate(flags, layout.nodeCount, layout.groupCount);
            ForwardCollapse(bvh, layout, mesh, mNodes, mTriangleVertices, mTriangleEquations, mTriangleIndices).run();
        }
    }
    if (!laidOut)
        kxQBVHReference::collapse(*this, flags, bvh, mesh);
    if (!computeRootNodeBBox())
        mBBox = bvh.mNodes[0].bbox;
}
