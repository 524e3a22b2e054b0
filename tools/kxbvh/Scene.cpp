#include "Scene.h"

#include "Interrupt.h"

#include <Wm4Foundation.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace kxbvh
{
namespace
{
using Vec3 = Wm4::Vector3<float>;

constexpr double kPi = 3.14159265358979323846;
constexpr double kGroundHalfSize = 10.0;
constexpr double kSphereRadius = 2.6;
constexpr double kTorusRadius = 4.0;
constexpr double kTorusThickness = 0.32;
constexpr double kTorusTilt = 20.0 * kPi / 180.0;

uint32_t hash(int x, int y, int z)
{
    uint32_t h = static_cast<uint32_t>(x) * 0x8da6b343u ^ static_cast<uint32_t>(y) * 0xd8163841u ^
                 static_cast<uint32_t>(z) * 0xcb1ab31fu;
    h ^= h >> 13;
    h *= 0x5bd1e995u;
    h ^= h >> 15;
    return h;
}

double lattice(int x, int y, int z)
{
    return hash(x, y, z) * (2.0 / 4294967295.0) - 1.0;
}

double smooth(double t)
{
    return t * t * (3.0 - 2.0 * t);
}

/// Value noise in [-1, 1]: lattice values blended smoothly. Integer hashing keeps it
/// identical on every machine.
double noise(double x, double y, double z)
{
    const double fx = std::floor(x), fy = std::floor(y), fz = std::floor(z);
    const int ix = static_cast<int>(fx), iy = static_cast<int>(fy), iz = static_cast<int>(fz);
    const double tx = smooth(x - fx), ty = smooth(y - fy), tz = smooth(z - fz);
    double plane[2];
    for (int dz = 0; dz < 2; ++dz)
    {
        const double a = lattice(ix, iy, iz + dz) + (lattice(ix + 1, iy, iz + dz) - lattice(ix, iy, iz + dz)) * tx;
        const double b =
            lattice(ix, iy + 1, iz + dz) + (lattice(ix + 1, iy + 1, iz + dz) - lattice(ix, iy + 1, iz + dz)) * tx;
        plane[dz] = a + (b - a) * ty;
    }
    return plane[0] + (plane[1] - plane[0]) * tz;
}

double fractalNoise(double x, double y, double z, int octaves)
{
    double sum = 0.0, amplitude = 0.5, frequency = 1.0;
    for (int i = 0; i < octaves; ++i)
    {
        sum += amplitude * noise(x * frequency, y * frequency, z * frequency);
        amplitude *= 0.5;
        frequency *= 2.03;
    }
    return sum;
}

class MeshWriter
{
public:
    unsigned vertex(double x, double y, double z)
    {
        mPositions.emplace_back(static_cast<float>(x), static_cast<float>(y), static_cast<float>(z));
        return static_cast<unsigned>(mPositions.size() - 1);
    }
    void triangle(unsigned a, unsigned b, unsigned c)
    {
        mIndices.push_back(a);
        mIndices.push_back(b);
        mIndices.push_back(c);
    }
    unsigned vertexCount() const { return static_cast<unsigned>(mPositions.size()); }

    kx::kxPointer<kx::kxTriMesh> finish()
    {
        auto* vertices = new kx::kxVertexBuffer(static_cast<int>(mPositions.size()));
        for (size_t i = 0; i < mPositions.size(); ++i)
            vertices->Position3(static_cast<int>(i)) = mPositions[i];
        auto* indices = new kx::kxIndexBuffer(static_cast<int>(mIndices.size()));
        std::copy(mIndices.begin(), mIndices.end(), indices->GetData());
        return kx::kxPointer<kx::kxTriMesh>(new kx::kxTriMesh(vertices, indices));
    }

private:
    std::vector<Vec3> mPositions;
    std::vector<unsigned> mIndices;
};

double groundHeight(double x, double z)
{
    const double hills = 3.2 * fractalNoise(x * 0.16, 0.5, z * 0.16, 6);
    // A flat clearing under the sphere, rising into hills towards the edges.
    const double r = std::sqrt(x * x + z * z);
    const double t = std::clamp((r - 3.5) / 5.0, 0.0, 1.0);
    return smooth(t) * hills;
}

void addGround(MeshWriter& mesh, unsigned cells)
{
    const unsigned first = mesh.vertexCount();
    const unsigned row = cells + 1;
    for (unsigned j = 0; j <= cells; ++j)
    {
        throwIfInterrupted("generating the built-in scene");
        const double z = -kGroundHalfSize + 2.0 * kGroundHalfSize * j / cells;
        for (unsigned i = 0; i <= cells; ++i)
        {
            const double x = -kGroundHalfSize + 2.0 * kGroundHalfSize * i / cells;
            mesh.vertex(x, groundHeight(x, z), z);
        }
    }
    for (unsigned j = 0; j < cells; ++j)
        for (unsigned i = 0; i < cells; ++i)
        {
            const unsigned a = first + j * row + i;
            mesh.triangle(a, a + row, a + row + 1);
            mesh.triangle(a, a + row + 1, a + 1);
        }
}

void addSphere(MeshWriter& mesh, unsigned rings, double cx, double cy, double cz)
{
    const unsigned segments = 2 * rings;
    auto surface = [&](double theta, double phi) {
        const double nx = std::sin(theta) * std::cos(phi), ny = std::cos(theta), nz = std::sin(theta) * std::sin(phi);
        const double r = kSphereRadius * (1.0 + 0.16 * fractalNoise(nx * 2.1 + 7.0, ny * 2.1, nz * 2.1, 5));
        return mesh.vertex(cx + nx * r, cy + ny * r, cz + nz * r);
    };
    const unsigned north = surface(0.0, 0.0);
    const unsigned firstRing = mesh.vertexCount();
    for (unsigned ring = 1; ring < rings; ++ring)
    {
        throwIfInterrupted("generating the built-in scene");
        for (unsigned s = 0; s < segments; ++s)
            surface(kPi * ring / rings, 2.0 * kPi * s / segments);
    }
    const unsigned south = surface(kPi, 0.0);
    auto at = [&](unsigned ring, unsigned s) { return firstRing + (ring - 1) * segments + s % segments; };
    for (unsigned s = 0; s < segments; ++s)
    {
        mesh.triangle(north, at(1, s + 1), at(1, s));
        for (unsigned ring = 1; ring + 1 < rings; ++ring)
        {
            mesh.triangle(at(ring, s), at(ring + 1, s + 1), at(ring + 1, s));
            mesh.triangle(at(ring, s), at(ring, s + 1), at(ring + 1, s + 1));
        }
        mesh.triangle(south, at(rings - 1, s), at(rings - 1, s + 1));
    }
}

void addTorus(MeshWriter& mesh, unsigned around, double cx, double cy, double cz)
{
    const unsigned along = 4 * around;
    const double cosTilt = std::cos(kTorusTilt), sinTilt = std::sin(kTorusTilt);
    const unsigned first = mesh.vertexCount();
    for (unsigned i = 0; i < along; ++i)
    {
        const double u = 2.0 * kPi * i / along;
        for (unsigned j = 0; j < around; ++j)
        {
            const double v = 2.0 * kPi * j / around;
            const double ring = kTorusRadius + kTorusThickness * std::cos(v);
            const double x = ring * std::cos(u), y = kTorusThickness * std::sin(v), z = ring * std::sin(u);
            mesh.vertex(cx + x, cy + y * cosTilt - z * sinTilt, cz + y * sinTilt + z * cosTilt);
        }
    }
    auto at = [&](unsigned i, unsigned j) { return first + (i % along) * around + j % around; };
    for (unsigned i = 0; i < along; ++i)
        for (unsigned j = 0; j < around; ++j)
        {
            mesh.triangle(at(i, j), at(i, j + 1), at(i + 1, j));
            mesh.triangle(at(i, j + 1), at(i + 1, j + 1), at(i + 1, j));
        }
}

unsigned sideFor(double triangles, double perSquare, unsigned minimum)
{
    return std::max(minimum, static_cast<unsigned>(std::lround(std::sqrt(triangles / perSquare))));
}
} // namespace

kx::kxPointer<kx::kxTriMesh> makeScene(uint64_t triangles)
{
    // Half the budget to the ground, the rest to the sphere and the torus. Each shape's
    // count grows with the square of its resolution (ground 2g^2, sphere ~4m^2, torus 8k^2).
    const double budget = static_cast<double>(triangles);
    MeshWriter mesh;
    addGround(mesh, sideFor(0.5 * budget, 2.0, 2));
    const double centerY = kSphereRadius * 1.05;
    addSphere(mesh, sideFor(0.35 * budget, 4.0, 3), 0.0, centerY, 0.0);
    addTorus(mesh, sideFor(0.15 * budget, 8.0, 3), 0.0, centerY, 0.0);
    return mesh.finish();
}
} // namespace kxbvh
