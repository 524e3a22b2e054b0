#include "kxBVHContainers.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

TEST(TriangleContainer, BoxesAreTheEmptyBoxExtendedByTheCornersInOrderAndIgnoreTrailingIndices)
{
    // Signed zeros and NaNs tell the comparison order apart: extend keeps the first of two
    // equal zeros and skips NaN coordinates. Compared bit for bit.
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    const float special[] = {0.0f, -0.0f, 1.5f, -2.0f, inf, -inf, nan};
    std::mt19937 random(5);
    std::uniform_real_distribution<float> coordinate(-100.0f, 100.0f);
    for (int indexQuantity : {3, 8, 6001})
    {
        kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(64);
        for (int i = 0; i < 64; ++i)
            for (int a = 0; a < 3; ++a)
                vertices->Position3(i)[a] = random() % 2 ? coordinate(random) : special[random() % 7];
        kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(indexQuantity);
        for (int i = 0; i < indexQuantity; ++i)
            indices->GetData()[i] = i < indexQuantity / 3 * 3 ? random() % 64 : 0x7FFFFFF0u; // never read
        const kxBVHTriangleContainer container(kx::kxTriMesh(vertices, indices));
        ASSERT_EQ(container.getQuantity(), uint32_t(indexQuantity / 3));
        for (uint32_t t = 0; t < container.getQuantity(); ++t)
        {
            kxBBox expected;
            for (int c = 0; c < 3; ++c)
                expected.extend(vertices->Position3(int(indices->GetData()[3 * t + c])));
            EXPECT_EQ(std::memcmp(&container.getBBox(t), &expected, sizeof(kxBBox)), 0) << "triangle " << t;
        }
        // Taken at construction: later edits of the buffers do not show.
        const kxBBox first = container.getBBox(0);
        vertices->Position3(int(indices->GetData()[0])) = Wm4::Vector3<float>(1e6f, 1e6f, 1e6f);
        indices->SetIndexQuantity(0);
        EXPECT_EQ(std::memcmp(&container.getBBox(0), &first, sizeof(kxBBox)), 0);
    }
}

TEST(TriangleContainer, ShortIndexCountsGiveNoTrianglesAndNegativeTriangleCountsALengthError)
{
    for (int quantity : {-2, 2, -3, INT_MIN})
    {
        std::string error;
        try
        {
            const kx::kxTriMesh mesh(new kx::kxVertexBuffer(3), new kx::kxIndexBuffer(quantity));
            error = std::to_string(kxBVHTriangleContainer(mesh).getQuantity());
        }
        catch (const std::length_error& e)
        {
            error = e.what();
        }
        EXPECT_EQ(error, quantity > -3 ? "0" : "vector::_M_default_append") << quantity << " indices";
    }
}

TEST(MeshContainer, EachBoxBoundsEveryVertexOfItsMeshAndAnEmptyMeshKeepsTheEmptyBox)
{
    std::mt19937 random(29);
    std::uniform_real_distribution<float> coordinate(-100.0f, 100.0f);
    std::vector<kx::kxPointer<kx::kxTriMesh>> meshes;
    std::vector<kx::kxTriMesh*> list;
    std::vector<kxBBox> expected(4);
    for (int vertexQuantity : {40, 0, 1, 500})
    {
        // Vertices no triangle uses count as well: one triangle over vertex 0 only.
        kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(vertexQuantity);
        for (int i = 0; i < vertexQuantity; ++i)
            expected[list.size()].extend(vertices->Position3(i) = Wm4::Vector3<float>(
                                             coordinate(random), coordinate(random), coordinate(random)));
        meshes.push_back(new kx::kxTriMesh(vertices, new kx::kxIndexBuffer(3)));
        list.push_back(meshes.back());
    }
    const kxBVHMeshContainer container(list);
    ASSERT_EQ(container.getQuantity(), list.size());
    for (unsigned int m = 0; m < list.size(); ++m)
        EXPECT_EQ(container.getBBox(m), expected[m]) << "mesh " << m;
    EXPECT_EQ(kxBVHMeshContainer({}).getQuantity(), 0u);
}
