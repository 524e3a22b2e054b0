#ifndef KXINDEXBUFFER_H
#define KXINDEXBUFFER_H

#include "kxObject.h"

#include <vector>

namespace kx
{
/// Vertex indices of a mesh, three per triangle.
class kxIndexBuffer : public kxObject
{
public:
    static const kxRtti TYPE;

    /// Indices start at 0; a negative quantity allocates nothing but is stored as given.
    explicit kxIndexBuffer(int indexQuantity);
    const kxRtti& GetType() const override;

    int GetIndexQuantity() const { return mIndexQuantity; }
    /// Stores the count unchecked and keeps the allocation, so it can describe a prefix
    /// (or, unchecked, more than was allocated).
    void SetIndexQuantity(int indexQuantity) { mIndexQuantity = indexQuantity; }
    unsigned int* GetData() { return mIndices.data(); }
    const unsigned int* GetData() const { return mIndices.data(); }

private:
    std::vector<unsigned int> mIndices;
    int mIndexQuantity;
};
} // namespace kx

#endif
