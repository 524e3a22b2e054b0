#include "kxHighQualityBVHBuilder.h"

#include "../linear/kxLinearBuildSupport.h"
#include "kxHQTopDown.h"
#include "kxHQWideLayout.h"

#include <algorithm>
#include <utility>

using kxLinearBVH::humanizedBytes;
using kxLinearBVH::kxBuildLogLine;

namespace
{
// Triangles as the triangle container numbers them (trailing indices that make no
// triangle are ignored), each referenced once with the box of its corners.
void gatherTriangles(const kx::kxTriMesh& mesh, std::vector<kxHQ::Triangle>& triangles,
                     std::vector<kxHQ::Reference>& references)
{
    const kx::kxIndexBuffer& indexBuffer = *mesh.GetIndexBuffer();
    const kx::kxVertexBuffer& vertices = *mesh.GetVertexBuffer();
    const int quantity = indexBuffer.GetIndexQuantity();
    const uint32_t count = quantity < 3 ? 0u : static_cast<uint32_t>(quantity / 3);
    const unsigned int* indices = indexBuffer.GetData();
    triangles.resize(count);
    references.resize(count);
    for (uint32_t t = 0; t < count; ++t)
    {
        kxBBox box;
        for (int k = 0; k < 3; ++k)
        {
            const Wm4::Vector3<float>& p = vertices.Position3(static_cast<int>(indices[3u * t + k]));
            box.extend(p);
            for (int a = 0; a < 3; ++a)
                triangles[t].corner[k][a] = p[a];
        }
        references[t] = {box, t};
    }
}

uint64_t referenceLimit(uint64_t triangles)
{
    return triangles + triangles / 4;
}
} // namespace

kxHighQualityBVHBuilder::kxHighQualityBVHBuilder() : mMaxPrimitivesPerLeaf(4), mSpatialSplits(true) {}

void kxHighQualityBVHBuilder::setMaxPrimitivesPerLeaf(unsigned int n)
{
    mMaxPrimitivesPerLeaf = std::max(n, 1u);
}

unsigned int kxHighQualityBVHBuilder::getMaxPrimitivesPerLeaf() const
{
    return mMaxPrimitivesPerLeaf;
}

void kxHighQualityBVHBuilder::setSpatialSplits(bool enabled)
{
    mSpatialSplits = enabled;
}

bool kxHighQualityBVHBuilder::getSpatialSplits() const
{
    return mSpatialSplits;
}

bool kxHighQualityBVHBuilder::build(const kx::kxTriMesh& mesh, kxGenericBVH& bvh,
                                    const kx::kxCancelInterfaceReadOnly* cancel)
{
    bvh = kxGenericBVH();
    std::vector<kxHQ::Triangle> triangles;
    std::vector<kxHQ::Reference> references;
    gatherTriangles(mesh, triangles, references);
    const auto count = static_cast<uint32_t>(triangles.size());
    kxBuildLogLine() << "kxHighQualityBVHBuilder : allocate "
                     << humanizedBytes(uint64_t{count} * (sizeof(kxHQ::Triangle) + sizeof(kxHQ::Reference))) << "B for "
                     << count << " triangles";
    if (kxHQ::cancelled(cancel))
        return false;

    kxGenericBVH result;
    double cost = 0.0;
    uint64_t treeNodes = 1;
    if (count == 0)
    {
        result.mNodes.resize(1);
        result.mNodes[0].offset = kxGNode::eLeafMark;
        result.mNodeCount = 1;
    }
    else
    {
        kxHQ::TopDownSettings settings;
        settings.spatialSplits = mSpatialSplits;
        settings.referenceLimit = referenceLimit(count);
        std::vector<kxHQ::TreeNode> tree;
        if (!kxHQ::buildTopDown(triangles, references, settings, cancel, tree))
            return false;
        std::vector<kxHQ::Reference>().swap(references);
        treeNodes = tree.size();
        kxBuildLogLine() << "kxHighQualityBVHBuilder : allocate "
                         << humanizedBytes(treeNodes * (sizeof(kxHQ::TreeNode) + kxHQ::kLayoutBytesPerNode)) << "B for "
                         << treeNodes << " tree nodes over " << (treeNodes + 1) / 2 << " references";
        if (!kxHQ::layOutFourWide(tree, mMaxPrimitivesPerLeaf, cancel, result, cost))
            return false;
    }
    if (kxHQ::cancelled(cancel))
        return false;
    kxBuildLogLine() << "kxHighQualityBVHBuilder : " << result.mNodes.size() << " nodes, " << result.mPrimitiveCount
                     << " references to " << count << " triangles in leaves of at most " << mMaxPrimitivesPerLeaf
                     << ", four-wide cost " << cost;
    bvh = std::move(result);
    return true;
}
