// Cutting a reference in two at an axis-aligned plane.
#ifndef KXHQCLIP_H
#define KXHQCLIP_H

#include "kxHQTypes.h"

namespace kxHQ
{
/// True when the triangle's corners are all finite numbers: only such triangles are cut.
bool isClippable(const Triangle& triangle);

/// Boxes of the parts of the triangle on either side of the plane x[axis] = position,
/// each intersected with the reference's box. Every point of the triangle inside that box
/// lies in one of the two boxes (a point on the plane in both): crossing points are
/// computed in double precision and rounded outward by more than their error. A side that
/// holds none of the triangle inside the box comes back empty (and may also come back as
/// a thin non-empty box: the bounds are safe, not tight).
void splitReference(const Triangle& triangle, const kxBBox& box, int axis, float position, kxBBox& left, kxBBox& right);
} // namespace kxHQ

#endif
