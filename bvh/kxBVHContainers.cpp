#include "kxBVHContainers.h"

#include "kxHugePages.h"

#include <emmintrin.h>

#include <limits>

namespace
{
// x, y, z of p in the low three lanes, without reading past it.
inline __m128 loadPoint(const Wm4::Vector3<float>& p)
{
    const __m128 xy = _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(&p[0])));
    return _mm_movelh_ps(xy, _mm_load_ss(&p[2]));
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
    // The empty box extended by the corners in order: SSE's min(p, m) is p < m ? p : m, the
    // comparison of kxBBox::extend, here on three axes at once.
    const __m128 empty = _mm_set1_ps(std::numeric_limits<float>::infinity());
    const __m128 emptyMax = _mm_set1_ps(-std::numeric_limits<float>::infinity());
    for (int64_t t = 0; t < triangles; ++t, index += 3)
    {
        const __m128 p0 = loadPoint(mVertices->Position3(static_cast<int>(index[0])));
        const __m128 p1 = loadPoint(mVertices->Position3(static_cast<int>(index[1])));
        const __m128 p2 = loadPoint(mVertices->Position3(static_cast<int>(index[2])));
        const __m128 lo = _mm_min_ps(p2, _mm_min_ps(p1, _mm_min_ps(p0, empty)));
        const __m128 hi = _mm_max_ps(p2, _mm_max_ps(p1, _mm_max_ps(p0, emptyMax)));
        // min x, y, z, max x as one vector and max y, z as a second, stored in place.
        const __m128 joint = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(0, 0, 2, 2));
        kxBBox& box = mBoxes.emplace_back();
        _mm_storeu_ps(box.min, _mm_shuffle_ps(lo, joint, _MM_SHUFFLE(2, 0, 1, 0)));
        _mm_storel_pi(reinterpret_cast<__m64*>(box.max + 1), _mm_shuffle_ps(hi, hi, _MM_SHUFFLE(3, 3, 2, 1)));
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
