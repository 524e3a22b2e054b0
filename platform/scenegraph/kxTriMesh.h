#ifndef KXTRIMESH_H
#define KXTRIMESH_H

#include "kxIndexBuffer.h"
#include "kxObject.h"
#include "kxPointer.h"
#include "kxVertexBuffer.h"

namespace kx
{
/// An indexed triangle mesh: triangle t uses the vertices named by indices 3t, 3t+1, 3t+2.
/// Holds a reference to each buffer.
class kxTriMesh : public kxObject
{
public:
    static const kxRtti TYPE;

    kxTriMesh(kxVertexBuffer* vertices, kxIndexBuffer* indices);
    const kxRtti& GetType() const override;

    kxVertexBuffer* GetVertexBuffer() { return mVertices; }
    const kxVertexBuffer* GetVertexBuffer() const { return mVertices; }
    kxIndexBuffer* GetIndexBuffer() { return mIndices; }
    const kxIndexBuffer* GetIndexBuffer() const { return mIndices; }

private:
    kxPointer<kxVertexBuffer> mVertices;
    kxPointer<kxIndexBuffer> mIndices;
};
} // namespace kx

#endif
