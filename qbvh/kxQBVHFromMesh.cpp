#include "kxBVHContainers.h"
#include "kxLinearGenericBVHBuilder.h"
#include "kxQBVH.h"

void kxQBVH::buildFromMesh(tQBVHDataFlags flags, const kx::kxTriMesh& mesh, unsigned int maxPrimitivesPerLeaf)
{
    kxGenericBVH bvh;
    {
        const kxBVHTriangleContainer container(mesh);
        kxLinearGenericBVHBuilder builder;
        builder.setMaxPrimitivesPerLeaf(maxPrimitivesPerLeaf);
        builder.build(container, bvh, nullptr, 20);
    }
    buildFromBVH(flags, bvh, mesh);
}
