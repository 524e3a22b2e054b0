// An outside program: boxes one triangle through the installed headers.
#include <kxCommonAddOns.h>

#include <iostream>

int main()
{
    kx::kxPointer<kx::kxVertexBuffer> vertices = new kx::kxVertexBuffer(3);
    vertices->Position3(1) = Wm4::Vector3<float>(1.0f, 0.0f, 0.0f);
    kx::kxPointer<kx::kxIndexBuffer> indices = new kx::kxIndexBuffer(3);
    indices->GetData()[1] = 1;
    kxBVHTriangleContainer container(kx::kxTriMesh(vertices, indices));
    if (container.getQuantity() != 1 || container.getBBox(0).max[0] != 1.0f)
        return 1;
    std::cout << "kxCommonAddOns " << kxCommonAddOns::Version::GetDescStringMajorMinorReleaseRevisionDate() << '\n';
}
