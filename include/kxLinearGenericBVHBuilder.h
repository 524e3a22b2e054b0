#ifndef KXLINEARGENERICBVHBUILDER_H
#define KXLINEARGENERICBVHBUILDER_H

#include "kxBBox.h"
#include "kxCancelInterface.h"
#include "kxGenericBVH.h"

#include <cstdint>
#include <vector>

/// Sort-based BVH builder: Morton codes of the primitive box centres, radix sort,
/// level-by-level emission, refit, then fusing of small subtrees into leaves.
/// One builder runs one build at a time; it may be reused.
class kxLinearGenericBVHBuilder
{
public:
    /// The primitives a builder sees: numbered boxes. Builders may ask for a box as often
    /// as they like; implementations hand out references to stored boxes.
    class tPrimitiveContainerInterface
    {
    public:
        virtual ~tPrimitiveContainerInterface();
        /// Box of primitive i; i is not checked.
        virtual const kxBBox& getBBox(unsigned int i) const = 0;
        virtual uint32_t getQuantity() const = 0;
    };

    /// Leaf limit 4, empty scene box.
    kxLinearGenericBVHBuilder();
    ~kxLinearGenericBVHBuilder();

    /// Stores max(n, 1).
    void setMaxPrimitivesPerLeaf(unsigned int n);
    unsigned int getMaxPrimitivesPerLeaf() const;

    /// Builds bvh over the container's primitives with min(bits, 21) Morton bits per axis
    /// (32-bit codes when bits <= 10, else 64-bit). Returns false when cancel (may be
    /// null) asked to stop; bvh must not be used then. Logs its memory use at level 1,
    /// category "bvh". Allocation failures propagate; work arrays are released on every
    /// path.
    bool build(const tPrimitiveContainerInterface& container, kxGenericBVH& bvh,
               const kx::kxCancelInterfaceReadOnly* cancel, unsigned int bits);

private:
    void gatherPrimitives(const tPrimitiveContainerInterface& container);

    std::vector<uint32_t> mPrimitiveIndexes;
    kxBBox mSceneBox;
    uint32_t mQuantity;
    uint32_t mMaxPrimitivesPerLeaf;
};

#endif
