#ifndef KXVERTEXBUFFER_H
#define KXVERTEXBUFFER_H

#include "Wm4Foundation.h"
#include "kxObject.h"

#include <vector>

namespace kx
{
/// Vertex positions of a mesh.
class kxVertexBuffer : public kxObject
{
public:
    static const kxRtti TYPE;

    /// Positions start at (0, 0, 0); a negative quantity makes an empty buffer.
    explicit kxVertexBuffer(int vertexQuantity);
    const kxRtti& GetType() const override;

    int GetVertexQuantity() const { return static_cast<int>(mPositions.size()); }
    /// i is not checked.
    Wm4::Vector3<float>& Position3(int i) { return mPositions[static_cast<size_t>(i)]; }
    const Wm4::Vector3<float>& Position3(int i) const { return mPositions[static_cast<size_t>(i)]; }

private:
    std::vector<Wm4::Vector3<float>> mPositions;
};
} // namespace kx

#endif
