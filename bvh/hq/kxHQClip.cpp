#include "kxHQClip.h"

#include <algorithm>
#include <cmath>

namespace kxHQ
{
namespace
{
// A box in double precision, grown by intervals.
struct WideBox
{
    double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL};
    double hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};

    void extend(int axis, double a, double b)
    {
        lo[axis] = std::min(lo[axis], a);
        hi[axis] = std::max(hi[axis], b);
    }
};

float roundDown(double x)
{
    float f = static_cast<float>(x);
    if (static_cast<double>(f) > x)
        f = std::nextafter(f, -HUGE_VALF);
    return f;
}

float roundUp(double x)
{
    float f = static_cast<float>(x);
    if (static_cast<double>(f) < x)
        f = std::nextafter(f, HUGE_VALF);
    return f;
}

// The part of the box on one side, from what was gathered there, within the reference's box.
kxBBox finish(const WideBox& gathered, const kxBBox& within)
{
    kxBBox out;
    for (int a = 0; a < 3; ++a)
    {
        out.min[a] = std::max(roundDown(gathered.lo[a]), within.min[a]);
        out.max[a] = std::min(roundUp(gathered.hi[a]), within.max[a]);
    }
    return isEmpty(out) ? kxBBox() : out;
}
} // namespace

bool isClippable(const Triangle& triangle)
{
    for (const auto& corner : triangle.corner)
        for (float c : corner)
            if (!std::isfinite(c))
                return false;
    return true;
}

namespace
{
// Coordinates below this keep every difference of two of them finite in single precision.
constexpr float kSinglePrecisionRange = 1e37f;

// The same in double precision, for coordinates near the largest floats.
void splitInDouble(const Triangle& triangle, const kxBBox& box, int axis, float position, kxBBox& left, kxBBox& right)
{
    WideBox l, r;
    const double p = position;
    for (int i = 0; i < 3; ++i)
    {
        const float* v0 = triangle.corner[i];
        const float* v1 = triangle.corner[(i + 1) % 3];
        for (int a = 0; a < 3; ++a)
        {
            if (v0[axis] <= position)
                l.extend(a, v0[a], v0[a]);
            if (v0[axis] >= position)
                r.extend(a, v0[a], v0[a]);
        }
        const bool crosses =
            (v0[axis] < position && position < v1[axis]) || (v1[axis] < position && position < v0[axis]);
        if (!crosses)
            continue;
        const double t = (p - v0[axis]) / (double(v1[axis]) - v0[axis]);
        for (int a = 0; a < 3; ++a)
        {
            if (a == axis)
            {
                l.extend(a, p, p);
                r.extend(a, p, p);
                continue;
            }
            // The crossing lies on the edge; its error is far below 1e-15 of the corners'
            // magnitudes, whatever cancellation there is.
            const double q = v0[a] + t * (double(v1[a]) - v0[a]);
            const double margin = 1e-15 * (std::fabs(double(v0[a])) + std::fabs(double(v1[a])));
            const double lo = std::max(q - margin, double(std::min(v0[a], v1[a])));
            const double hi = std::min(q + margin, double(std::max(v0[a], v1[a])));
            l.extend(a, lo, hi);
            r.extend(a, lo, hi);
        }
    }
    left = finish(l, box);
    right = finish(r, box);
}
} // namespace

void splitReference(const Triangle& triangle, const kxBBox& box, int axis, float position, kxBBox& left, kxBBox& right)
{
    float largest = 0.0f;
    for (const auto& corner : triangle.corner)
        for (float c : corner)
            largest = std::max(largest, std::fabs(c));
    if (largest < kSinglePrecisionRange)
    {
        kxBBox l, r;
        for (int i = 0; i < 3; ++i)
        {
            const float* v0 = triangle.corner[i];
            const float* v1 = triangle.corner[i == 2 ? 0 : i + 1];
            if (v0[axis] <= position)
                kxHQ::extend(l, v0);
            if (v0[axis] >= position)
                kxHQ::extend(r, v0);
            if (!((v0[axis] < position && position < v1[axis]) || (v1[axis] < position && position < v0[axis])))
                continue;
            const float t = (position - v0[axis]) / (v1[axis] - v0[axis]);
            for (int a = 0; a < 3; ++a)
            {
                if (a == axis)
                    continue;
                // A few roundings of operands no larger than the corners: well below a
                // millionth of their magnitudes. The crossing lies on the edge, whatever.
                const float q = v0[a] + t * (v1[a] - v0[a]);
                const float margin = (std::fabs(v0[a]) + std::fabs(v1[a])) * 1e-6f;
                const float lo = std::max(q - margin, std::min(v0[a], v1[a]));
                const float hi = std::min(q + margin, std::max(v0[a], v1[a]));
                l.min[a] = std::min(l.min[a], lo);
                l.max[a] = std::max(l.max[a], hi);
                r.min[a] = std::min(r.min[a], lo);
                r.max[a] = std::max(r.max[a], hi);
            }
            l.min[axis] = std::min(l.min[axis], position);
            l.max[axis] = std::max(l.max[axis], position);
            r.min[axis] = std::min(r.min[axis], position);
            r.max[axis] = std::max(r.max[axis], position);
        }
        for (int a = 0; a < 3; ++a)
        {
            l.min[a] = std::max(l.min[a], box.min[a]);
            l.max[a] = std::min(l.max[a], box.max[a]);
            r.min[a] = std::max(r.min[a], box.min[a]);
            r.max[a] = std::min(r.max[a], box.max[a]);
        }
        left = l;
        right = r;
    }
    else
        splitInDouble(triangle, box, axis, position, left, right);
    left.max[axis] = std::min(left.max[axis], position);
    right.min[axis] = std::max(right.min[axis], position);
    if (isEmpty(left))
        left = kxBBox();
    if (isEmpty(right))
        right = kxBBox();
}
} // namespace kxHQ
