#include "kxIndexBuffer.h"
#include "kxVertexBuffer.h"

#include <algorithm>

namespace kx
{
const kxRtti kxVertexBuffer::TYPE("kxVertexBuffer", &kxObject::TYPE);
const kxRtti kxIndexBuffer::TYPE("kxIndexBuffer", &kxObject::TYPE);

kxVertexBuffer::kxVertexBuffer(int vertexQuantity)
    : mPositions(static_cast<size_t>(std::max(vertexQuantity, 0)), Wm4::Vector3<float>(0.0f, 0.0f, 0.0f))
{
}

const kxRtti& kxVertexBuffer::GetType() const
{
    return TYPE;
}

kxIndexBuffer::kxIndexBuffer(int indexQuantity)
    : mIndices(static_cast<size_t>(std::max(indexQuantity, 0)), 0u), mIndexQuantity(indexQuantity)
{
}

const kxRtti& kxIndexBuffer::GetType() const
{
    return TYPE;
}
} // namespace kx
