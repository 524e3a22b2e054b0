#include "kxBBox.h"

#include <cstring>
#include <ostream>

namespace
{
// Clears the sign bit, as the overlap test's absolute values are defined.
inline float absBits(float v)
{
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    bits &= 0x7FFFFFFFu;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

inline float min3(float a, float b, float c)
{
    float m = a < b ? a : b;
    return c < m ? c : m;
}

inline float max3(float a, float b, float c)
{
    float m = a > b ? a : b;
    return c > m ? c : m;
}

// Projections p, q of the triangle against the box's projection radius r.
inline bool separated(float p, float q, float r)
{
    const float lo = p < q ? p : q;
    const float hi = p < q ? q : p;
    return lo > r || -r > hi;
}
} // namespace

float kxBBox::getMaxExtent(tAxis& a) const
{
    const float ex = max[0] - min[0];
    const float ey = max[1] - min[1];
    const float ez = max[2] - min[2];
    if (ez > ey)
    {
        if (ex <= ez)
        {
            a = eAxisZ;
            return ez;
        }
        a = eAxisX;
        return ex;
    }
    if (ex <= ey)
    {
        a = eAxisY;
        return ey;
    }
    a = eAxisX;
    return ex;
}

float kxBBox::getMinExtent(tAxis& a) const
{
    const float ex = max[0] - min[0];
    const float ey = max[1] - min[1];
    const float ez = max[2] - min[2];
    if (ey > ez)
    {
        if (ez <= ex)
        {
            a = eAxisZ;
            return ez;
        }
        a = eAxisX;
        return ex;
    }
    if (ey <= ex)
    {
        a = eAxisY;
        return ey;
    }
    a = eAxisX;
    return ex;
}

Wm4::Box3<float> kxBBox::convert() const
{
    return Wm4::Box3<float>(getCenter(), Wm4::Vector3<float>::UNIT_X, Wm4::Vector3<float>::UNIT_Y,
                            Wm4::Vector3<float>::UNIT_Z, (max[0] - min[0]) * 0.5f, (max[1] - min[1]) * 0.5f,
                            (max[2] - min[2]) * 0.5f);
}

kxBBox kxBBox::splitLeft(tAxis a, float p) const
{
    kxBBox left(*this);
    const int c = component(a);
    left.max[c] = p < max[c] ? p : max[c];
    return left;
}

kxBBox kxBBox::splitRight(tAxis a, float p) const
{
    kxBBox right(*this);
    const int c = component(a);
    right.min[c] = p > min[c] ? p : min[c];
    return right;
}

kxBBox kxBBox::split(tAxis a, float p)
{
    const kxBBox right = splitRight(a, p);
    const int c = component(a);
    max[c] = p < max[c] ? p : max[c];
    return right;
}

bool kxBBox::overlapsTriangle(const Wm4::Vector3<float>& a, const Wm4::Vector3<float>& b,
                              const Wm4::Vector3<float>& c) const
{
    const float cx = (min[0] + max[0]) * 0.5f, cy = (min[1] + max[1]) * 0.5f, cz = (min[2] + max[2]) * 0.5f;
    const float hx = (max[0] - min[0]) * 0.5f, hy = (max[1] - min[1]) * 0.5f, hz = (max[2] - min[2]) * 0.5f;

    const float Ax = a[0] - cx, Ay = a[1] - cy, Az = a[2] - cz;
    const float Bx = b[0] - cx, By = b[1] - cy, Bz = b[2] - cz;
    const float Cx = c[0] - cx, Cy = c[1] - cy, Cz = c[2] - cz;

    const float e0x = b[0] - a[0], e0y = b[1] - a[1], e0z = b[2] - a[2];
    const float e1x = c[0] - b[0], e1y = c[1] - b[1], e1z = c[2] - b[2];
    const float e2x = a[0] - c[0], e2y = a[1] - c[1], e2z = a[2] - c[2];

    // Cross products of the coordinate axes with the edges. For each, only the two
    // vertices whose projections can differ are projected.
    float fx = absBits(e0x), fy = absBits(e0y), fz = absBits(e0z);
    if (separated(Ay * e0z - Az * e0y, Cy * e0z - Cz * e0y, hy * fz + hz * fy))
        return false;
    if (separated(-e0z * Ax + e0x * Az, -e0z * Cx + e0x * Cz, hx * fz + hz * fx))
        return false;
    if (separated(Cx * e0y - Cy * e0x, Bx * e0y - By * e0x, hx * fy + hy * fx))
        return false;

    fx = absBits(e1x), fy = absBits(e1y), fz = absBits(e1z);
    if (separated(Ay * e1z - Az * e1y, Cy * e1z - Cz * e1y, hy * fz + hz * fy))
        return false;
    if (separated(-e1z * Ax + e1x * Az, -e1z * Cx + e1x * Cz, hx * fz + hz * fx))
        return false;
    if (separated(Ax * e1y - Ay * e1x, Bx * e1y - By * e1x, hx * fy + hy * fx))
        return false;

    fx = absBits(e2x), fy = absBits(e2y), fz = absBits(e2z);
    if (separated(Ay * e2z - Az * e2y, By * e2z - Bz * e2y, hy * fz + hz * fy))
        return false;
    if (separated(-e2z * Ax + e2x * Az, -e2z * Bx + e2x * Bz, hx * fz + hz * fx))
        return false;
    if (separated(Cx * e2y - Cy * e2x, Bx * e2y - By * e2x, hx * fy + hy * fx))
        return false;

    // The box's face normals.
    if (min3(Cx, Bx, Ax) > hx || -hx > max3(Cx, Bx, Ax))
        return false;
    if (min3(Cy, By, Ay) > hy || -hy > max3(Cy, By, Ay))
        return false;
    if (min3(Cz, Bz, Az) > hz || -hz > max3(Cz, Bz, Az))
        return false;

    // The triangle's plane against the box corners farthest and nearest along its normal.
    const float nx = e0y * e2z - e0z * e2y;
    const float ny = e0z * e2x - e0x * e2z;
    const float nz = e0x * e2y - e0y * e2x;
    const float d = nx * a[0] + ny * a[1] + nz * a[2];
    const float px = nx > 0.0f ? max[0] : min[0], qx = nx > 0.0f ? min[0] : max[0];
    const float py = ny > 0.0f ? max[1] : min[1], qy = ny > 0.0f ? min[1] : max[1];
    const float pz = nz > 0.0f ? max[2] : min[2], qz = nz > 0.0f ? min[2] : max[2];
    const float far = nx * px + ny * py + nz * pz - d;
    const float near = nx * qx + ny * qy + nz * qz - d;
    return 0.0f >= far * near;
}

std::ostream& operator<<(std::ostream& os, const kxBBox& box)
{
    return os << '(' << box.min[0] << ',' << box.min[1] << ',' << box.min[2] << ")(" << box.max[0] << ','
              << box.max[1] << ',' << box.max[2] << ')';
}

std::ostream& operator<<(std::ostream& os, const kxBBox2D& box)
{
    return os << '(' << box.min[0] << ',' << box.min[1] << ")(" << box.max[0] << ',' << box.max[1] << ')';
}
