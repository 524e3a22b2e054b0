#include "kxTriMesh.h"

#include <gtest/gtest.h>

TEST(Buffers, StartZeroedKeepAnUncheckedQuantityAndAreHeldByTheirMesh)
{
    kx::kxPointer<kx::kxVertexBuffer> vertices(new kx::kxVertexBuffer(3));
    kx::kxPointer<kx::kxIndexBuffer> indices(new kx::kxIndexBuffer(6));
    EXPECT_EQ(indices->GetData()[5], 0u);
    EXPECT_EQ(vertices->Position3(2), Wm4::Vector3<float>(0.0f, 0.0f, 0.0f));
    EXPECT_EQ(&vertices->Position3(2) - &vertices->Position3(0), 2) << "positions are contiguous";
    indices->SetIndexQuantity(600);
    EXPECT_EQ(indices->GetIndexQuantity(), 600);
    {
        const kx::kxPointer<kx::kxTriMesh> mesh(new kx::kxTriMesh(vertices, indices));
        EXPECT_EQ(mesh->GetVertexBuffer(), vertices.get());
        EXPECT_EQ(mesh->GetIndexBuffer(), indices.get());
        EXPECT_EQ(vertices->GetReferences() + indices->GetReferences(), 4);
    }
    EXPECT_EQ(vertices->GetReferences() + indices->GetReferences(), 2);
}
