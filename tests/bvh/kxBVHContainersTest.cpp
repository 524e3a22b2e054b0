#include "kxBVHContainers.h"

#include <gtest/gtest.h>

#include <algorithm>
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

kxBBox boundingBox(std::initializer_list<Wm4::Vector3<float>> points)
{
    kxBBox box;
    for (int a = 0; a < 3; ++a)
    {
        box.min[a] = box.max[a] = points.begin()[0][a];
        for (const Wm4::Vector3<float>& p : points)
        {
            box.min[a] = std::min(box.min[a], p[a]);
            box.max[a] = std::max(box.max[a], p[a]);
        }
    }
    return box;
}
} // namespace

TEST(TriangleContainer, EachBoxBoundsItsTrianglesThreeVerticesAndTrailingIndicesAreIgnored)
{
    std::mt19937 random(17);
    for (int indexQuantity : {3, 7, 8, 9, 300, 3001})
    {
        SCOPED_TRACE(std::to_string(indexQuantity) + " indices");
        kx::kxPointer<kx::kxVertexBuffer> vertices = randomVertices(50, random);
        kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(indexQuantity);
        for (int i = 0; i < indexQuantity; ++i)
            indices->GetData()[i] = random() % 50;
        // Indices that do not complete a triangle name no vertex at all: reading one fails.
        for (int i = indexQuantity / 3 * 3; i < indexQuantity; ++i)
            indices->GetData()[i] = 0x7FFFFFF0u;
        if (indexQuantity == 300)
            indices->GetData()[3] = indices->GetData()[4] = indices->GetData()[5];

        const kx::kxTriMesh mesh(vertices, indices);
        const kxBVHTriangleContainer fromMesh(mesh);
        const kxBVHTriangleContainer fromBuffers(vertices, indices);
        ASSERT_EQ(fromMesh.getQuantity(), static_cast<uint32_t>(indexQuantity / 3));
        ASSERT_EQ(fromBuffers.getQuantity(), fromMesh.getQuantity());
        for (uint32_t t = 0; t < fromMesh.getQuantity(); ++t)
        {
            const unsigned int* index = indices->GetData() + 3 * t;
            const kxBBox expected = boundingBox({vertices->Position3(static_cast<int>(index[0])),
                                                 vertices->Position3(static_cast<int>(index[1])),
                                                 vertices->Position3(static_cast<int>(index[2]))});
            EXPECT_EQ(fromMesh.getBBox(t), expected) << "triangle " << t;
            EXPECT_EQ(fromBuffers.getBBox(t), expected) << "triangle " << t;
        }
    }
}

TEST(TriangleContainer, BoxesAreTakenOnceAtConstruction)
{
    std::mt19937 random(3);
    kx::kxPointer<kx::kxVertexBuffer> vertices = randomVertices(3, random);
    kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(3);
    indices->GetData()[1] = 1;
    indices->GetData()[2] = 2;
    const kx::kxTriMesh mesh(vertices, indices);
    const kxBVHTriangleContainer container(mesh);
    const kxBBox before = container.getBBox(0);
    vertices->Position3(0) = Wm4::Vector3<float>(1e6f, 1e6f, 1e6f);
    indices->SetIndexQuantity(0);
    EXPECT_EQ(container.getQuantity(), 1u);
    EXPECT_EQ(container.getBBox(0), before);
}

TEST(TriangleContainer, ShortIndexCountsGiveNoTrianglesAndNegativeTriangleCountsALengthError)
{
    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(3);
    for (int quantity = -2; quantity <= 2; ++quantity)
    {
        kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(quantity);
        EXPECT_EQ(kxBVHTriangleContainer(vertices, indices).getQuantity(), 0u) << quantity << " indices";
    }
    for (int quantity : {-3, -4, -5, -6, -300, INT_MIN})
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
    for (int vertexQuantity : {40, 0, 1, 7, 0, 500})
    {
        // Vertices no triangle uses count as well: one triangle over vertex 0 only.
        meshes.push_back(new kx::kxTriMesh(randomVertices(vertexQuantity, random), new kx::kxIndexBuffer(3)));
        list.push_back(meshes.back());
    }
    const kxBVHMeshContainer container(list);
    ASSERT_EQ(container.getQuantity(), list.size());
    for (size_t m = 0; m < list.size(); ++m)
    {
        const kx::kxVertexBuffer* vertices = list[m]->GetVertexBuffer();
        kxBBox expected;
        if (vertices->GetVertexQuantity() > 0)
        {
            for (int a = 0; a < 3; ++a)
            {
                expected.min[a] = expected.max[a] = vertices->Position3(0)[a];
                for (int i = 1; i < vertices->GetVertexQuantity(); ++i)
                {
                    expected.min[a] = std::min(expected.min[a], vertices->Position3(i)[a]);
                    expected.max[a] = std::max(expected.max[a], vertices->Position3(i)[a]);
                }
            }
        }
        EXPECT_EQ(container.getBBox(static_cast<unsigned int>(m)), expected) << "mesh " << m;
    }
    EXPECT_EQ(container.getBBox(1), kxBBox());

    meshes[0]->GetVertexBuffer()->Position3(0) = Wm4::Vector3<float>(1e9f, 1e9f, 1e9f);
    EXPECT_LT(container.getBBox(0).max[0], 1e9f);
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
