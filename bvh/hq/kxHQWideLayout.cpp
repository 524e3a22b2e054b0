#include "kxHQWideLayout.h"

#include "kxQBVH.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace kxHQ
{
namespace
{
// A way to cover a subtree with slots of a four-wide node: so many leaves and so many
// four-wide nodes, cut from the subtree's tree as a set of disjoint subtrees.
struct Cover
{
    uint8_t leaves, nodes;
};
constexpr int kCovers = 14;
constexpr Cover kCover[kCovers] = {{1, 0}, {0, 1}, {2, 0}, {1, 1}, {0, 2}, {3, 0}, {2, 1},
                                   {1, 2}, {0, 3}, {4, 0}, {3, 1}, {2, 2}, {1, 3}, {0, 4}};
constexpr int kAsLeaf = 0; // the subtree as one leaf
constexpr int kAsNode = 1; // the subtree as one four-wide node
constexpr float kNever = std::numeric_limits<float>::infinity();

int coverOf(int leaves, int nodes)
{
    for (int c = 0; c < kCovers; ++c)
        if (kCover[c].leaves == leaves && kCover[c].nodes == nodes)
            return c;
    return -1;
}

// The collapse takes a node's children, or their children when they are inner: two
// slots only as two leaves, three with at least one leaf standing alone.
bool makesANode(int c)
{
    const int slots = kCover[c].leaves + kCover[c].nodes;
    return slots == 4 || (slots == 3 && kCover[c].leaves > 0) || (slots == 2 && kCover[c].nodes == 0);
}

// Covers of a node's subtree made of a cover of its left subtree and one of its right.
struct Sum
{
    uint8_t left, right, total;
};

std::vector<Sum> sums()
{
    std::vector<Sum> out;
    for (int l = 0; l < kCovers; ++l)
        for (int r = 0; r < kCovers; ++r)
        {
            const int total = coverOf(kCover[l].leaves + kCover[r].leaves, kCover[l].nodes + kCover[r].nodes);
            if (total >= 0)
                out.push_back({uint8_t(l), uint8_t(r), uint8_t(total)});
        }
    return out;
}

struct Slot
{
    uint32_t node;
    bool leaf;
};

class Layout
{
public:
    Layout(const std::vector<TreeNode>& tree, uint32_t maxLeaf, const kx::kxCancelInterfaceReadOnly* cancel)
        : mTree(tree), mMaxLeaf(maxLeaf), mCancel(cancel)
    {
    }

    bool choose(double& cost)
    {
        const size_t n = mTree.size();
        mCost.assign(n * kCovers, kNever);
        mChoice.assign(n * kCovers, 0);
        mNodeCover.assign(n, 0);
        mReferences.assign(n, 0);
        const double rootArea = halfArea(mTree[0].box);
        const bool scaled = rootArea > 0.0 && std::isfinite(rootArea);
        const std::vector<Sum> covers = sums();
        // Memory is priced per reference, whatever the mesh's size.
        const double perReference = kCostPerBytePerReference / double((n + 1) / 2);
        mGroupPrice =
            perReference * double(sizeof(kxQBVH::tSOATriangleEquations) + sizeof(kxQBVH::tSOATriangleIndices));
        mNodePrice = perReference * double(sizeof(kxQBVH::tQBVHNode));
        for (size_t i = n; i-- > 0;)
        {
            if (i % 4096 == 0 && cancelled(mCancel))
                return false;
            const TreeNode& node = mTree[i];
            const double weight = scaled ? halfArea(node.box) / rootArea : 1.0;
            float* c = &mCost[i * kCovers];
            if (node.left == TreeNode::kLeaf)
                mReferences[i] = 1;
            else
                mReferences[i] = std::min(mReferences[node.left] + mReferences[node.left + 1], mMaxLeaf + 1);
            if (mReferences[i] <= mMaxLeaf)
                c[kAsLeaf] = float((weight * kGroupTestCost + mGroupPrice) * ((mReferences[i] + 3) / 4));
            if (node.left == TreeNode::kLeaf)
                continue;
            const float* l = &mCost[size_t(node.left) * kCovers];
            const float* r = l + kCovers;
            for (const Sum& s : covers)
            {
                const float sum = l[s.left] + r[s.right];
                if (sum < c[s.total])
                {
                    c[s.total] = sum;
                    mChoice[i * kCovers + s.total] = s.left;
                }
            }
            float best = kNever;
            for (int k = 2; k < kCovers; ++k)
                if (makesANode(k) && c[k] < best)
                {
                    best = c[k];
                    mNodeCover[i] = uint8_t(k);
                }
            c[kAsNode] = float(weight * kNodeVisitCost + mNodePrice) + best;
        }
        const float* root = &mCost[0];
        mRootIsLeaf = mTree[0].left == TreeNode::kLeaf || root[kAsLeaf] <= root[kAsNode];
        cost = mRootIsLeaf ? root[kAsLeaf] : root[kAsNode];
        if (mTree[0].left == TreeNode::kLeaf && !(cost < kNever))
            cost = 0.0;
        return !cancelled(mCancel);
    }

    bool emit(kxGenericBVH& bvh)
    {
        mNodes.assign(1, kxGNode());
        mPrimitives.clear();
        mJobs.clear();
        mFourWideNodes = mGroups = 0;
        mJobs.push_back({Job::eSlot, {0, mRootIsLeaf}, {}, 0});
        while (!mJobs.empty())
        {
            const Job job = mJobs.back();
            mJobs.pop_back();
            if (job.kind == Job::ePair)
            {
                writePair(job.a, job.b, job.out);
                continue;
            }
            if (job.a.leaf)
            {
                writeLeaf(job.a.node, job.out);
                continue;
            }
            if (cancelled(mCancel))
                return false;
            writeNode(job.a.node, job.out);
        }
        mMemoryCost = mNodePrice * double(mFourWideNodes) + mGroupPrice * double(mGroups);
        bvh.mNodes.swap(mNodes);
        bvh.mPrimitiveIndices.swap(mPrimitives);
        bvh.mNodeCount = static_cast<uint32_t>(bvh.mNodes.size());
        bvh.mPrimitiveCount = static_cast<uint32_t>(bvh.mPrimitiveIndices.size());
        return true;
    }

    /// The price of the memory of the emitted tree, included in the cost choose gave.
    double memoryCost() const
    {
        return mMemoryCost;
    }

private:
    struct Job
    {
        enum Kind : uint8_t
        {
            eSlot, // a: a leaf or a four-wide node
            ePair  // a and b: the two slots under one child of a four-wide node
        } kind;
        Slot a, b;
        uint32_t out;
    };

    // Appends the slots of the cover c of node's subtree.
    void collect(uint32_t node, int c, Slot* slots, int& count) const
    {
        if (c == kAsLeaf || c == kAsNode)
        {
            slots[count++] = {node, c == kAsLeaf};
            return;
        }
        const int left = mChoice[size_t(node) * kCovers + c];
        const Cover& whole = kCover[c];
        const int right = coverOf(whole.leaves - kCover[left].leaves, whole.nodes - kCover[left].nodes);
        const uint32_t l = mTree[node].left;
        collect(l, left, slots, count);
        collect(l + 1, right, slots, count);
    }

    kxBBox unionOf(const Slot& a, const Slot& b) const
    {
        kxBBox box = mTree[a.node].box;
        box.extend(mTree[b.node].box);
        return box;
    }

    // Children of a node are allocated as a pair; records are addressed by number only,
    // as the array grows.
    uint32_t allocatePair()
    {
        const auto left = static_cast<uint32_t>(mNodes.size());
        mNodes.resize(mNodes.size() + 2);
        return left;
    }

    void linkInner(uint32_t out, const kxBBox& box, uint32_t left)
    {
        int axis = 0;
        float widest = -1.0f;
        for (int a = 0; a < 3; ++a)
            if (box.max[a] - box.min[a] > widest)
            {
                widest = box.max[a] - box.min[a];
                axis = a;
            }
        static constexpr kxBBox::tAxis kAxes[3] = {kxBBox::eAxisX, kxBBox::eAxisY, kxBBox::eAxisZ};
        mNodes[out].bbox = box;
        mNodes[out].offset = (left & kxGNode::eIndexMask) | uint32_t(kAxes[axis]);
        mNodes[out].count = left + 1;
    }

    void writeNode(uint32_t node, uint32_t out)
    {
        Slot slots[4];
        int count = 0;
        collect(node, mNodeCover[node], slots, count);
        ++mFourWideNodes;
        // Halves: a leaf alone, or a pair of slots. The pairing with the least area keeps
        // the intermediate boxes meaningful; the walk never tests them.
        Job halves[2];
        if (count == 2)
        {
            halves[0] = {Job::eSlot, slots[0], {}, 0};
            halves[1] = {Job::eSlot, slots[1], {}, 0};
        }
        else if (count == 3)
        {
            double best = std::numeric_limits<double>::infinity();
            for (int alone = 0; alone < 3; ++alone)
            {
                if (!slots[alone].leaf)
                    continue;
                const Slot& a = slots[alone == 0 ? 1 : 0];
                const Slot& b = slots[alone == 2 ? 1 : 2];
                const double area = halfArea(unionOf(a, b));
                if (area < best || best == std::numeric_limits<double>::infinity())
                {
                    best = area;
                    halves[0] = {Job::ePair, a, b, 0};
                    halves[1] = {Job::eSlot, slots[alone], {}, 0};
                }
            }
        }
        else
        {
            static constexpr int kPairings[3][4] = {{0, 1, 2, 3}, {0, 2, 1, 3}, {0, 3, 1, 2}};
            double best = std::numeric_limits<double>::infinity();
            for (const auto& p : kPairings)
            {
                const double area =
                    halfArea(unionOf(slots[p[0]], slots[p[1]])) + halfArea(unionOf(slots[p[2]], slots[p[3]]));
                if (area < best || best == std::numeric_limits<double>::infinity())
                {
                    best = area;
                    halves[0] = {Job::ePair, slots[p[0]], slots[p[1]], 0};
                    halves[1] = {Job::ePair, slots[p[2]], slots[p[3]], 0};
                }
            }
        }
        const uint32_t left = allocatePair();
        linkInner(out, mTree[node].box, left);
        halves[1].out = left + 1;
        halves[0].out = left;
        mJobs.push_back(halves[1]);
        mJobs.push_back(halves[0]);
    }

    void writePair(const Slot& a, const Slot& b, uint32_t out)
    {
        const uint32_t left = allocatePair();
        linkInner(out, unionOf(a, b), left);
        mJobs.push_back({Job::eSlot, b, {}, left + 1});
        mJobs.push_back({Job::eSlot, a, {}, left});
    }

    void writeLeaf(uint32_t node, uint32_t out)
    {
        const auto first = static_cast<uint32_t>(mPrimitives.size());
        mWalk.assign(1, node);
        while (!mWalk.empty())
        {
            const TreeNode& n = mTree[mWalk.back()];
            mWalk.pop_back();
            if (n.left == TreeNode::kLeaf)
            {
                mPrimitives.push_back(n.triangle);
                continue;
            }
            mWalk.push_back(n.left + 1);
            mWalk.push_back(n.left);
        }
        // References of one triangle that end in one leaf become one entry again.
        std::sort(mPrimitives.begin() + first, mPrimitives.end());
        mPrimitives.erase(std::unique(mPrimitives.begin() + first, mPrimitives.end()), mPrimitives.end());
        mNodes[out].bbox = mTree[node].box;
        mNodes[out].offset = first | kxGNode::eLeafMark;
        mNodes[out].count = static_cast<uint32_t>(mPrimitives.size()) - first;
        mGroups += (mNodes[out].count + 3) / 4;
    }

    const std::vector<TreeNode>& mTree;
    uint32_t mMaxLeaf;
    const kx::kxCancelInterfaceReadOnly* mCancel;
    std::vector<float> mCost;          // per node and cover: the least expected cost
    std::vector<uint8_t> mChoice;      // per node and cover of two or more slots: the left subtree's cover
    std::vector<uint8_t> mNodeCover;   // per node: the cover its four-wide node takes
    std::vector<uint32_t> mReferences; // per node, at most maxLeaf + 1
    bool mRootIsLeaf = true;
    double mGroupPrice = 0.0, mNodePrice = 0.0;
    uint64_t mFourWideNodes = 0, mGroups = 0;
    double mMemoryCost = 0.0;
    std::vector<kxGNode> mNodes;
    std::vector<uint32_t> mPrimitives;
    std::vector<Job> mJobs;
    std::vector<uint32_t> mWalk;
};
} // namespace

bool layOutFourWide(const std::vector<TreeNode>& tree, uint32_t maxLeaf, const kx::kxCancelInterfaceReadOnly* cancel,
                    kxGenericBVH& bvh, double& cost)
{
    Layout layout(tree, maxLeaf, cancel);
    if (!layout.choose(cost) || !layout.emit(bvh))
        return false;
    cost = std::max(0.0, cost - layout.memoryCost());
    return true;
}
} // namespace kxHQ
