#include "kxTriMesh.h"

namespace kx
{
const kxRtti kxTriMesh::TYPE("kxTriMesh", &kxObject::TYPE);

kxTriMesh::kxTriMesh(kxVertexBuffer* vertices, kxIndexBuffer* indices) : mVertices(vertices), mIndices(indices) {}

const kxRtti& kxTriMesh::GetType() const
{
    return TYPE;
}
} // namespace kx
