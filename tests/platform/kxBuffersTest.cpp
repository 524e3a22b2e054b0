#include "kxTriMesh.h"

#include <gtest/gtest.h>

TEST(Buffers, VertexBufferStartsAtTheOriginAndStoresPositions)
{
    kx::kxVertexBuffer vertices(5);
    EXPECT_EQ(vertices.GetVertexQuantity(), 5);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(vertices.Position3(i), Wm4::Vector3<float>(0.0f, 0.0f, 0.0f));
    vertices.Position3(3) = Wm4::Vector3<float>(1.0f, -2.0f, 3.5f);
    const kx::kxVertexBuffer& view = vertices;
    EXPECT_EQ(view.Position3(3), Wm4::Vector3<float>(1.0f, -2.0f, 3.5f));
    EXPECT_EQ(&view.Position3(4) - &view.Position3(3), 1) << "positions are contiguous";
    EXPECT_TRUE(vertices.IsExactly(kx::kxVertexBuffer::TYPE));
}

TEST(Buffers, IndexBufferStartsAtZeroAndItsQuantityIsUnchecked)
{
    kx::kxIndexBuffer indices(6);
    EXPECT_EQ(indices.GetIndexQuantity(), 6);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(indices.GetData()[i], 0u);
    for (int i = 0; i < 6; ++i)
        indices.GetData()[i] = unsigned(10 + i);
    const unsigned int* before = indices.GetData();
    indices.SetIndexQuantity(3);
    EXPECT_EQ(indices.GetIndexQuantity(), 3);
    EXPECT_EQ(indices.GetData(), before) << "the allocation stays";
    EXPECT_EQ(indices.GetData()[5], 15u);
    indices.SetIndexQuantity(600);
    EXPECT_EQ(indices.GetIndexQuantity(), 600);
    EXPECT_TRUE(indices.IsDerived(kx::kxObject::TYPE));
}

TEST(Buffers, MeshHoldsAReferenceToEachBuffer)
{
    kx::kxPointer<kx::kxVertexBuffer> vertices(new kx::kxVertexBuffer(3));
    kx::kxPointer<kx::kxIndexBuffer> indices(new kx::kxIndexBuffer(3));
    {
        kx::kxPointer<kx::kxTriMesh> mesh(new kx::kxTriMesh(vertices, indices));
        EXPECT_EQ(vertices->GetReferences(), 2);
        EXPECT_EQ(indices->GetReferences(), 2);
        EXPECT_EQ(mesh->GetVertexBuffer(), vertices.get());
        EXPECT_EQ(mesh->GetIndexBuffer(), indices.get());
        const kx::kxTriMesh& view = *mesh;
        EXPECT_EQ(view.GetVertexBuffer(), vertices.get());
        EXPECT_EQ(view.GetIndexBuffer(), indices.get());
    }
    EXPECT_EQ(vertices->GetReferences(), 1);
    EXPECT_EQ(indices->GetReferences(), 1);

    // A mesh that is the buffers' only holder takes them with it.
    kx::kxVertexBuffer* owned = new kx::kxVertexBuffer(1);
    kx::kxPointer<kx::kxTriMesh> lone(new kx::kxTriMesh(owned, new kx::kxIndexBuffer(0)));
    EXPECT_EQ(owned->GetReferences(), 1);
}
