#ifndef KXBVHCONTAINERS_H
#define KXBVHCONTAINERS_H

#include "kxLinearGenericBVHBuilder.h"
#include "kxTriMesh.h"

#include <vector>

/// The triangles of one indexed mesh as boxed primitives: triangle t has the box of the
/// vertices named by indices 3t, 3t+1, 3t+2. Boxes are computed once, at construction;
/// the buffers are read, not owned, and neither indices nor counts are range-checked.
class kxBVHTriangleContainer : public kxLinearGenericBVHBuilder::tPrimitiveContainerInterface
{
public:
    kxBVHTriangleContainer(const kx::kxVertexBuffer* vertices, const kx::kxIndexBuffer* indices);
    explicit kxBVHTriangleContainer(const kx::kxTriMesh& mesh);
    ~kxBVHTriangleContainer() override;

    const kxBBox& getBBox(unsigned int i) const override { return mBoxes[i]; }
    uint32_t getQuantity() const override { return static_cast<uint32_t>(mBoxes.size()); }

private:
    void computeBoxes();

    const kx::kxVertexBuffer* mVertices;
    const kx::kxIndexBuffer* mIndices;
    std::vector<kxBBox> mBoxes;
};

/// Whole meshes as boxed primitives: mesh m has the box of every vertex of its vertex
/// buffer (the empty box when it has none). The list is not kept.
class kxBVHMeshContainer : public kxLinearGenericBVHBuilder::tPrimitiveContainerInterface
{
public:
    explicit kxBVHMeshContainer(const std::vector<kx::kxTriMesh*>& meshes);
    ~kxBVHMeshContainer() override;

    const kxBBox& getBBox(unsigned int i) const override { return mBoxes[i]; }
    uint32_t getQuantity() const override { return static_cast<uint32_t>(mBoxes.size()); }

private:
    std::vector<kxBBox> mBoxes;
};

#endif
