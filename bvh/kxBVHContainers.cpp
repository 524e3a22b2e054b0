#include "kxBVHContainers.h"

#include "kxHugePages.h"

namespace
{
// The comparisons of kxBBox::extend, written as selects: on scattered vertices branches
// would mispredict about every other time.
inline void extendBySelect(kxBBox& box, const Wm4::Vector3<float>& p)
{
    for (int a = 0; a < 3; ++a)
    {
        box.min[a] = p[a] < box.min[a] ? p[a] : box.min[a];
        box.max[a] = p[a] > box.max[a] ? p[a] : box.max[a];
    }
}
} // namespace

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
        kxBBox box;
        for (int corner = 0; corner < 3; ++corner)
            extendBySelect(box, mVertices->Position3(static_cast<int>(index[corner])));
        mBoxes.push_back(box);
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
