#include "kxBVHContainers.h"

#include "kxBoxLanes.h"
#include "kxHugePages.h"

kxLinearGenericBVHBuilder::tPrimitiveContainerInterface::~tPrimitiveContainerInterface() = default;

kxBVHTriangleContainer::kxBVHTriangleContainer(const kx::kxVertexBuffer* vertices, const kx::kxIndexBuffer* indices)
    : mVertices(vertices), mIndices(indices)
{
    computeBoxes();
}

kxBVHTriangleContainer::kxBVHTriangleContainer(const kx::kxTriMesh& mesh)
    : kxBVHTriangleContainer(mesh.GetVertexBuffer(), mesh.GetIndexBuffer())
{
}

kxBVHTriangleContainer::~kxBVHTriangleContainer() = default;

void kxBVHTriangleContainer::computeBoxes()
{
    const int n = mIndices->GetIndexQuantity();
    // Widened with its sign: a quantity of -3 or less asks for an impossible size and
    // fails with the standard length error, as a corrupt count should.
    const int64_t triangles = n / 3;
    if (triangles <= 0)
    {
        mBoxes.resize(static_cast<size_t>(triangles));
        return;
    }
    // Each box is made in registers and stored once: one pass over the array.
    kxMemory::reserveWithHugePages(mBoxes, static_cast<size_t>(triangles));
    const unsigned int* index = mIndices->GetData();
    for (int64_t t = 0; t < triangles; ++t, index += 3)
    {
        kxBoxLanes::Accumulator box;
        box.extend(kxBoxLanes::load3(&mVertices->Position3(static_cast<int>(index[0]))[0]));
        box.extend(kxBoxLanes::load3(&mVertices->Position3(static_cast<int>(index[1]))[0]));
        box.extend(kxBoxLanes::load3(&mVertices->Position3(static_cast<int>(index[2]))[0]));
        box.store(mBoxes.emplace_back());
    }
}

kxBVHMeshContainer::kxBVHMeshContainer(const std::vector<kx::kxTriMesh*>& meshes) : mBoxes(meshes.size())
{
    for (size_t m = 0; m < meshes.size(); ++m)
    {
        const kx::kxVertexBuffer* vertices = meshes[m]->GetVertexBuffer();
        const int count = vertices->GetVertexQuantity();
        for (int i = 0; i < count; ++i)
            mBoxes[m].extend(vertices->Position3(i));
    }
}

kxBVHMeshContainer::~kxBVHMeshContainer() = default;
