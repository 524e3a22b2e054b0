#include "kxBVHContainers.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>

namespace
{
kx::kxPointer<kx::kxVertexBuffer> randomVertices(int quantity, std::mt19937& random)
{
    std::uniform_real_distribution<float> coordinate(-100.0f, 100.0f);
    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(quantity);
    for (int i = 0; i < quantity; ++i)
        vertices->Position3(i) = Wm4::Vector3<float>(coordinate(random), coordinate(random), coordinate(random));
    return vertices;
}
} // namespace

TEST(TriangleContainer, BoxesBoundEachTriangleOnceAndIgnoreTrailingIndices)
{
    std::mt19937 random(17);
    for (int indexQuantity : {3, 7, 8, 300, 3001})
    {
        kx::kxPointer<kx::kxVertexBuffer> vertices = randomVertices(50, random);
        kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(indexQuantity);
        for (int i = 0; i < indexQuantity; ++i)
            indices->GetData()[i] = i < indexQuantity / 3 * 3 ? random() % 50 : 0x7FFFFFF0u; // never read
        indices->GetData()[1] = indices->GetData()[2];
        const kxBVHTriangleContainer container(kx::kxTriMesh(vertices, indices));
        ASSERT_EQ(container.getQuantity(), uint32_t(indexQuantity / 3));
        for (uint32_t t = 0; t < container.getQuantity(); ++t)
        {
            kxBBox expected;
            for (int corner = 0; corner < 3; ++corner)
                expected.extend(vertices->Position3(int(indices->GetData()[3 * t + corner])));
            EXPECT_EQ(container.getBBox(t), expected) << indexQuantity << " indices, triangle " << t;
        }
        // Taken at construction: later edits of the buffers do not show.
        const kxBBox first = container.getBBox(0);
        vertices->Position3(int(indices->GetData()[0])) = Wm4::Vector3<float>(1e6f, 1e6f, 1e6f);
        indices->SetIndexQuantity(0);
        EXPECT_EQ(container.getBBox(0), first);
    }
}

TEST(TriangleContainer, ShortIndexCountsGiveNoTrianglesAndNegativeTriangleCountsALengthError)
{
    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(3);
    for (int quantity = -2; quantity <= 2; ++quantity)
    {
        const kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(quantity);
        EXPECT_EQ(kxBVHTriangleContainer(vertices, indices).getQuantity(), 0u) << quantity << " indices";
    }
    for (int quantity : {-3, -300, INT_MIN})
    {
        kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(quantity);
        try
        {
            kxBVHTriangleContainer container(vertices, indices);
            ADD_FAILURE() << quantity << " indices made a container of " << container.getQuantity();
        }
        catch (const std::length_error& error)
        {
            EXPECT_STREQ(error.what(), "vector::_M_default_append") << quantity << " indices";
        }
    }
}

TEST(MeshContainer, EachBoxBoundsEveryVertexOfItsMeshAndAnEmptyMeshKeepsTheEmptyBox)
{
    std::mt19937 random(29);
    std::vector<kx::kxPointer<kx::kxTriMesh>> meshes;
    std::vector<kx::kxTriMesh*> list;
    for (int vertexQuantity : {40, 0, 1, 500})
    {
        // Vertices no triangle uses count as well: one triangle over vertex 0 only.
        meshes.push_back(new kx::kxTriMesh(randomVertices(vertexQuantity, random), new kx::kxIndexBuffer(3)));
        list.push_back(meshes.back());
    }
    const kxBVHMeshContainer container(list);
    ASSERT_EQ(container.getQuantity(), list.size());
    for (unsigned int m = 0; m < list.size(); ++m)
    {
        kxBBox expected;
        for (int i = 0; i < list[m]->GetVertexBuffer()->GetVertexQuantity(); ++i)
            expected.extend(list[m]->GetVertexBuffer()->Position3(i));
        EXPECT_EQ(container.getBBox(m), expected) << "mesh " << m;
    }
    EXPECT_EQ(container.getBBox(1), kxBBox());
    EXPECT_EQ(kxBVHMeshContainer({}).getQuantity(), 0u);
}

TEST(TriangleContainer, BoxesAreTheEmptyBoxExtendedByTheCornersInOrderEvenForZerosInfinitiesAndNaNs)
{
    // Signed zeros and NaNs tell the comparison order apart: extend keeps the first of two
    // equal zeros and skips NaN coordinates. Compared bit for bit.
    const float special[] = {0.0f, -0.0f, 1.5f, -2.0f, std::numeric_limits<float>::infinity(),
                             -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()};
    std::mt19937 random(5);
    const int vertexCount = 64;
    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(vertexCount);
    for (int i = 0; i < vertexCount; ++i)
        for (int a = 0; a < 3; ++a)
            vertices->Position3(i)[a] = special[random() % 7];
    const int triangles = 2000;
    kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(3 * triangles);
    for (int i = 0; i < 3 * triangles; ++i)
        indices->GetData()[i] = random() % vertexCount;
    const kxBVHTriangleContainer container(vertices, indices);
    ASSERT_EQ(container.getQuantity(), static_cast<uint32_t>(triangles));
    for (int t = 0; t < triangles; ++t)
    {
        kxBBox expected;
        for (int c = 0; c < 3; ++c)
            expected.extend(vertices->Position3(static_cast<int>(indices->GetData()[3 * t + c])));
        EXPECT_EQ(std::memcmp(&container.getBBox(static_cast<unsigned int>(t)), &expected, sizeof(kxBBox)), 0)
            << "triangle " << t;
    }
}
